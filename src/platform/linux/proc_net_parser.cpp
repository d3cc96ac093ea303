#include "platform/linux/proc_net_parser.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>

namespace tessmark::platform::linux_backend {

namespace {

// Splits a line on spaces into at most N fields; returns how many were found.
template <size_t N>
size_t SplitFields(std::string_view line, std::array<std::string_view, N>& fields) {
  size_t count = 0;
  size_t i = 0;
  while (i < line.size() && count < N) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
    if (i == line.size()) break;
    size_t start = i;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
    fields[count++] = line.substr(start, i - start);
  }
  return count;
}

// The whole text is a number of that base that fits in T.
template <typename T>
bool ParseNumber(std::string_view text, int base, T& value) {
  if (text.empty()) return false;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  return ec == std::errc() && end == text.data() + text.size();
}

// The printed port, host order, back to its raw network-order value.
bool ParsePort(std::string_view text, uint32_t& port) {
  uint16_t hostPort = 0;
  if (text.size() != 4 || !ParseNumber(text, 16, hostPort)) return false;
  port = htons(hostPort);
  return true;
}

// "0100007F:9C40": an IPv4 address as printed (already raw) and a host-order port.
bool ParseEndpoint(std::string_view text, uint32_t& addr, uint32_t& port) {
  if (text.size() != 13 || text[8] != ':') return false;
  return ParseNumber(text.substr(0, 8), 16, addr) && ParsePort(text.substr(9), port);
}

// "00000000000000000000000001000000:9C41": an IPv6 address as four printed words, each the raw
// word as a number, so its value stored in memory gives the word's four bytes again.
bool ParseEndpoint6(std::string_view text, std::array<uint8_t, 16>& addr, uint32_t& port) {
  if (text.size() != 37 || text[32] != ':') return false;
  for (size_t word = 0; word < 4; ++word) {
    uint32_t value = 0;
    if (!ParseNumber(text.substr(word * 8, 8), 16, value)) return false;
    std::memcpy(addr.data() + word * 4, &value, sizeof value);
  }
  return ParsePort(text.substr(33), port);
}

std::optional<ProcNetRow> ParseLine(std::string_view line) {
  std::array<std::string_view, 11> f;
  // Up to the inode the fields are required; the refcount is read when present.
  size_t n = SplitFields(line, f);
  if (n < 10) return std::nullopt;
  ProcNetRow row;
  if (f[0].size() < 2 || f[0].back() != ':') return std::nullopt;
  uint32_t slot = 0;
  if (!ParseNumber(f[0].substr(0, f[0].size() - 1), 10, slot)) return std::nullopt;
  // Both ends are of the family of the local address.
  row.ipv6 = f[1].size() == 37;
  if (row.ipv6 ? !ParseEndpoint6(f[1], row.localAddr6, row.localPort) ||
                     !ParseEndpoint6(f[2], row.remoteAddr6, row.remotePort)
               : !ParseEndpoint(f[1], row.localAddr, row.localPort) ||
                     !ParseEndpoint(f[2], row.remoteAddr, row.remotePort))
    return std::nullopt;
  if (f[3].size() != 2 || !ParseNumber(f[3], 16, row.state)) return std::nullopt;
  // "tr:tm->when": the timer is the two digits before the colon.
  if (f[5].size() < 4 || f[5][2] != ':' || !ParseNumber(f[5].substr(0, 2), 16, row.timer))
    return std::nullopt;
  if (!ParseNumber(f[9], 10, row.inode)) return std::nullopt;
  if (n > 10 && !ParseNumber(f[10], 10, row.refCount)) return std::nullopt;
  return row;
}

}  // namespace

ProcNetTable ParseProcNet(std::string_view text) {
  ProcNetTable table;
  size_t lineStart = 0;
  bool first = true;
  while (lineStart < text.size()) {
    size_t lineEnd = text.find('\n', lineStart);
    if (lineEnd == std::string_view::npos) lineEnd = text.size();
    std::string_view line = text.substr(lineStart, lineEnd - lineStart);
    lineStart = lineEnd + 1;
    bool header = first && line.find("local_address") != std::string_view::npos;
    first = false;
    if (header || line.find_first_not_of(" \t\r") == std::string_view::npos) continue;
    if (auto row = ParseLine(line))
      table.rows.push_back(*row);
    else
      ++table.rejectedLines;
  }
  return table;
}

std::optional<ProcNetTable> ReadProcNet(const std::string& procRoot, std::string_view name) {
  std::string path = procRoot + "/net/";
  path.append(name);
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  // The file reports size 0; read until end of file.
  std::string text;
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  return ParseProcNet(text);
}

}  // namespace tessmark::platform::linux_backend
