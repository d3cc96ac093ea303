#pragma once
// Whole writes to a file descriptor: a write may take only part of the bytes, or be
// interrupted by a signal, and both are carried on until every byte is out.

#include <string>

namespace tessmark::platform::linux_backend {

// True when every byte was written.
bool WriteAll(int fd, const std::string& text);

}  // namespace tessmark::platform::linux_backend
