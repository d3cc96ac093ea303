#pragma once
// The row-count probe of the connection tables: /proc/net/sockstat for the IPv4 stack and
// /proc/net/sockstat6 for the IPv6 stack, read on every poll of the monitor (every 10 ms). Each
// file is opened once and read again with pread, which costs a few microseconds whatever the
// number of sockets, where reading /proc/net/tcp walks the whole connection hash of the machine
// and costs milliseconds.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/kept_open_file.h"

namespace tessmark::platform::linux_backend {

// "inuse" of the TCP and UDP lines of one family, for the network namespace the file was opened
// in. TCP counts the family's listeners and sockets in the established hash (not TIME_WAIT, not
// request sockets); UDP counts the family's bound UDP sockets. A socket's family is the one it
// was made with: an AF_INET6 socket talking to an IPv4 peer (::ffff:a.b.c.d), and the child a
// dual-stack listener takes in from an IPv4 client, count as IPv6.
struct FamilyCounts {
  uint32_t tcpInUse = 0;
  uint32_t udpInUse = 0;
  friend bool operator==(const FamilyCounts&, const FamilyCounts&) = default;
};

struct SockstatCounts {
  FamilyCounts ipv4;
  FamilyCounts ipv6;  // 0 and 0 on a system without IPv6
};

// Reads the counts of the "TCP:" and "UDP:" lines of /proc/net/sockstat. nullopt when either
// line is missing or malformed. Does not allocate.
std::optional<FamilyCounts> ParseSockstat(std::string_view text);

// The same for the "TCP6:" and "UDP6:" lines of /proc/net/sockstat6.
std::optional<FamilyCounts> ParseSockstat6(std::string_view text);

class SockstatProbe {
 public:
  // Opens <procRoot>/net/sockstat and, where the system has IPv6, <procRoot>/net/sockstat6. A
  // failure to open is reported by read(), not thrown.
  explicit SockstatProbe(const std::string& procRoot = "/proc");

  // Whether the system has an IPv6 stack: sockstat6 was there when the probe was made. Without
  // it the system has no IPv6 sockets, and nothing of IPv6 is ever read.
  bool hasIpv6() const { return hasIpv6_; }

  // One pread of each file into a stack buffer; no allocation on this path. nullopt when a file
  // that is there cannot be read.
  std::optional<SockstatCounts> read() const;

 private:
  KeptOpenFile file_;
  bool hasIpv6_;
  KeptOpenFile file6_;
};

}  // namespace tessmark::platform::linux_backend
