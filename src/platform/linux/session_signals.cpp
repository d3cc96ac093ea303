#include "platform/linux/session_signals.h"

#include <signal.h>

#include <cerrno>
#include <initializer_list>

namespace tessmark::platform::linux_backend {

namespace {

// Every signal whose default action ends the process and that a program can catch, but for
// the faults (fatal_release.h) and SIGPIPE: whoever sends one of these means "end", so the end
// is the orderly one. The real-time signals end a process by default too.
sigset_t sessionSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF,
                  SIGIO, SIGPWR, SIGSTKFLT})
    sigaddset(&set, sig);
  for (int sig = SIGRTMIN; sig <= SIGRTMAX; ++sig) sigaddset(&set, sig);
  return set;
}

}  // namespace

void BlockSessionSignals() {
  // A closed standard output (the firewall piped into `head`) must not end the firewall with
  // programs held: the write fails with EPIPE instead.
  signal(SIGPIPE, SIG_IGN);
  sigset_t set = sessionSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int WaitForSessionSignal(uint32_t milliseconds) {
  sigset_t set = sessionSignals();
  timespec timeout{static_cast<time_t>(milliseconds / 1000),
                   static_cast<long>(milliseconds % 1000) * 1000000L};
  int signal = sigtimedwait(&set, nullptr, &timeout);
  return signal > 0 ? signal : 0;
}

}  // namespace tessmark::platform::linux_backend
