#pragma once
// Whole numbers from floating point as the traffic code stores them: to the nearest, halves
// to the even neighbour, and no result where the number does not fit (which the callers treat
// as a failed statement, leaving the old value).

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>

namespace tessmark {

template <typename Integer>
std::optional<Integer> RoundHalfEven(double value) {
  if (!std::isfinite(value)) return std::nullopt;
  double rounded = std::nearbyint(value);  // the default rounding mode: halves to even
  if (rounded < static_cast<double>(std::numeric_limits<Integer>::min()) ||
      rounded > static_cast<double>(std::numeric_limits<Integer>::max()))
    return std::nullopt;
  return static_cast<Integer>(rounded);
}

}  // namespace tessmark
