#include "platform/linux/session_signals.h"

#include <signal.h>

#include <cerrno>

namespace tessmark::platform::linux_backend {

namespace {
sigset_t sessionSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  return set;
}
}  // namespace

void BlockSessionSignals() {
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
