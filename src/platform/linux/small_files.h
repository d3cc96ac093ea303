#pragma once
// The small text files of /proc and /sys: read whole, their first line, and the numbers in
// them. A file that cannot be read is no value, never an error: some attributes refuse to be
// read in some states (the carrier of an interface that is down gives EINVAL).

#include <charconv>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace tessmark::platform::linux_backend {

// The whole file; nullopt when it cannot be opened or read. `missing` tells an absent file
// from one that failed.
std::optional<std::string> ReadSmallFile(const std::string& path, bool* missing = nullptr);

// The text without blanks, tabs, CR and LF at either end.
std::string_view Trimmed(std::string_view text);

// The file's first line, trimmed; nullopt when it cannot be read.
std::optional<std::string> FirstLine(const std::filesystem::path& path);

// The whole text is a number of that base that fits in T; base 16 may begin with "0x".
template <typename T>
bool ParseWholeNumber(std::string_view text, int base, T& value) {
  if (base == 16 && text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
    text.remove_prefix(2);
  if (text.empty()) return false;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  return ec == std::errc() && end == text.data() + text.size();
}

}  // namespace tessmark::platform::linux_backend
