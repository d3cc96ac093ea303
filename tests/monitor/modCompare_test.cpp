// The two comparisons of modCompare: the wildcard match used on rule paths, and the substring
// test of the log search. Both ignore the case of ASCII letters only.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/booleans.h"
#include "base/modCompare.h"

namespace tessmark {
namespace {

struct Case {
  std::string text;
  std::string pattern;
  int16_t expected;
};

void ExpectAll(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    std::string text = c.text;
    std::string pattern = c.pattern;
    EXPECT_EQ(CompareString(text, pattern), c.expected)
        << "\"" << c.text << "\" against \"" << c.pattern << "\"";
  }
}

TEST(CompareString, PlainTextMustMatchWholeIgnoringCase) {
  ExpectAll({
      {"/usr/bin/curl", "/usr/bin/curl", kTrue},
      {"/USR/Bin/Curl", "/usr/bin/curl", kTrue},
      {"/usr/bin/curl", "/USR/BIN/CURL", kTrue},
      {"/usr/bin/curl2", "/usr/bin/curl", kFalse},
      {"/usr/bin/cur", "/usr/bin/curl", kFalse},
      {"", "", kTrue},
      {"a", "", kFalse},
      {"", "a", kFalse},
      // Only ASCII letters fold: paths are bytes of no particular encoding.
      {"/home/\xC4", "/home/\xE4", kFalse},
      {"/home/\xC4", "/home/\xC4", kTrue},
  });
}

TEST(CompareString, StarQuestionMarkAndNumberSign) {
  ExpectAll({
      {"/usr/bin/curl", "/usr/bin/*", kTrue},
      {"/usr/bin/curl", "*CURL", kTrue},
      {"/usr/bin/curl", "*bin*", kTrue},
      {"/usr/bin/curl", "*sbin*", kFalse},
      {"", "*", kTrue},
      {"", "**", kTrue},
      {"abc", "a*c*", kTrue},
      {"abcbd", "a*b?", kTrue},  // the star has to give back the first "b"
      {"ab", "a?", kTrue},
      {"a", "a?", kFalse},
      {"abc", "a?", kFalse},
      {"", "?", kFalse},
      {"v1", "v#", kTrue},
      {"va", "v#", kFalse},
      {"v12", "v#", kFalse},
      {"v12", "v##", kTrue},
  });
}

TEST(CompareString, CharacterLists) {
  ExpectAll({
      {"b", "[abc]", kTrue},
      {"B", "[abc]", kTrue},
      {"d", "[abc]", kFalse},
      {"q", "[A-Z]", kTrue},
      {"Q", "[a-z]", kTrue},
      {"5", "[a-z]", kFalse},
      {"5", "[!a-z]", kTrue},
      {"X", "[!a-z]", kFalse},
      {"y", "[a-cx-z]", kTrue},
      {"m", "[a-cx-z]", kFalse},
      {"-", "[a-]", kTrue},
      {"-", "[-a]", kTrue},
      {"-", "[!-a]", kFalse},
      {"!", "[!]", kTrue},
      {"!", "[ab!]", kTrue},
      {"ab", "a[]b", kTrue},  // an empty list matches nothing at all
      {"a", "[]", kFalse},
      // The wildcard characters stand for themselves inside brackets only.
      {"*", "[*]", kTrue},
      {"a", "[*]", kFalse},
      {"?", "[?]", kTrue},
      {"#", "[#]", kTrue},
      {"[", "[[]", kTrue},
      // "]" and "!" outside brackets are plain characters.
      {"a]", "a]", kTrue},
      {"a!", "a!", kTrue},
  });
}

TEST(CompareString, PatternsThatCannotBeReadMatchNothing) {
  ExpectAll({
      {"a", "[abc", kFalse},
      {"[abc", "[abc", kFalse},
      {"a", "[", kFalse},
      {"a[", "a[", kFalse},
      {"b", "[z-a]", kFalse},
      {"b", "[a--z]", kFalse},
      {"b", "[a-b-c]", kFalse},
  });
}

TEST(CompareString, PathsOnThePatternSideAreReadAsPatterns) {
  // A rule's path is the pattern: one holding a wildcard character is no longer compared for
  // equality, even with itself.
  ExpectAll({
      {"/home/u/[old]/app", "/home/u/[old]/app", kFalse},
      {"/home/u/o/app", "/home/u/[old]/app", kTrue},
      {"/opt/#1/app", "/opt/#1/app", kFalse},
      {"/opt/11/app", "/opt/#1/app", kTrue},
      {"/opt/what?/app", "/opt/what?/app", kTrue},
      {"/opt/whatX/app", "/opt/what?/app", kTrue},
      {"/opt/a*b/app", "/opt/a*b/app", kTrue},
      {"/opt/aXYZb/app", "/opt/a*b/app", kTrue},
  });
}

TEST(CompareString, ManyStarsOnALongTextEndWithoutBacktrackingBlowUp) {
  // A naive backtracking matcher would try every way of placing the stars here.
  std::string text(100000, 'a');
  std::string failing = "*a*a*a*a*a*a*b";
  std::string matching = "*a*a*a*a*a*a";
  EXPECT_EQ(CompareString(text, failing), kFalse);
  EXPECT_EQ(CompareString(text, matching), kTrue);
}

TEST(InstrString, FindsAPartAnywhereIgnoringCase) {
  struct Find {
    std::string text;
    std::string part;
    int16_t expected;
  };
  const std::vector<Find> cases = {
      {"/usr/bin/curl", "BIN", kTrue},
      {"/usr/bin/curl", "/usr/bin/curl", kTrue},
      {"/usr/bin/curl", "/usr/bin/curl ", kFalse},
      {"110.0.0.1", "10.0", kTrue},
      {"192.168.1.20", "10.0", kFalse},
      {"abc", "abcd", kFalse},
      // An empty part is found in any text but the empty one.
      {"abc", "", kTrue},
      {"", "", kFalse},
      {"", "x", kFalse},
  };
  for (const Find& c : cases) {
    std::string text = c.text;
    std::string part = c.part;
    EXPECT_EQ(InstrString(text, part), c.expected)
        << "\"" << c.part << "\" in \"" << c.text << "\"";
  }
}

}  // namespace
}  // namespace tessmark
