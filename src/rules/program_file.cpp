#include "rules/program_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace tessmark {
namespace {

bool ReadSpan(int fd, char* into, size_t size, off_t offset) {
  while (size > 0) {
    ssize_t got = ::pread(fd, into, size, offset);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;  // an error, or the file got shorter meanwhile
    into += got;
    size -= static_cast<size_t>(got);
    offset += got;
  }
  return true;
}

}  // namespace

bool ReadProgramFile(const std::string& path, size_t limit, std::string& bytes) {
  if (path.find('\0') != std::string::npos) return false;
  // Non-blocking: a FIFO that took the path after any check would otherwise hold the open.
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat status {};
  bool ok = ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size >= 0;
  if (ok) {
    auto size = static_cast<size_t>(status.st_size);
    if (size <= limit) {
      bytes.assign(size, '\0');
      ok = ReadSpan(fd, bytes.data(), size, 0);
    } else {
      size_t half = limit / 2;
      bytes.assign(2 * half, '\0');
      ok = ReadSpan(fd, bytes.data(), half, 0) &&
           ReadSpan(fd, bytes.data() + half, half, static_cast<off_t>(size - half));
    }
  }
  ::close(fd);
  if (!ok) bytes.clear();
  return ok;
}

}  // namespace tessmark
