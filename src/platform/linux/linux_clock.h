#pragma once

#include "platform/platform.h"

namespace tessmark::platform::linux_backend {

// Milliseconds of the monotonic clock, so a changed wall clock moves no rate or timer.
class LinuxClock final : public Clock {
 public:
  uint32_t tickCount() override;
  void sleep(uint32_t milliseconds) override;
};

}  // namespace tessmark::platform::linux_backend
