#include "rules/line_reader.h"

#include <fstream>
#include <sstream>

namespace tessmark {

bool ReadLine(std::string_view& text, std::string& line) {
  if (text.empty()) return false;
  size_t end = text.find('\r');
  line.assign(text.substr(0, end));
  if (end == std::string_view::npos) {
    text = {};
  } else {
    text.remove_prefix(end + 1);
    if (!text.empty() && text.front() == '\n') text.remove_prefix(1);
  }
  return true;
}

std::vector<std::string> SplitAt(std::string_view text, char separator) {
  std::vector<std::string> pieces;
  for (;;) {
    size_t end = text.find(separator);
    pieces.emplace_back(text.substr(0, end));
    if (end == std::string_view::npos) return pieces;
    text.remove_prefix(end + 1);
  }
}

bool ReadWholeFile(const std::string& path, std::string& contents) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream buffer;
  buffer << in.rdbuf();
  if (in.bad()) return false;
  contents = buffer.str();
  return true;
}

}  // namespace tessmark
