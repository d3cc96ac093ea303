#include "platform/linux/hold_ledger.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <string_view>

#include "platform/linux/fd_io.h"
#include "platform/linux/process_stat.h"

namespace tessmark::platform::linux_backend {
namespace {

template <typename T>
bool ParseNumber(std::string_view text, T& value) {
  auto [p, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  return ec == std::errc() && p == text.data() + text.size();
}

}  // namespace

bool WriteHoldLedger(const std::string& path, const std::vector<LedgerEntry>& entries) {
  if (entries.empty()) return unlink(path.c_str()) == 0 || errno == ENOENT;
  std::string text;
  for (const LedgerEntry& entry : entries)
    text += std::to_string(entry.pid) + ' ' + std::to_string(entry.startTime) + '\n';
  // No fsync: the ledger only has to outlive this program, not the machine; after a reboot
  // none of the processes it names exists any more.
  std::string temp = path + ".tmp";
  int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  bool written = WriteAll(fd, text);
  written = close(fd) == 0 && written;
  if (!written || rename(temp.c_str(), path.c_str()) != 0) {
    unlink(temp.c_str());
    return false;
  }
  return true;
}

std::vector<LedgerEntry> ReadHoldLedger(const std::string& path) {
  std::vector<LedgerEntry> entries;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return entries;
  std::string text;
  char buf[4096];
  // A ledger names at most the table of held processes; anything far larger is not ours.
  while (text.size() < (1u << 20)) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  std::string_view rest(text);
  while (!rest.empty()) {
    size_t end = rest.find('\n');
    std::string_view line = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    size_t space = line.find(' ');
    if (space == std::string_view::npos) continue;
    LedgerEntry entry;
    if (ParseNumber(line.substr(0, space), entry.pid) &&
        ParseNumber(line.substr(space + 1), entry.startTime) && entry.pid > 0)
      entries.push_back(entry);
  }
  return entries;
}

int ContinueLedgerHolds(const std::string& path) {
  int continued = 0;
  for (const LedgerEntry& entry : ReadHoldLedger(path)) {
    // Open the process first, then check it: the descriptor keeps naming the process that
    // was checked even if the id is reused right after.
    int pidfd = static_cast<int>(syscall(SYS_pidfd_open, entry.pid, 0));
    if (pidfd < 0) continue;
    std::optional<ProcessStat> stat = ReadProcessStat(entry.pid);
    if (stat && stat->startTime == entry.startTime && stat->state == 'T' &&
        syscall(SYS_pidfd_send_signal, pidfd, SIGCONT, nullptr, 0) == 0)
      ++continued;
    close(pidfd);
  }
  unlink(path.c_str());
  return continued;
}

}  // namespace tessmark::platform::linux_backend
