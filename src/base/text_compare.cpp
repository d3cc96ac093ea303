#include "base/text_compare.h"

#include <algorithm>

namespace tessmark {

namespace {
unsigned char fold(unsigned char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<unsigned char>(c + ('a' - 'A')) : c;
}
}  // namespace

unsigned char FoldCase(unsigned char c) {
  return fold(c);
}

bool EqualIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](unsigned char x, unsigned char y) { return fold(x) == fold(y); });
}

std::string FoldedText(std::string_view text) {
  std::string folded(text);
  for (char& c : folded) c = static_cast<char>(FoldCase(static_cast<unsigned char>(c)));
  return folded;
}

}  // namespace tessmark
