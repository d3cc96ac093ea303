#pragma once
// The interface table on Linux: every network interface with its traffic counters, one row
// each in the layout of the system's interface record (IfRow).
//
// Counters come from /proc/net/dev, which follows the network namespace of the reader. Its
// text, as a kernel 6.x prints it:
//
//   "Inter-|   Receive                                                |  Transmit"
//   " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs"
//   " drop fifo colls carrier compressed"                               (one line, split here)
//   "    lo:    3367      31    0    0    0     0          0         0     3367      31    0"
//   "    0    0     0       0          0"                               (one line, split here)
//
// Two header lines, then one line per interface: the name, right-aligned and followed by a
// colon (older kernels print no blank after the colon, "eth0:1234"), then 16 decimal 64-bit
// counters separated by blanks:
//   receive:  0 bytes  1 packets  2 errs  3 drop  4 fifo  5 frame  6 compressed  7 multicast
//   transmit: 8 bytes  9 packets 10 errs 11 drop 12 fifo 13 colls 14 carrier 15 compressed
// An interface name holds no colon and no blank, so the first colon ends it.
//
// The other fields of a row come from /sys/class/net/<name>/, one small text file each:
//   ifindex     the interface index, decimal
//   mtu         decimal bytes
//   type        the link type (ARPHRD_*), decimal: 1 Ethernet and wireless, 512 PPP,
//               772 loopback, 768/769/776/778/823/65534 tunnels and devices without a link
//               layer (tun, WireGuard); a wireless device also has a "wireless" folder
//   speed       megabits a second, decimal; "-1", or a read that fails with EINVAL, when the
//               speed is unknown (loopback, virtual devices, a link that is down)
//   flags       the interface flags, hex "0x1003"; bit 0x1 is "administratively up"
//   operstate   "up", "down", "unknown", "dormant", "lowerlayerdown", "notpresent", "testing"
//   carrier     "1" or "0"; the read fails while the interface is administratively down
//   address     the link-layer address, hex bytes joined by colons, "02:fc:00:00:00:01";
//               addr_len gives its length in bytes (0 for devices without one)
//   ifalias     a description the administrator gave, usually empty
//   statistics/rx_nohandler  packets dropped for want of a protocol to take them
// sysfs shows the interfaces of the network namespace it was mounted in; in a namespace
// without its own sysfs mount the attributes are read from the interface of the same name
// there, while the counters stay the reader's own.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/platform.h"

namespace tessmark::platform::linux_backend {

// One interface line of /proc/net/dev, the counters as the kernel prints them (64 bits).
struct ProcNetDevRow {
  std::string name;
  uint64_t rxBytes = 0, rxPackets = 0, rxErrs = 0, rxDrop = 0, rxFifo = 0, rxFrame = 0,
           rxCompressed = 0, rxMulticast = 0;
  uint64_t txBytes = 0, txPackets = 0, txErrs = 0, txDrop = 0, txFifo = 0, txColls = 0,
           txCarrier = 0, txCompressed = 0;
};

struct ProcNetDevTable {
  std::vector<ProcNetDevRow> rows;
  size_t rejectedLines = 0;  // lines that were neither a header nor a well-formed interface
};

// Parses the whole text of /proc/net/dev. A malformed line is counted and skipped; the rest
// of the table still comes back.
ProcNetDevTable ParseProcNetDev(std::string_view text);

// The interface table from <root>/proc/net/dev and <root>/sys/class/net.
class LinuxAdapters final : public Adapters {
 public:
  // root: where /proc and /sys are found; tests pass a folder of captured files.
  explicit LinuxAdapters(std::string root = "") : root_(std::move(root)) {}

  // NotSupported when the system has no /proc/net/dev (no network stack, or no /proc),
  // Failed when it cannot be read. The loopback interface is a row like any other.
  IfTable ifTable() override;

 private:
  std::string root_;
};

}  // namespace tessmark::platform::linux_backend
