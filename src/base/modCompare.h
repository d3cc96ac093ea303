#pragma once
// modCompare: the two text comparisons the monitor's neighbours share. Both ignore case, as
// every comparison of paths and list texts does.

#include <cstdint>
#include <string>

namespace tessmark {

// -1 when the whole of `text` matches the wildcard `pattern`, else 0:
//   *        any run of characters, none included
//   ?        any one character
//   #        one digit 0-9
//   [abc]    one character of the list; [a-z] a range, [!abc] one character not in the list
//   []       nothing at all (a zero-length match)
// "[", "?", "#" and "*" stand for themselves only inside brackets ("[[]", "[*]"); "]" stands
// for itself outside brackets; "!" negates only as the first character of a list; "-" is a
// character of its own at the start or end of a list. A range runs over byte values as written
// and takes a letter when either of its cases lies in it. A pattern that cannot be read (a "["
// never closed, a range whose end lies before its start, "--" inside a list) matches nothing.
// A path on the pattern's side is read as a pattern too, so a path holding one of these
// characters does not simply compare equal.
int16_t CompareString(std::string& text, std::string& pattern);

// -1 when `part` occurs in `text`, else 0. An empty `part` occurs in any text but the empty
// one.
int16_t InstrString(std::string& text, std::string& part);

}  // namespace tessmark
