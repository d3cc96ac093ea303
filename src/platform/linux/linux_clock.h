#pragma once

#include <string>

#include "platform/platform.h"

namespace tessmark::platform::linux_backend {

// Milliseconds of the monotonic clock, so a changed wall clock moves no rate or timer.
class LinuxClock final : public Clock {
 public:
  uint32_t tickCount() override;
  void sleep(uint32_t milliseconds) override;
  // In the user's date and time forms (LC_TIME). Under a plain C locale, whose date form
  // has a two-digit year, the fixed forms "31.12.2026" and "23:59:59" are used instead.
  std::string dateText() override;
  std::string timeText() override;
};

// True for the plain C locales: "C", "POSIX" and "C.<codeset>" ("C.UTF-8"), which differ in
// their character set only, so a day's log has one name whichever of them is set.
bool IsPlainLocaleName(const std::string& name);

}  // namespace tessmark::platform::linux_backend
