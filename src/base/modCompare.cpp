#include "base/modCompare.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "base/booleans.h"
#include "base/text_compare.h"

namespace tessmark {

namespace {

// One step of a pattern. Every kind but Star stands for exactly one character of the text,
// which is what lets the matcher below run without backtracking into earlier stars.
struct Token {
  enum class Kind { Literal, AnyOne, Digit, List, Star };
  Kind kind = Kind::Literal;
  unsigned char literal = 0;  // folded
  bool negated = false;
  // Inclusive ranges with their bounds as written; a single character is a range of one.
  std::vector<std::pair<unsigned char, unsigned char>> ranges;
};

unsigned char raw(const std::string& text, size_t i) {
  return static_cast<unsigned char>(text[i]);
}

unsigned char at(const std::string& text, size_t i) {
  return FoldCase(raw(text, i));
}

// The letter in the other case; any other byte as it stands.
unsigned char otherCase(unsigned char c) {
  if (c >= 'a' && c <= 'z') return static_cast<unsigned char>(c - ('a' - 'A'));
  return FoldCase(c);
}

// The list after an opening "[", up to its closing "]". `i` comes in on the first character
// after "[" and leaves after the "]". nullopt when the list cannot be read.
std::optional<Token> readList(const std::string& pattern, size_t& i) {
  Token token;
  token.kind = Token::Kind::List;
  const size_t n = pattern.size();
  // "!" negates only when the list goes on behind it: "[!]" is the character "!" itself.
  if (i + 1 < n && pattern[i] == '!' && pattern[i + 1] != ']') {
    token.negated = true;
    ++i;
  }
  bool first = true;
  while (i < n && pattern[i] != ']') {
    unsigned char c = raw(pattern, i);
    bool last = i + 1 < n && pattern[i + 1] == ']';
    if (c == '-' && (first || last)) {
      token.ranges.emplace_back(c, c);
      ++i;
    } else if (c == '-') {
      return std::nullopt;  // a range with no start: "[a--z]", "[a-b-c]"
    } else if (i + 2 < n && pattern[i + 1] == '-' && pattern[i + 2] != ']') {
      unsigned char high = raw(pattern, i + 2);
      if (high == '-' || high < c) return std::nullopt;
      token.ranges.emplace_back(c, high);
      i += 3;
    } else {
      token.ranges.emplace_back(c, c);
      ++i;
    }
    first = false;
  }
  if (i >= n) return std::nullopt;  // never closed
  ++i;
  return token;
}

// The pattern as steps; nullopt when it cannot be read. "[]" matches nothing and so leaves no
// step; runs of "*" are one step.
std::optional<std::vector<Token>> compile(const std::string& pattern) {
  std::vector<Token> tokens;
  size_t i = 0;
  while (i < pattern.size()) {
    char c = pattern[i];
    if (c == '[') {
      ++i;
      if (i < pattern.size() && pattern[i] == ']') {
        ++i;
        continue;
      }
      auto list = readList(pattern, i);
      if (!list) return std::nullopt;
      tokens.push_back(std::move(*list));
      continue;
    }
    Token token;
    if (c == '*') {
      token.kind = Token::Kind::Star;
      if (!tokens.empty() && tokens.back().kind == Token::Kind::Star) {
        ++i;
        continue;
      }
    } else if (c == '?') {
      token.kind = Token::Kind::AnyOne;
    } else if (c == '#') {
      token.kind = Token::Kind::Digit;
    } else {
      token.literal = at(pattern, i);
    }
    tokens.push_back(std::move(token));
    ++i;
  }
  return tokens;
}

// `c` as it stands in the text.
bool matchesOne(const Token& token, unsigned char c) {
  switch (token.kind) {
    case Token::Kind::Literal:
      return token.literal == FoldCase(c);
    case Token::Kind::AnyOne:
      return true;
    case Token::Kind::Digit:
      return c >= '0' && c <= '9';
    case Token::Kind::List: {
      // A letter belongs to the list when either of its cases does: [A-Z] takes "q".
      auto inRange = [](const auto& range, unsigned char x) {
        return range.first <= x && x <= range.second;
      };
      bool inList = std::any_of(token.ranges.begin(), token.ranges.end(), [&](const auto& range) {
        return inRange(range, c) || inRange(range, otherCase(c));
      });
      return inList != token.negated;
    }
    case Token::Kind::Star:
      break;
  }
  return false;
}

}  // namespace

int16_t CompareString(std::string& text, std::string& pattern) {
  auto tokens = compile(pattern);
  if (!tokens) return kFalse;
  // Greedy walk that, on a mismatch, lets the latest star take one more character. Every
  // other step takes exactly one character, so an earlier star never needs to be revisited:
  // the cost is at most text length times pattern length, whatever the stars.
  const std::vector<Token>& steps = *tokens;
  const size_t n = text.size();
  const size_t m = steps.size();
  size_t t = 0;
  size_t p = 0;
  std::optional<size_t> starStep;
  size_t starText = 0;
  while (t < n) {
    if (p < m && steps[p].kind == Token::Kind::Star) {
      starStep = p++;
      starText = t;
    } else if (p < m && matchesOne(steps[p], raw(text, t))) {
      ++p;
      ++t;
    } else if (starStep) {
      p = *starStep + 1;
      t = ++starText;
    } else {
      return kFalse;
    }
  }
  while (p < m && steps[p].kind == Token::Kind::Star) ++p;
  return p == m ? kTrue : kFalse;
}

int16_t InstrString(std::string& text, std::string& part) {
  if (part.empty()) return text.empty() ? kFalse : kTrue;
  auto found = std::search(text.begin(), text.end(), part.begin(), part.end(), [](char a, char b) {
    return FoldCase(static_cast<unsigned char>(a)) == FoldCase(static_cast<unsigned char>(b));
  });
  return found != text.end() ? kTrue : kFalse;
}

}  // namespace tessmark
