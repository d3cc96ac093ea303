#pragma once
// The count of opened TCP connections, read beside the row counts on every poll of the
// monitor: the ActiveOpens and PassiveOpens counters of the "Tcp:" lines of /proc/net/snmp.
// A row count stays where it was when a program closes one socket as it opens a connection;
// these counters only grow, so every new connection moves them. They are kept per network
// namespace and count IPv4 and IPv6 connections alike. Like the sockstat probe, the file is
// opened once and read again with pread into a stack buffer: no allocation on the poll.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/kept_open_file.h"

namespace tessmark::platform::linux_backend {

struct TcpOpenCounts {
  uint64_t activeOpens = 0;   // connect() calls that sent a SYN
  uint64_t passiveOpens = 0;  // connections a listener took in (the handshake completed)
};

// Both counters from the text of /proc/net/snmp: the first "Tcp:" line names the fields, the
// second holds their values in the same order. nullopt when either line or either field is
// missing or malformed. Does not allocate.
std::optional<TcpOpenCounts> ParseTcpOpens(std::string_view text);

class TcpOpensProbe {
 public:
  // Opens <procRoot>/net/snmp in the network namespace of the calling thread. A failure to
  // open is reported by read(), not thrown.
  explicit TcpOpensProbe(const std::string& procRoot = "/proc");

  // One pread of the whole file into a stack buffer; no allocation on this path.
  std::optional<TcpOpenCounts> read() const;

 private:
  KeptOpenFile file_;
};

}  // namespace tessmark::platform::linux_backend
