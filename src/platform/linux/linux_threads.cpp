#include "platform/linux/linux_threads.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <thread>

#include "platform/linux/fatal_release.h"
#include "platform/linux/hold_ledger.h"
#include "platform/linux/process_stat.h"

namespace tessmark::platform::linux_backend {
namespace {

// How long a suspension waits to see every thread stopped. A signal is acted on at the next
// kernel entry of each thread, which on a loaded machine can take a scheduler tick or two.
constexpr auto kStopConfirmTimeout = std::chrono::milliseconds(200);
constexpr auto kStopPollInterval = std::chrono::microseconds(200);

int PidfdOpen(int32_t pid) {
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

bool PidfdSignal(int pidfd, int sig) {
  return syscall(SYS_pidfd_send_signal, pidfd, sig, nullptr, 0) == 0;
}

// A pidfd turns readable once its process has exited (zombie or reaped).
bool PidfdExited(int pidfd) {
  pollfd p{pidfd, POLLIN, 0};
  return poll(&p, 1, 0) == 1;
}

bool ThreadExists(int32_t pid, uint32_t tid) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/task/%u", static_cast<int>(pid), tid);
  return access(path, F_OK) == 0;
}

// The process of a thread, from the Tgid line of /proc/<tid>/status (a thread id that is not
// a process id is still found there, though /proc does not list it).
std::optional<int32_t> ReadThreadGroup(uint32_t tid) {
  char path[48];
  std::snprintf(path, sizeof path, "/proc/%u/status", tid);
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  char buf[1024];  // Tgid is the fourth line, well inside the first kilobyte
  ssize_t n = read(fd, buf, sizeof buf);
  close(fd);
  if (n <= 0) return std::nullopt;
  std::string_view text(buf, static_cast<size_t>(n));
  size_t at = text.find("\nTgid:");
  if (at == std::string_view::npos) return std::nullopt;
  at += 6;
  while (at < text.size() && (text[at] == ' ' || text[at] == '\t')) ++at;
  int32_t tgid = 0;
  auto [p, ec] = std::from_chars(text.data() + at, text.data() + text.size(), tgid);
  if (ec != std::errc() || tgid <= 0) return std::nullopt;
  return tgid;
}

// True once every thread of the process shows a halted state letter.
bool AllThreadsHalted(int32_t pid) {
  char path[48];
  std::snprintf(path, sizeof path, "/proc/%d/task", static_cast<int>(pid));
  DIR* dir = opendir(path);
  if (dir == nullptr) return true;  // gone: nothing of it runs
  bool halted = true;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    char statPath[300];
    std::snprintf(statPath, sizeof statPath, "%s/stat", entry->d_name);
    std::optional<ProcessStat> stat = ReadProcessStat(dirfd(dir), statPath);
    if (stat && !IsHaltedState(stat->state)) {
      halted = false;
      break;
    }
  }
  closedir(dir);
  return halted;
}

bool WaitUntilStopped(int32_t pid) {
  auto deadline = std::chrono::steady_clock::now() + kStopConfirmTimeout;
  while (!AllThreadsHalted(pid)) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kStopPollInterval);
  }
  return true;
}

}  // namespace

LinuxThreads::LinuxThreads(std::string ledgerPath) : ledgerPath_(std::move(ledgerPath)) {}

LinuxThreads::~LinuxThreads() {
  releaseAllHolds();
  for (const auto& [handle, pid] : handles_) close(static_cast<int>(handle));
}

