#include "platform/linux/process_identities.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tessmark::platform::linux_backend {
namespace {

int PidfdOpen(int32_t pid) {
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

bool Ended(int pidfd) {
  pollfd p{pidfd, POLLIN, 0};
  return poll(&p, 1, 0) == 1;
}

}  // namespace

ProcessIdentities::~ProcessIdentities() {
  for (auto& [pid, entry] : entries_)
    if (entry.pidfd >= 0) close(entry.pidfd);
}

void ProcessIdentities::remember(Source source, const std::vector<uint32_t>& pids) {
  std::lock_guard lock(mutex_);
  for (auto& [pid, entry] : entries_) entry.sources &= static_cast<uint8_t>(~source);
  for (uint32_t owner : pids) {
    auto pid = static_cast<int32_t>(owner);
    if (pid <= 0) continue;
    Entry& entry = entries_[pid];
    entry.sources |= source;
    // An entry whose process ended and whose pid this fresh read names again belongs to the
    // new process now.
    if (entry.pidfd >= 0 && !Ended(entry.pidfd)) continue;
    if (entry.pidfd >= 0) close(entry.pidfd);
    // -1 when the process is gone already: nothing can be held or killed under that name.
    entry.pidfd = PidfdOpen(pid);
  }
  std::erase_if(entries_, [](auto& item) {
    if (item.second.sources != 0) return false;
    if (item.second.pidfd >= 0) close(item.second.pidfd);
    return true;
  });
}

bool ProcessIdentities::isReused(int32_t pid) const {
  std::lock_guard lock(mutex_);
  auto it = entries_.find(pid);
  if (it == entries_.end()) return false;
  return it->second.pidfd < 0 || Ended(it->second.pidfd);
}

}  // namespace tessmark::platform::linux_backend
