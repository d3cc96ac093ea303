#pragma once
// Reading a program's file, which is untrusted input: its path may name a FIFO (an open would
// wait for a writer for good, with every held program frozen), a device (/dev/zero never ends),
// or a file of gigabytes.

#include <cstddef>
#include <string>

namespace tessmark {

// What of the file at `path` fits in `limit` bytes of memory: only a regular file, opened
// without waiting. A file larger than the limit gives its first and its last half of the limit
// one after the other: a program's headers stand at its start, its resources at its end. False
// when the path names no regular file or it cannot be read.
bool ReadProgramFile(const std::string& path, size_t limit, std::string& bytes);

}  // namespace tessmark
