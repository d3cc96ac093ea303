#pragma once
// Parser of the kernel's text tables /proc/net/tcp, /proc/net/udp and their IPv6 twins
// /proc/net/tcp6 and /proc/net/udp6: the readable fallback of the netlink dump, and the way
// tests feed captured kernel text.
//
// One line per socket after a header line. A TCP line as the kernel prints it (split here):
//
//   "  46: 0100007F:9C40 0100007F:A1C2 01 00000000:00000000 00:00000000 00000000"
//   "     0        0 53311 1 0000000000000000 20 4 30 10 -1"
//
// Its fields, separated by spaces:
//   0  slot number, decimal, with a colon ("46:")
//   1  local address and port, "AAAAAAAA:PPPP". The address is the __be32 printed as a
//      number, so the value is already the raw in-memory word (127.0.0.1 prints 0100007F on a
//      little-endian machine). The port is printed in HOST order (40000 prints 9C40).
//   2  remote address and port, the same way
//   3  state, hex: the kernel's TCP_* number (01 ESTABLISHED ... 0A LISTEN, 0B CLOSING)
//   4  "tx_queue:rx_queue", hex
//   5  "timer:when": timer 00 none, 01 retransmit, 02 keepalive, 03 TIME_WAIT, 04 zero window
//      probe; when, hex jiffies
//   6  retransmits, hex
//   7  uid, decimal
//   8  timeout (unanswered probes), decimal
//   9  inode of the socket, decimal; 0 when no file holds it (orphaned, TIME_WAIT, request)
//   10 reference count, decimal; 0 for a request (SYN_RECV) socket, which is not a full socket
//   11 and on: kernel pointer and TCP internals (UDP: pointer and drops), not used
//
// A TIME_WAIT socket prints its substate as the state (TIME_WAIT, or FIN_WAIT2 for a socket
// closed in FIN_WAIT2) with timer 03. /proc/net/udp has the same fields 0 to 11; its states
// are 07 CLOSE (bound) and 01 ESTABLISHED (connected).
//
// /proc/net/tcp6 and /proc/net/udp6 have the same fields; only the addresses are longer:
//
//   "   3: 0000000000000000FFFF00000100007F:9C40 0000000000000000FFFF00000100007F:BD08 01 ..."
//
// The sixteen bytes are printed as four __be32 words, each as a number the way the IPv4
// address is, so each word's bytes come out reversed on a little-endian machine: ::1 prints
// 00000000000000000000000001000000 and ::ffff:127.0.0.1 (an AF_INET6 socket that talks to an
// IPv4 peer) prints 0000000000000000FFFF00000100007F. The port is host order, as above.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessmark::platform::linux_backend {

// One socket line. Addresses and ports are raw, as they lie in memory in network order; the
// parser swaps the printed host-order ports back.
struct ProcNetRow {
  uint32_t localAddr = 0;
  uint32_t localPort = 0;  // network order in the low 16 bits
  uint32_t remoteAddr = 0;
  uint32_t remotePort = 0;
  uint8_t state = 0;  // the kernel's TCP_* number
  uint8_t timer = 0;
  uint64_t inode = 0;
  uint32_t refCount = 0;  // 0 when the line has no such field
  // A line of tcp6 or udp6: its addresses are the sixteen bytes below, in network order, and
  // localAddr and remoteAddr stay 0.
  bool ipv6 = false;
  std::array<uint8_t, 16> localAddr6{};
  std::array<uint8_t, 16> remoteAddr6{};
  friend bool operator==(const ProcNetRow&, const ProcNetRow&) = default;
};

struct ProcNetTable {
  std::vector<ProcNetRow> rows;
  size_t rejectedLines = 0;  // lines that were neither the header nor a well-formed row
};

// Parses the whole text of /proc/net/tcp, udp, tcp6 or udp6; each line's family is told by the
// width of its addresses, and a line whose two addresses differ in width is malformed. A
// malformed line is counted and skipped; the rest of the table still comes back.
ProcNetTable ParseProcNet(std::string_view text);

// Reads and parses <procRoot>/net/<name>, name "tcp", "udp", "tcp6" or "udp6". nullopt when it
// cannot be read.
std::optional<ProcNetTable> ReadProcNet(const std::string& procRoot, std::string_view name);

}  // namespace tessmark::platform::linux_backend
