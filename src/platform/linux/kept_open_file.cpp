#include "platform/linux/kept_open_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace tessmark::platform::linux_backend {

KeptOpenFile::KeptOpenFile(const std::string& path)
    : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}

KeptOpenFile::~KeptOpenFile() {
  if (fd_ >= 0) ::close(fd_);
}

std::optional<std::string_view> KeptOpenFile::read(char* buffer, size_t size) const {
  if (fd_ < 0) return std::nullopt;
  ssize_t n;
  do {
    n = ::pread(fd_, buffer, size, 0);
  } while (n < 0 && errno == EINTR);
  if (n <= 0) return std::nullopt;
  std::string_view text(buffer, static_cast<size_t>(n));
  if (static_cast<size_t>(n) == size) text = text.substr(0, text.rfind('\n') + 1);
  return text;
}

}  // namespace tessmark::platform::linux_backend
