#include "platform/linux/trace_hold.h"

#include <sched.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <optional>
#include <thread>

#include "platform/linux/process_stat.h"

namespace tessmark::platform::linux_backend {
namespace {

constexpr auto kPollInterval = std::chrono::microseconds(50);
// The longest an end under way is waited for.
constexpr auto kLongestWait = std::chrono::milliseconds(200);

// A stop normally follows within microseconds, once the thread gets a processor: the first
// tries only yield the processor to it, later ones sleep.
template <class Step>
bool PollUntil(std::chrono::microseconds wait, Step step) {
  constexpr int kYields = 200;
  auto deadline = std::chrono::steady_clock::now() + wait;
  for (int round = 0;; ++round) {
    if (step()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    if (round < kYields)
      sched_yield();
    else
      std::this_thread::sleep_for(kPollInterval);
  }
}

}  // namespace

SeizeResult SeizeAndStop(TracedThread& thread) {
  thread.stopSeen = false;
  thread.pendingSignal = 0;
  if (ptrace(PTRACE_SEIZE, thread.tid, nullptr, nullptr) != 0)
    return errno == ESRCH ? SeizeResult::kGone : SeizeResult::kRefused;
  if (ptrace(PTRACE_INTERRUPT, thread.tid, nullptr, nullptr) != 0) return SeizeResult::kGone;
  CollectStop(thread);
  return SeizeResult::kHeld;
}

bool CollectStop(TracedThread& thread) {
  if (thread.stopSeen) return true;
  // Stops only: an ended thread is left for ReapEnded, which knows whose end it is to take.
  siginfo_t info{};
  if (waitid(P_PID, static_cast<id_t>(thread.tid), &info, WSTOPPED | WNOHANG | __WALL) != 0)
    return false;
  if (info.si_pid != thread.tid) return true;  // not stopped yet, or its report taken by another
  // A trace stop reports its signal in the low byte and the ptrace event above it. The
  // interrupt's own stop and a group stop carry PTRACE_EVENT_STOP; with no event, the thread
  // stopped on its way to take a signal, which must not be lost.
  int event = (info.si_status >> 8) & 0xff;
  if (info.si_code == CLD_TRAPPED && event == 0) thread.pendingSignal = info.si_status & 0x7f;
  thread.stopSeen = true;
  return true;
}

DetachResult Detach(TracedThread& thread, std::chrono::microseconds wait) {
  // The kernel lets go only of a thread in its trace stop; one whose stop is still due (the
  // hold does not wait for it) is waited for. Its stop report is read first: it names a
  // signal the thread may have stopped to take.
  bool gone = false;
  bool detached = PollUntil(wait, [&] {
    if (!CollectStop(thread)) {
      gone = true;
      return true;
    }
    auto signal = reinterpret_cast<void*>(static_cast<intptr_t>(thread.pendingSignal));
    if (ptrace(PTRACE_DETACH, thread.tid, nullptr, signal) == 0) return true;
    std::optional<ProcessStat> stat = ReadProcessStat(thread.tid);
    gone = !stat || stat->state == 'Z' || stat->state == 'X';
    return gone;
  });
  if (gone) return DetachResult::kGone;
  return detached ? DetachResult::kLetGo : DetachResult::kNotStopped;
}

void ReapEnded(const TracedThread& thread, pid_t processId, pid_t realParent) {
  if (thread.tid == processId && realParent == getpid()) return;
  PollUntil(kLongestWait, [&] {
    siginfo_t info{};
    int result = waitid(P_PID, static_cast<id_t>(thread.tid), &info, WEXITED | WNOHANG | __WALL);
    return result != 0 || info.si_pid == thread.tid;
  });
}

}  // namespace tessmark::platform::linux_backend