std::optional<std::vector<ThreadEntry>> LinuxThreads::snapshot(int32_t pid) {
  std::lock_guard lock(mutex_);
  dropGone();
  char path[48];
  std::snprintf(path, sizeof path, "/proc/%d/task", static_cast<int>(pid));
  DIR* dir = pid > 0 ? opendir(path) : nullptr;
  if (dir == nullptr) {
    lastError_ = pid > 0 ? static_cast<uint32_t>(errno) : EINVAL;
    return std::nullopt;
  }
  std::vector<ThreadEntry> threads;
  owners_.clear();
  while (dirent* entry = readdir(dir)) {
    uint32_t tid = 0;
    const char* name = entry->d_name;
    auto [p, ec] = std::from_chars(name, name + std::strlen(name), tid);
    if (ec != std::errc() || *p != '\0') continue;
    threads.push_back({tid, static_cast<uint32_t>(pid)});
    owners_[tid] = pid;
  }
  closedir(dir);
  return threads;
}

std::optional<int32_t> LinuxThreads::ownerOf(uint32_t threadId) {
  if (auto it = counts_.find(threadId); it != counts_.end()) return it->second.pid;
  if (auto it = owners_.find(threadId); it != owners_.end()) {
    if (ThreadExists(it->second, threadId)) return it->second;
    owners_.erase(it);
  }
  std::optional<int32_t> pid = ReadThreadGroup(threadId);
  if (pid && !ThreadExists(*pid, threadId)) return std::nullopt;
  return pid;
}

int32_t LinuxThreads::suspendThread(uint32_t threadId) {
  std::lock_guard lock(mutex_);
  dropGone();
  std::optional<int32_t> pid = ownerOf(threadId);
  if (!pid) {
    lastError_ = ESRCH;
    return -1;
  }
  if (!holds_.contains(*pid) && !hold(*pid)) return -1;
  Count& count = counts_[threadId];
  count.pid = *pid;
  int32_t previous = count.count++;
  ++holds_[*pid].total;
  return previous;
}

int32_t LinuxThreads::resumeThread(uint32_t threadId) {
  std::lock_guard lock(mutex_);
  dropGone();
  if (auto it = counts_.find(threadId); it != counts_.end()) {
    int32_t pid = it->second.pid;
    int32_t previous = it->second.count--;
    if (it->second.count == 0) counts_.erase(it);
    if (auto hold = holds_.find(pid); hold != holds_.end() && --hold->second.total <= 0)
      release(pid, true);
    return previous;
  }
  if (!ownerOf(threadId)) {
    lastError_ = ESRCH;
    return -1;
  }
  return 0;
}

// Records the hold first and stops second, so that a crash in between still finds the
// process listed and continues it.
bool LinuxThreads::hold(int32_t pid) {
  int pidfd = PidfdOpen(pid);
  if (pidfd < 0) {
    lastError_ = static_cast<uint32_t>(errno);
    return false;
  }
  std::optional<ProcessStat> stat = ReadProcessStat(pid);
  if (!stat || stat->state == 'Z' || stat->state == 'X') {
    close(pidfd);
    lastError_ = ESRCH;
    return false;
  }
  holds_[pid] = Hold{0, stat->startTime, pidfd};
  RegisterFatalRelease(pid, pidfd);
  writeLedger();
  if (!PidfdSignal(pidfd, SIGSTOP)) {
    lastError_ = static_cast<uint32_t>(errno);
    release(pid, false);
    return false;
  }
  // Unconfirmed after the wait, the stop is still pending and takes effect as soon as the
  // threads enter the kernel; the hold stands either way.
  WaitUntilStopped(pid);
  return true;
}

void LinuxThreads::release(int32_t pid, bool sendContinue) {
  auto it = holds_.find(pid);
  if (it == holds_.end()) return;
  if (sendContinue) PidfdSignal(it->second.pidfd, SIGCONT);
  UnregisterFatalRelease(pid);
  close(it->second.pidfd);
  holds_.erase(it);
  std::erase_if(counts_, [pid](const auto& entry) { return entry.second.pid == pid; });
  writeLedger();
}

void LinuxThreads::dropGone() {
  std::vector<int32_t> gone;
  for (const auto& [pid, hold] : holds_)
    if (PidfdExited(hold.pidfd)) gone.push_back(pid);
  for (int32_t pid : gone) release(pid, false);
}

