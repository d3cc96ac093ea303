#include "platform/linux/linux_clock.h"

#include <time.h>

#include <cerrno>

namespace tessmark::platform::linux_backend {

uint32_t LinuxClock::tickCount() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  // Wraps at 2^32 ms, about 49.7 days, as a tick count does.
  return static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec) * 1000u +
                               static_cast<uint64_t>(now.tv_nsec) / 1000000u);
}

void LinuxClock::sleep(uint32_t milliseconds) {
  timespec left{static_cast<time_t>(milliseconds / 1000),
                static_cast<long>(milliseconds % 1000) * 1000000L};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

}  // namespace tessmark::platform::linux_backend
