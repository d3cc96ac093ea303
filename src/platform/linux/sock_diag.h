#pragma once
// The kernel's socket tables through netlink NETLINK_SOCK_DIAG: a dump of the TCP or UDP sockets
// of one address family (cheaper than /proc/net/tcp, and it names each socket by a cookie), and
// SOCK_DESTROY of one TCP socket, which aborts the connection as the delete-TCB effect asks.

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace tessmark::platform::linux_backend {

// An IPv6 address, its sixteen bytes in network order.
using Address6 = std::array<uint8_t, 16>;

// One socket as the dump gives it. Addresses and ports are raw: the __be32 and __be16 exactly
// as they lie in memory (127.0.0.1 reads 0x0100007F, port 80 reads 0x5000 on little-endian).
struct DiagRow {
  uint8_t state = 0;  // the kernel's TCP_* number; a TIME_WAIT socket gives its substate
  uint8_t timer = 0;  // 3 for a TIME_WAIT socket
  // An AF_INET6 socket: its addresses are localAddr6 and remoteAddr6 (a v4-mapped one holds
  // ::ffff:a.b.c.d), and localAddr and remoteAddr stay 0.
  bool ipv6 = false;
  uint32_t localAddr = 0;
  uint32_t localPort = 0;  // network order in the low 16 bits
  uint32_t remoteAddr = 0;
  uint32_t remotePort = 0;
  Address6 localAddr6{};
  Address6 remoteAddr6{};
  uint32_t inode = 0;  // 0 when no file holds the socket
  uint64_t cookie = 0;
  // A full socket, as opposed to a TIME_WAIT or request (SYN_RECV) mini socket. Only full
  // sockets carry the shutdown attribute, so its presence tells them apart.
  bool fullSocket = false;
};

// The kernel's TCP states as masks for DiagDump's state set.
inline constexpr uint32_t TcpStateBit(int kernelState) {
  return 1u << kernelState;
}
inline constexpr uint32_t kAllStates = 0xFFFFFFFFu;

// A four-tuple of one family, raw as in DiagRow.
struct SocketTuple {
  bool ipv6 = false;
  uint32_t localAddr = 0;
  uint32_t localPort = 0;
  uint32_t remoteAddr = 0;
  uint32_t remotePort = 0;
  Address6 localAddr6{};
  Address6 remoteAddr6{};
};

class SockDiag {
 public:
  // The netlink socket is opened on first use and kept, so a poll does not pay for it and the
  // process's count of open files stays the same between reads.
  SockDiag() = default;
  ~SockDiag();
  SockDiag(const SockDiag&) = delete;
  SockDiag& operator=(const SockDiag&) = delete;

  // Every socket of the family (AF_INET or AF_INET6) and protocol (IPPROTO_TCP or IPPROTO_UDP)
  // whose state is in the mask, in the kernel's order. The kernel gives an AF_INET6 dump only
  // AF_INET6 sockets, v4-mapped ones included, and an AF_INET dump none of them. nullopt when
  // netlink fails.
  std::optional<std::vector<DiagRow>> dump(uint8_t family, uint8_t protocol, uint32_t stateMask);

  // Aborts the TCP socket of the tuple's family with exactly this four-tuple: 0, or an errno
  // (EPERM without CAP_NET_ADMIN, ENOENT when no socket has this tuple, EOPNOTSUPP without
  // CONFIG_INET_DIAG_DESTROY). The kernel's look-up of a tuple falls back to a listener on the
  // local port (for an AF_INET tuple, a dual-stack AF_INET6 one too; for a v4-mapped AF_INET6
  // tuple, it looks in the IPv4 tables), so the socket is first looked up and destroyed by its
  // cookie only when its family and tuple are exactly the ones asked for: a row that has gone
  // never takes its listener with it, and a v4-mapped connection goes only as AF_INET6.
  int destroyTcp(const SocketTuple& tuple);

 private:
  bool ensureOpen();
  void reset();
  // Sends one request; the answer is read by the caller.
  bool send(uint16_t type, uint16_t flags, const void* payload, uint32_t length);

  int fd_ = -1;
  uint32_t sequence_ = 0;
  std::vector<char> buffer_;
};

}  // namespace tessmark::platform::linux_backend
