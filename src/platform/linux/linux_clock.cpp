#include "platform/linux/linux_clock.h"

#include <time.h>

#include <cerrno>
#include <ctime>
#include <iomanip>
#include <locale>
#include <sstream>
#include <stdexcept>
#include <string_view>

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

namespace {

// The user's locale for dates; the classic one when none is set or it cannot be had.
const std::locale& userLocale() {
  static const std::locale locale = [] {
    try {
      return std::locale("");
    } catch (const std::runtime_error&) {
      return std::locale::classic();
    }
  }();
  return locale;
}

std::string localText(const char* userForm, const char* fixedForm) {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  const std::locale& locale = userLocale();
  bool plain = IsPlainLocaleName(locale.name());
  std::ostringstream text;
  text.imbue(plain ? std::locale::classic() : locale);
  text << std::put_time(&local, plain ? fixedForm : userForm);
  return text.str();
}

}  // namespace

bool IsPlainLocaleName(const std::string& name) {
  // A name that sets its categories one by one ("LC_CTYPE=...;LC_TIME=C.UTF-8;...") is judged
  // by its time category, which the dates follow.
  std::string_view time = name;
  if (size_t at = time.find("LC_TIME="); at != std::string_view::npos) {
    time.remove_prefix(at + 8);
    time = time.substr(0, time.find(';'));
  }
  return time == "C" || time == "POSIX" || time.starts_with("C.");
}

std::string LinuxClock::dateText() {
  return localText("%x", "%d.%m.%Y");
}

std::string LinuxClock::timeText() {
  return localText("%X", "%H:%M:%S");
}

}  // namespace tessmark::platform::linux_backend
