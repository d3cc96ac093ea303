#include "platform/linux/linux_threads.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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
#include "platform/linux/thread_priority.h"

namespace tessmark::platform::linux_backend {
namespace {

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
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
  while (!AllThreadsHalted(pid)) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kStopPollInterval);
  }
  return true;
}

}  // namespace

LinuxThreads::LinuxThreads(std::string ledgerPath, HoldMethod method,
                           const ProcessIdentities* identities)
    : ledgerPath_(std::move(ledgerPath)), method_(method), identities_(identities) {}

LinuxThreads::~LinuxThreads() {
  releaseAllHolds();
  for (const auto& [handle, pid] : handles_) close(static_cast<int>(handle));
}

std::optional<std::vector<ThreadEntry>> LinuxThreads::snapshot(int32_t pid) {
  std::lock_guard lock(mutex_);
  dropGone();
  char path[48];
  std::snprintf(path, sizeof path, "/proc/%d/task", static_cast<int>(pid));
  if (pid <= 0 || isReused(pid)) {
    lastError_ = pid <= 0 ? EINVAL : ESRCH;
    return std::nullopt;
  }
  DIR* dir = opendir(path);
  if (dir == nullptr) {
    lastError_ = static_cast<uint32_t>(errno);
    return std::nullopt;
  }
  dropEndedThreads(pid);
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
  if (auto it = threads_.find(threadId); it != threads_.end()) return it->second.pid;
  if (auto it = owners_.find(threadId); it != owners_.end()) {
    if (ThreadExists(it->second, threadId)) return it->second;
    owners_.erase(it);
  }
  std::optional<int32_t> pid = ReadThreadGroup(threadId);
  if (pid && !ThreadExists(*pid, threadId)) return std::nullopt;
  return pid;
}

bool LinuxThreads::isReused(int32_t pid) const {
  return identities_ != nullptr && identities_->isReused(pid);
}

int32_t LinuxThreads::suspendThread(uint32_t threadId) {
  std::lock_guard lock(mutex_);
  dropGone();
  std::optional<int32_t> pid = ownerOf(threadId);
  if (!pid || *pid == static_cast<int32_t>(getpid()) || isReused(*pid)) {
    lastError_ = pid ? EPERM : ESRCH;
    return -1;
  }
  auto it = threads_.find(threadId);
  if (it == threads_.end()) {
    ThreadHold thread;
    if (!holdThread(threadId, *pid, thread)) return -1;
    threads_.emplace(threadId, thread);
    return 0;
  }
  if (ProcessHold* process = processHold(*pid); process && process->stoppedBySignal)
    restopIfContinued(*pid, *process);
  return it->second.count++;
}

int32_t LinuxThreads::resumeThread(uint32_t threadId) {
  std::lock_guard lock(mutex_);
  dropGone();
  auto it = threads_.find(threadId);
  if (it == threads_.end()) {
    if (!ownerOf(threadId)) {
      lastError_ = ESRCH;
      return -1;
    }
    return 0;
  }
  int32_t previous = it->second.count--;
  if (it->second.count == 0) {
    int32_t pid = it->second.pid;
    letGo(it->second);
    threads_.erase(it);
    if (!hasHeldThreads(pid)) endProcessHold(pid, false);
  }
  return previous;
}

// A pidfd turns readable only once every thread is released, and a traced thread that died
// waits for its tracer to take its end. A thread held in its trace stop ends only with its
// whole process (a kill, or an exec by a thread that was not held), so one traced thread's end
// tells; its report is looked at, not taken. A thread other than the main one is asked: the
// main thread's end is reported only after all the others'.
bool LinuxThreads::tracedThreadsAllEnded(int32_t pid) const {
  pid_t probe = 0;
  for (const auto& [tid, thread] : threads_) {
    if (thread.pid != pid || !thread.traced) continue;
    probe = static_cast<pid_t>(tid);
    if (probe != pid) break;
  }
  if (probe == 0) return false;
  siginfo_t info{};
  if (waitid(P_PID, static_cast<id_t>(probe), &info, WEXITED | WNOHANG | WNOWAIT | __WALL) != 0)
    return true;  // no longer anyone's to wait for: reaped already
  return info.si_pid == probe &&
         (info.si_code == CLD_EXITED || info.si_code == CLD_KILLED || info.si_code == CLD_DUMPED);
}

bool LinuxThreads::hasHeldThreads(int32_t pid) const {
  return std::any_of(threads_.begin(), threads_.end(),
                     [pid](const auto& entry) { return entry.second.pid == pid; });
}

