#pragma once
// modInternalName: a program's own name for itself, read from the version resource in its
// file by scanning the bytes, without any version service of the system.

#include <string>

namespace tessmark {

// The word as a version resource stores a key: the bytes 1 and 0, then the word's
// characters with a 0 byte between each two and none behind the last.
std::string NullPad(const std::string& word);

// The InternalName value of the file's version resource, with its 0 bytes removed; "" when
// the file has none or cannot be read.
std::string GetInternalName(const std::string& path);
// The same over the file's bytes.
std::string InternalNameOf(const std::string& bytes);

}  // namespace tessmark
