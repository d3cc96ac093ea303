#include "platform/linux/sockstat_probe.h"

#include <charconv>

namespace tessmark::platform::linux_backend {

namespace {

// The number after "<label> inuse " at the start of a line, e.g. label "TCP:" in
// "TCP: inuse 5 orphan 0 tw 0 alloc 7 mem 1". The label must start a line, so "UDP:" is not
// found inside "UDPLITE:".
std::optional<uint32_t> InUseAfter(std::string_view text, std::string_view label) {
  size_t lineStart = 0;
  while (lineStart < text.size()) {
    size_t lineEnd = text.find('\n', lineStart);
    if (lineEnd == std::string_view::npos) lineEnd = text.size();
    std::string_view line = text.substr(lineStart, lineEnd - lineStart);
    if (line.starts_with(label)) {
      std::string_view rest = line.substr(label.size());
      constexpr std::string_view kInUse = " inuse ";
      if (!rest.starts_with(kInUse)) return std::nullopt;
      rest.remove_prefix(kInUse.size());
      uint32_t value = 0;
      auto [end, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), value);
      if (ec != std::errc() || end == rest.data()) return std::nullopt;
      if (end != rest.data() + rest.size() && *end != ' ') return std::nullopt;
      return value;
    }
    lineStart = lineEnd + 1;
  }
  return std::nullopt;
}

}  // namespace

std::optional<SockstatCounts> ParseSockstat(std::string_view text) {
  auto tcp = InUseAfter(text, "TCP:");
  auto udp = InUseAfter(text, "UDP:");
  if (!tcp || !udp) return std::nullopt;
  return SockstatCounts{*tcp, *udp};
}

SockstatProbe::SockstatProbe(const std::string& procRoot) : file_(procRoot + "/net/sockstat") {}

std::optional<SockstatCounts> SockstatProbe::read() const {
  // The file is about 200 bytes; the seq_file hands it whole to a read from offset 0.
  char buffer[1024];
  std::optional<std::string_view> text = file_.read(buffer, sizeof buffer);
  if (!text) return std::nullopt;
  return ParseSockstat(*text);
}

}  // namespace tessmark::platform::linux_backend
