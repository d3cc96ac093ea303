#pragma once
// The system's booleans are 16-bit: 0 false, -1 true. Some tests compare with exactly -1
// ("exactly true"), others with non-zero; both are kept apart on purpose.

#include <cstdint>

namespace tessmark {

inline constexpr int16_t kTrue = -1;
inline constexpr int16_t kFalse = 0;

inline constexpr bool isExactlyTrue(int16_t value) {
  return value == kTrue;
}

}  // namespace tessmark
