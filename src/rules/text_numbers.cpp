#include "rules/text_numbers.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>

namespace tessmark {

namespace {

bool isBlank(char c) {
  return c == ' ' || c == '\t';
}

bool isDigit(char c) {
  return std::isdigit(static_cast<unsigned char>(c)) != 0;
}

// [blanks] [sign] digits [. digits] [e [sign] digits] [blanks], with at least one digit
// before the exponent.
bool isNumber(std::string_view text) {
  size_t i = 0;
  auto digits = [&] {
    size_t start = i;
    while (i < text.size() && isDigit(text[i])) ++i;
    return i - start;
  };
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  size_t mantissa = digits();
  if (i < text.size() && text[i] == '.') {
    ++i;
    mantissa += digits();
  }
  if (mantissa == 0) return false;
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    ++i;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
    if (digits() == 0) return false;
  }
  return i == text.size();
}

template <typename Integer>
std::optional<Integer> wholeFromText(std::string_view text) {
  auto value = DoubleFromText(text);
  if (!value) return std::nullopt;
  double rounded = std::nearbyint(*value);  // the default rounding: halves to even
  if (rounded < std::numeric_limits<Integer>::min() ||
      rounded > std::numeric_limits<Integer>::max())
    return std::nullopt;
  return static_cast<Integer>(rounded);
}

}  // namespace

std::optional<double> DoubleFromText(std::string_view text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  if (!isNumber(text)) return std::nullopt;
  // from_chars reads "." whatever the process's locale says (strtod would take a German
  // locale's "," and read "3.7" as 3); it takes no "+".
  if (text.front() == '+') text.remove_prefix(1);
  double value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
    return std::nullopt;
  return value;
}

std::optional<int32_t> LongFromText(std::string_view text) {
  return wholeFromText<int32_t>(text);
}

std::optional<int16_t> IntegerFromText(std::string_view text) {
  return wholeFromText<int16_t>(text);
}

}  // namespace tessmark
