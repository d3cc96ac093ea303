#include "platform/linux/linux_processes.h"

#include <dirent.h>
#include <unistd.h>

#include <charconv>
#include <cstring>

namespace tessmark::platform::linux_backend {

LinuxProcesses::LinuxProcesses(std::string procRoot) : procRoot_(std::move(procRoot)) {}

std::vector<ProcessEntry> LinuxProcesses::list() {
  std::vector<ProcessEntry> processes;
  DIR* dir = opendir(procRoot_.c_str());
  if (dir == nullptr) return processes;
  processes.reserve(lastCount_ + 16);
  int dirFd = dirfd(dir);
  // The kernel cuts the link text at a page; one more byte tells a cut from a full fit.
  char target[4097];
  char linkPath[32];
  while (dirent* entry = readdir(dir)) {
    const char* name = entry->d_name;
    size_t length = std::strlen(name);
    int32_t pid = 0;
    auto [end, ec] = std::from_chars(name, name + length, pid);
    if (ec != std::errc() || end != name + length || pid <= 0 || length + 5 >= sizeof linkPath)
      continue;
    std::memcpy(linkPath, name, length);
    std::memcpy(linkPath + length, "/exe", 5);
    // Kernel threads have no exe link, other users' processes refuse it, and a process gone
    // since the walk began has none any more: all of them are simply left out.
    ssize_t n = readlinkat(dirFd, linkPath, target, sizeof target);
    if (n <= 0 || static_cast<size_t>(n) >= sizeof target) continue;
    processes.push_back({pid, std::string(target, static_cast<size_t>(n))});
  }
  closedir(dir);
  lastCount_ = processes.size();
  return processes;
}

int32_t LinuxProcesses::currentProcessId() {
  return static_cast<int32_t>(getpid());
}

}  // namespace tessmark::platform::linux_backend
