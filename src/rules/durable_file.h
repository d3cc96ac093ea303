#pragma once
// The rule file's trips to the disk: reads that tell a fault of the disk from a file that is
// not there, writes that are on the disk before anything is sealed over them, and copies kept
// aside instead of deletions. Every function gives "" when it went through, otherwise the
// path it failed on and the cause, as a user should read it.

#include <string>

namespace tessmark {

// Why the file at `path` cannot be read: "" when it can, and when nothing stands at the path
// (a file not there has nothing to read). A folder on the way that cannot be searched is a
// fault; what stands at the path but is no regular file is not one: it is read as content.
std::string ReadFault(const std::string& path);

// Writes `bytes` into a new file at `path`, replacing one there, and returns once the bytes
// are on the disk.
std::string WriteDurably(const std::string& path, const std::string& bytes);

// Renames `from` over `to` and returns once the rename is on the disk.
std::string RenameDurably(const std::string& from, const std::string& to);

// Moves (or, with `copy`, copies) whatever stands at `path` to a free name beside it:
// `path` + "." + label + "-" + the local date and time, YYYYMMDD-HHMMSS, and a "-2", "-3" …
// when that name is taken. The name it was kept under goes into `kept`.
std::string KeepAside(const std::string& path, const std::string& label, bool copy,
                      std::string& kept);

}  // namespace tessmark
