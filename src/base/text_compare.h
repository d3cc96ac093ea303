#pragma once
// Paths, access words and list texts compare ignoring case; settings values compare exactly.

#include <string>
#include <string_view>

namespace tessmark {

// An ASCII capital as its small letter; every other byte as it stands. The one case fold of
// the program, so that every comparison that ignores case agrees with every other.
unsigned char FoldCase(unsigned char c);

// Byte for byte, with ASCII letters folded: paths are bytes in no particular encoding.
bool EqualIgnoringCase(std::string_view a, std::string_view b);

// The text with every byte folded: a key under which texts equal ignoring case meet.
std::string FoldedText(std::string_view text);

}  // namespace tessmark
