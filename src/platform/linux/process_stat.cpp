#include "platform/linux/process_stat.h"

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>

namespace tessmark::platform::linux_backend {

std::optional<ProcessStat> ParseProcessStat(std::string_view text) {
  size_t close = text.rfind(')');
  if (close == std::string_view::npos) return std::nullopt;
  std::string_view rest = text.substr(close + 1);
  // After ')' come field 3 (state) up to field 52; the parent is field 4, the start time 22.
  ProcessStat stat;
  int field = 2;
  size_t pos = 0;
  while (pos < rest.size()) {
    while (pos < rest.size() && rest[pos] == ' ') ++pos;
    if (pos >= rest.size()) break;
    size_t end = rest.find(' ', pos);
    if (end == std::string_view::npos) end = rest.size();
    std::string_view token = rest.substr(pos, end - pos);
    ++field;
    if (field == 3) {
      if (token.size() != 1) return std::nullopt;
      stat.state = token[0];
    } else if (field == 4) {
      auto [p, ec] = std::from_chars(token.data(), token.data() + token.size(), stat.parentPid);
      if (ec != std::errc() || p != token.data() + token.size()) return std::nullopt;
    } else if (field == 22) {
      auto [p, ec] = std::from_chars(token.data(), token.data() + token.size(), stat.startTime);
      if (ec != std::errc() || p != token.data() + token.size()) return std::nullopt;
      return stat;
    }
    pos = end;
  }
  return std::nullopt;
}

std::optional<ProcessStat> ReadProcessStat(int dirFd, const char* path) {
  int fd = openat(dirFd, path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  // The name is at most 64 bytes since kernel 6.x (16 before); the line stays well below this.
  char buf[1024];
  ssize_t n = read(fd, buf, sizeof buf);
  close(fd);
  if (n <= 0) return std::nullopt;
  return ParseProcessStat(std::string_view(buf, static_cast<size_t>(n)));
}

std::optional<ProcessStat> ReadProcessStat(int32_t pid) {
  char path[48];
  std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
  return ReadProcessStat(AT_FDCWD, path);
}

}  // namespace tessmark::platform::linux_backend
