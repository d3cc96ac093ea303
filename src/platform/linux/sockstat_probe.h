#pragma once
// The row-count probe of the connection tables: /proc/net/sockstat, read on every poll of the
// monitor (every 10 ms). The file is opened once and read again with pread, which costs a few
// microseconds whatever the number of sockets, where reading /proc/net/tcp walks the whole
// connection hash of the machine and costs milliseconds.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/kept_open_file.h"

namespace tessmark::platform::linux_backend {

// "inuse" of the TCP and UDP lines of /proc/net/sockstat, for the network namespace the file
// was opened in. TCP counts IPv4 listeners and sockets in the established hash (not
// TIME_WAIT, not request sockets); UDP counts bound IPv4 UDP sockets.
struct SockstatCounts {
  uint32_t tcpInUse = 0;
  uint32_t udpInUse = 0;
};

// Reads both counts from the text of /proc/net/sockstat. nullopt when either line is missing
// or malformed. Does not allocate.
std::optional<SockstatCounts> ParseSockstat(std::string_view text);

class SockstatProbe {
 public:
  // Opens <procRoot>/net/sockstat. A failure to open is reported by read(), not thrown.
  explicit SockstatProbe(const std::string& procRoot = "/proc");

  // One pread of the whole file into a stack buffer; no allocation on this path.
  std::optional<SockstatCounts> read() const;

 private:
  KeptOpenFile file_;
};

}  // namespace tessmark::platform::linux_backend