// A process held by signal may have been continued by someone else meanwhile (kill -CONT, a
// shell's fg): a further hold stops it again, so the count stays true to what runs.
void LinuxThreads::restopIfContinued(int32_t pid, ProcessHold& process) {
  std::optional<ProcessStat> stat = ReadProcessStat(pid);
  if (stat && !IsHaltedState(stat->state)) stopBySignal(pid, process);
}

LinuxThreads::ProcessHold* LinuxThreads::processHold(int32_t pid) {
  auto it = processes_.find(pid);
  return it == processes_.end() ? nullptr : &it->second;
}

// The first hold of a thread: by trace where allowed, else its whole process by signal.
bool LinuxThreads::holdThread(uint32_t threadId, int32_t pid, ThreadHold& thread) {
  ProcessHold* process = processHold(pid);
  if (process == nullptr) {
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
    process = &processes_[pid];
    *process = ProcessHold{stat->startTime, stat->parentPid, pidfd, false};
  }
  thread.pid = pid;
  thread.count = 1;
  if (method_ == HoldMethod::kTrace && !process->stoppedBySignal) {
    if (adoptLateStop(threadId, thread)) return true;
    thread.trace.tid = static_cast<pid_t>(threadId);
    // The stop follows within microseconds; it is not waited for here, as a thread's
    // suspension does not wait on the system either, and a program of many threads would
    // stand half-frozen the longer. Letting go waits for the stop where it is still due.
    switch (SeizeAndStop(thread.trace)) {
      case SeizeResult::kHeld:
        thread.traced = true;
        return true;
      case SeizeResult::kGone:
        lastError_ = ESRCH;
        if (!hasHeldThreads(pid)) endProcessHold(pid, false);
        return false;
      case SeizeResult::kRefused:
        break;  // a debugger has it, or we may not trace it: the signal road below
    }
  }
  if (process->stoppedBySignal) {
    restopIfContinued(pid, *process);
  } else if (!stopBySignal(pid, *process)) {
    lastError_ = static_cast<uint32_t>(errno);
    if (!hasHeldThreads(pid)) endProcessHold(pid, false);
    return false;
  }
  return true;
}

// Records the stop first and signals second, so that a crash in between still finds the
// process listed and continues it.
bool LinuxThreads::stopBySignal(int32_t pid, ProcessHold& process) {
  if (!process.stoppedBySignal) {
    process.stoppedBySignal = true;
    RegisterFatalRelease(pid, process.pidfd);
    writeLedger();
  }
  if (!PidfdSignal(process.pidfd, SIGSTOP)) return false;
  // Unconfirmed after the wait, the stop is still pending and takes effect as soon as the
  // threads enter the kernel; the hold stands either way.
  WaitUntilStopped(pid);
  return true;
}

// A traced thread that cannot be let go has died in its stop: its end is taken instead, or
// its process's parent would wait for it as long as the tracing thread lives.
void LinuxThreads::letGo(ThreadHold& thread) {
  if (!thread.traced) return;
  const ProcessHold* process = processHold(thread.pid);
  const pid_t realParent = process != nullptr ? process->realParent : 0;
  switch (Detach(thread.trace, kStopWait)) {
    case DetachResult::kLetGo:
      return;
    case DetachResult::kNotStopped:
      // Its stop comes later (it sleeps uninterruptibly, or a busy machine has not given it
      // a processor yet); the engine's next polls let it go then.
      lateStops_.push_back(LateStop{thread.trace, thread.pid, realParent});
      return;
    case DetachResult::kGone:
      ReapEnded(thread.trace, thread.pid, realParent);
      return;
  }
}

void LinuxThreads::settle() {
  std::lock_guard lock(mutex_);
  std::erase_if(lateStops_, [](LateStop& late) {
    switch (Detach(late.trace, std::chrono::microseconds(0))) {
      case DetachResult::kNotStopped:
        return false;
      case DetachResult::kGone:
        ReapEnded(late.trace, late.pid, late.realParent);
        return true;
      case DetachResult::kLetGo:
        return true;
    }
    return true;
  });
}

bool LinuxThreads::adoptLateStop(uint32_t threadId, ThreadHold& thread) {
  auto late = std::find_if(lateStops_.begin(), lateStops_.end(), [&](const LateStop& stop) {
    return stop.trace.tid == static_cast<pid_t>(threadId);
  });
  if (late == lateStops_.end()) return false;
  // Still seized, with its stop still due or come: it is held again as it stands.
  thread.trace = late->trace;
  thread.traced = true;
  lateStops_.erase(late);
  return true;
}