void LinuxThreads::writeLedger() {
  if (ledgerPath_.empty()) return;
  std::vector<LedgerEntry> entries;
  entries.reserve(holds_.size());
  for (const auto& [pid, hold] : holds_) entries.push_back({pid, hold.startTime});
  WriteHoldLedger(ledgerPath_, entries);
}

ProcessHandle LinuxThreads::openProcess(int32_t pid) {
  std::lock_guard lock(mutex_);
  int fd = pid > 0 ? PidfdOpen(pid) : -1;
  if (fd < 0) {
    lastError_ = pid > 0 ? static_cast<uint32_t>(errno) : EINVAL;
    return 0;
  }
  if (fd < 3) {
    // 0 means "no handle", and 1 and 2 would be taken for the standard streams.
    int high = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    int err = errno;
    close(fd);
    if (high < 0) {
      lastError_ = static_cast<uint32_t>(err);
      return 0;
    }
    fd = high;
  }
  handles_[fd] = pid;
  return fd;
}

bool LinuxThreads::exitCode(ProcessHandle handle, uint32_t& code) {
  std::lock_guard lock(mutex_);
  if (!handles_.contains(handle)) {
    lastError_ = EBADF;
    return false;
  }
  int pidfd = static_cast<int>(handle);
  // Our own child tells its status; WNOWAIT leaves it for whoever reaps the child.
  siginfo_t info{};
  if (waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(pidfd), &info,
             WEXITED | WNOHANG | WNOWAIT) == 0) {
    if (info.si_pid == 0) {
      code = kStillActive;
    } else if (info.si_code == CLD_EXITED) {
      code = static_cast<uint32_t>(info.si_status);
    } else {
      code = 128u + static_cast<uint32_t>(info.si_status);  // ended by a signal, as shells say
    }
    return true;
  }
  if (errno != ECHILD) {
    lastError_ = static_cast<uint32_t>(errno);
    return false;
  }
  if (!PidfdExited(pidfd)) {
    code = kStillActive;
    return true;
  }
  // Not our child and ended: nobody keeps its status for us.
  lastError_ = ESRCH;
  return false;
}

bool LinuxThreads::terminateProcess(ProcessHandle handle, uint32_t /*exitCode*/) {
  std::lock_guard lock(mutex_);
  auto it = handles_.find(handle);
  if (it == handles_.end()) {
    lastError_ = EBADF;
    return false;
  }
  // Linux lets no one choose the exit status of another process: it ends by SIGKILL, which
  // also ends a stopped process, and its parent sees that signal.
  if (!PidfdSignal(static_cast<int>(handle), SIGKILL)) {
    lastError_ = static_cast<uint32_t>(errno);
    return false;
  }
  release(it->second, false);
  return true;
}

bool LinuxThreads::closeHandle(ProcessHandle handle) {
  std::lock_guard lock(mutex_);
  auto it = handles_.find(handle);
  if (it == handles_.end()) {
    lastError_ = EBADF;
    return false;
  }
  handles_.erase(it);
  if (close(static_cast<int>(handle)) != 0) {
    lastError_ = static_cast<uint32_t>(errno);
    return false;
  }
  return true;
}

uint32_t LinuxThreads::lastError() {
  std::lock_guard lock(mutex_);
  return lastError_;
}

void LinuxThreads::releaseAllHolds() {
  std::lock_guard lock(mutex_);
  std::vector<int32_t> held;
  for (const auto& [pid, hold] : holds_) held.push_back(pid);
  for (int32_t pid : held) release(pid, true);
  counts_.clear();
}

void LinuxThreads::InstallFatalSignalRelease() {
  InstallFatalReleaseHandlers();
}

void LinuxThreads::ContinueLeftoverHolds(const std::string& ledgerPath) {
  ContinueLedgerHolds(ledgerPath);
}

}  // namespace tessmark::platform::linux_backend
