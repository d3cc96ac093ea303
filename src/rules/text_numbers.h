#pragma once
// Numbers read from text the way the settings, the rule file and the known-program list need
// them: blanks around the number, a sign, digits with an optional fraction and exponent.
// Anything else is not a number. Whole-number conversions round halves to even and fail
// outside their range.

#include <cstdint>
#include <optional>
#include <string_view>

namespace tessmark {

std::optional<double> DoubleFromText(std::string_view text);
std::optional<int32_t> LongFromText(std::string_view text);
std::optional<int16_t> IntegerFromText(std::string_view text);

}  // namespace tessmark
