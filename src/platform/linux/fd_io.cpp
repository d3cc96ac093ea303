#include "platform/linux/fd_io.h"

#include <unistd.h>

#include <cerrno>

namespace tessmark::platform::linux_backend {

bool WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace tessmark::platform::linux_backend
