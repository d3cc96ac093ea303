#include "platform/linux/fatal_release.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace tessmark::platform::linux_backend {
namespace {

constexpr int kSlots = 1024;

// pid 0 marks a free slot; the descriptor is stored plus one so that 0 means "none" and the
// zero-initialised table needs no constructor.
struct Slot {
  std::atomic<int32_t> pid;
  std::atomic<int> pidfdPlusOne;
};
Slot g_slots[kSlots];

static_assert(std::atomic<int32_t>::is_always_lock_free, "the handler needs lock-free slots");

void ReleaseAndReraise(int sig) {
  int saved = errno;
  ContinueRegisteredHolds();
  signal(sig, SIG_DFL);
  raise(sig);
  errno = saved;
}

}  // namespace

bool RegisterFatalRelease(int32_t pid, int pidfd) {
  for (Slot& slot : g_slots) {
    int32_t expected = 0;
    if (slot.pid.compare_exchange_strong(expected, pid)) {
      slot.pidfdPlusOne.store(pidfd >= 0 ? pidfd + 1 : 0);
      return true;
    }
  }
  return false;
}

void UnregisterFatalRelease(int32_t pid) {
  for (Slot& slot : g_slots) {
    if (slot.pid.load() == pid) {
      // The descriptor goes first: a handler running meanwhile then falls back to the pid,
      // which still names the held process because the caller has not let it go yet.
      slot.pidfdPlusOne.store(0);
      slot.pid.store(0);
    }
  }
}

void ContinueRegisteredHolds() {
  for (Slot& slot : g_slots) {
    int32_t pid = slot.pid.load();
    if (pid <= 0) continue;
    int pidfd = slot.pidfdPlusOne.load() - 1;
    // With a descriptor a failure means the process is gone; its id may be someone else's now.
    if (pidfd >= 0)
      syscall(SYS_pidfd_send_signal, pidfd, SIGCONT, nullptr, 0);
    else
      kill(pid, SIGCONT);
  }
}

void InstallFatalReleaseHandlers() {
  struct sigaction action {};
  action.sa_handler = ReleaseAndReraise;
  sigemptyset(&action.sa_mask);
  // SA_NODEFER lets the re-raised signal act at once with the default action; SA_ONSTACK uses
  // an alternate stack where a thread has one (a stack overflow leaves no room otherwise).
  action.sa_flags = SA_RESETHAND | SA_NODEFER | SA_ONSTACK;
  for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGSYS, SIGTRAP, SIGXCPU, SIGXFSZ})
    sigaction(sig, &action, nullptr);
}

}  // namespace tessmark::platform::linux_backend
