#include "platform/linux/small_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace tessmark::platform::linux_backend {

std::optional<std::string> ReadSmallFile(const std::string& path, bool* missing) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (missing != nullptr) *missing = errno == ENOENT || errno == ENOTDIR;
    return std::nullopt;
  }
  std::string text;
  std::array<char, 16384> buffer;
  for (;;) {
    ssize_t n = ::read(fd, buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      if (missing != nullptr) *missing = false;
      return std::nullopt;
    }
    if (n == 0) break;
    text.append(buffer.data(), static_cast<size_t>(n));
  }
  ::close(fd);
  return text;
}

std::string_view Trimmed(std::string_view text) {
  const char* blanks = " \t\r\n";
  size_t begin = text.find_first_not_of(blanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

std::optional<std::string> FirstLine(const std::filesystem::path& path) {
  auto text = ReadSmallFile(path.string());
  if (!text) return std::nullopt;
  std::string_view line(*text);
  return std::string(Trimmed(line.substr(0, line.find('\n'))));
}

}  // namespace tessmark::platform::linux_backend