// Ends the hold of a process whose threads are all let go (or which ended): continues it if
// it was stopped by signal, and takes the ends of traced threads so its parent hears of it.
void LinuxThreads::endProcessHold(int32_t pid, bool ended) {
  auto it = processes_.find(pid);
  if (it == processes_.end()) return;
  ProcessHold& process = it->second;
  if (ended) {
    // The main thread's end is taken last: the kernel reports it only after the others'.
    std::vector<TracedThread> traced;
    for (const auto& [tid, thread] : threads_)
      if (thread.pid == pid && thread.traced) traced.push_back(thread.trace);
    std::sort(traced.begin(), traced.end(), [pid](const TracedThread& a, const TracedThread& b) {
      return b.tid == pid && a.tid != pid;
    });
    for (const TracedThread& thread : traced) ReapEnded(thread, pid, process.realParent);
    std::erase_if(threads_, [pid](const auto& entry) { return entry.second.pid == pid; });
  } else if (process.stoppedBySignal) {
    PidfdSignal(process.pidfd, SIGCONT);
  }
  if (process.stoppedBySignal) UnregisterFatalRelease(pid);
  bool wasLedgered = process.stoppedBySignal;
  close(process.pidfd);
  processes_.erase(it);
  if (wasLedgered) writeLedger();
}

// Forgets the processes that ended, and takes the ends of their traced threads so that their
// parents hear of it. Every call runs it; it costs a poll and a small read per held process.
void LinuxThreads::dropGone() {
  std::vector<int32_t> ended;
  for (const auto& [pid, process] : processes_)
    if (PidfdExited(process.pidfd) || tracedThreadsAllEnded(pid)) ended.push_back(pid);
  for (int32_t pid : ended) endProcessHold(pid, true);
}

// Forgets the threads of `pid` that ended while their process lives on: the count of a thread
// that no longer exists must not keep its process held for good. Runs once per snapshot, so a
// hold of a whole process costs one pass over its threads, not one per thread.
void LinuxThreads::dropEndedThreads(int32_t pid) {
  bool dropped = false;
  for (auto it = threads_.begin(); it != threads_.end();) {
    if (it->second.pid != pid || ThreadExists(pid, it->first)) {
      ++it;
      continue;
    }
    if (it->second.traced) ReapEnded(it->second.trace, pid, 0);
    it = threads_.erase(it);
    dropped = true;
  }
  if (dropped && !hasHeldThreads(pid)) endProcessHold(pid, false);
}

void LinuxThreads::writeLedger() {
  if (ledgerPath_.empty()) return;
  std::vector<LedgerEntry> entries;
  for (const auto& [pid, process] : processes_)
    if (process.stoppedBySignal) entries.push_back({pid, process.startTime});
  WriteHoldLedger(ledgerPath_, entries);
}

ProcessHandle LinuxThreads::openProcess(int32_t pid) {
  std::lock_guard lock(mutex_);
  if (pid <= 0 || isReused(pid)) {
    lastError_ = pid <= 0 ? EINVAL : ESRCH;
    return 0;
  }
  int fd = PidfdOpen(pid);
  if (fd < 0) {
    lastError_ = static_cast<uint32_t>(errno);
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
    // A trace stop of ours shows here too, even unasked: a stopped process is still active.
    if (info.si_pid == 0 || info.si_code == CLD_TRAPPED || info.si_code == CLD_STOPPED ||
        info.si_code == CLD_CONTINUED) {
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
  // A held program dies where it stands; its traced threads' ends are taken here so that its
  // parent hears of the end at once.
  if (processes_.contains(it->second)) endProcessHold(it->second, true);
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
  // A traced thread can be let go only by the thread that traces it; from any other thread
  // the detach fails, and the kernel lets go when that thread ends (the engine's stop joins
  // it before this runs).
  for (auto& [tid, thread] : threads_) letGo(thread);
  threads_.clear();
  lateStops_.clear();
  std::vector<int32_t> held;
  for (const auto& [pid, process] : processes_) held.push_back(pid);
  for (int32_t pid : held) endProcessHold(pid, false);
}

bool LinuxThreads::raiseCallingThreadPriority() {
  return RaiseCallingThreadPriority();
}

void LinuxThreads::InstallFatalSignalRelease() {
  InstallFatalReleaseHandlers();
}

void LinuxThreads::ContinueLeftoverHolds(const std::string& ledgerPath) {
  ContinueLedgerHolds(ledgerPath);
}

}  // namespace tessmark::platform::linux_backend
