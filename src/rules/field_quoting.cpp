#include "rules/field_quoting.h"

namespace tessmark {

namespace {

bool NeedsEscape(unsigned char c, std::string_view separators) {
  return c < 0x20 || c == 0x7F || separators.find(static_cast<char>(c)) != std::string_view::npos;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

std::string QuoteField(std::string_view field, std::string_view separators) {
  bool plain = field.empty() || field.front() != '"';
  for (size_t i = 0; plain && i < field.size(); ++i)
    plain = !NeedsEscape(static_cast<unsigned char>(field[i]), separators);
  if (plain) return std::string(field);

  static const char kHex[] = "0123456789ABCDEF";
  std::string quoted = "\"";
  for (char c : field) {
    auto byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      quoted += "\\\\";
    } else if (NeedsEscape(byte, separators)) {
      quoted += "\\x";
      quoted += kHex[byte >> 4];
      quoted += kHex[byte & 0xF];
    } else {
      quoted += c;
    }
  }
  quoted += '"';
  return quoted;
}

std::string UnquoteField(std::string_view field) {
  if (field.size() < 2 || field.front() != '"' || field.back() != '"') return std::string(field);
  field = field.substr(1, field.size() - 2);
  std::string plain;
  plain.reserve(field.size());
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 1 < field.size() && field[i + 1] == '\\') {
      plain += '\\';
      ++i;
    } else if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] == 'x' &&
               HexValue(field[i + 2]) >= 0 && HexValue(field[i + 3]) >= 0) {
      plain += static_cast<char>(HexValue(field[i + 2]) * 16 + HexValue(field[i + 3]));
      i += 3;
    } else {
      plain += field[i];
    }
  }
  return plain;
}

}  // namespace tessmark
