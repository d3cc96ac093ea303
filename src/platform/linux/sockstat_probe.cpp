#include "platform/linux/sockstat_probe.h"

#include <sys/stat.h>

#include <cerrno>
#include <charconv>

namespace tessmark::platform::linux_backend {

namespace {

// The number after "<label> inuse " at the start of a line, e.g. label "TCP:" in
// "TCP: inuse 5 orphan 0 tw 0 alloc 7 mem 1". The label must start a line, so "UDP:" is not
// found inside "UDPLITE:", nor "UDP6:" inside "UDPLITE6:".
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

std::optional<FamilyCounts> CountsAfter(std::string_view text, std::string_view tcpLabel,
                                        std::string_view udpLabel) {
  auto tcp = InUseAfter(text, tcpLabel);
  auto udp = InUseAfter(text, udpLabel);
  if (!tcp || !udp) return std::nullopt;
  return FamilyCounts{*tcp, *udp};
}

// The kernel makes sockstat6 with its IPv6 stack. Only a file that is not there at all tells
// that the stack is missing; one that is there and cannot be opened is a fault, which read()
// reports.
bool Exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 || errno != ENOENT;
}

}  // namespace

std::optional<FamilyCounts> ParseSockstat(std::string_view text) {
  return CountsAfter(text, "TCP:", "UDP:");
}

std::optional<FamilyCounts> ParseSockstat6(std::string_view text) {
  return CountsAfter(text, "TCP6:", "UDP6:");
}

SockstatProbe::SockstatProbe(const std::string& procRoot)
    : file_(procRoot + "/net/sockstat"),
      hasIpv6_(Exists(procRoot + "/net/sockstat6")),
      file6_(hasIpv6_ ? procRoot + "/net/sockstat6" : std::string()) {}

std::optional<SockstatCounts> SockstatProbe::read() const {
  // Each file is about 200 bytes; the seq_file hands it whole to a read from offset 0.
  char buffer[1024];
  std::optional<std::string_view> text = file_.read(buffer, sizeof buffer);
  if (!text) return std::nullopt;
  SockstatCounts counts;
  std::optional<FamilyCounts> ipv4 = ParseSockstat(*text);
  if (!ipv4) return std::nullopt;
  counts.ipv4 = *ipv4;
  if (hasIpv6_) {
    text = file6_.read(buffer, sizeof buffer);
    if (!text) return std::nullopt;
    std::optional<FamilyCounts> ipv6 = ParseSockstat6(*text);
    if (!ipv6) return std::nullopt;
    counts.ipv6 = *ipv6;
  }
  return counts;
}

}  // namespace tessmark::platform::linux_backend
