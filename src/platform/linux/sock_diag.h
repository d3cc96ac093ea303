#pragma once
// The kernel's socket tables through netlink NETLINK_SOCK_DIAG: a dump of the IPv4 TCP or UDP
// sockets (cheaper than /proc/net/tcp, and it names each socket by a cookie), and SOCK_DESTROY
// of one TCP socket, which aborts the connection as the delete-TCB effect asks.

#include <cstdint>
#include <optional>
#include <vector>

namespace tessmark::platform::linux_backend {

// One socket as the dump gives it. Addresses and ports are raw: the __be32 and __be16 exactly
// as they lie in memory (127.0.0.1 reads 0x0100007F, port 80 reads 0x5000 on little-endian).
struct DiagRow {
  uint8_t state = 0;  // the kernel's TCP_* number; a TIME_WAIT socket gives its substate
  uint8_t timer = 0;  // 3 for a TIME_WAIT socket
  uint32_t localAddr = 0;
  uint32_t localPort = 0;  // network order in the low 16 bits
  uint32_t remoteAddr = 0;
  uint32_t remotePort = 0;
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

// A four-tuple, raw as in DiagRow.
struct SocketTuple {
  uint32_t localAddr = 0;
  uint32_t localPort = 0;
  uint32_t remoteAddr = 0;
  uint32_t remotePort = 0;
};

class SockDiag {
 public:
  // The netlink socket is opened on first use and kept, so a poll does not pay for it and the
  // process's count of open files stays the same between reads.
  SockDiag() = default;
  ~SockDiag();
  SockDiag(const SockDiag&) = delete;
  SockDiag& operator=(const SockDiag&) = delete;

  // Every AF_INET socket of the protocol (IPPROTO_TCP or IPPROTO_UDP) whose state is in the
  // mask, in the kernel's order. nullopt when netlink fails.
  std::optional<std::vector<DiagRow>> dump(uint8_t protocol, uint32_t stateMask);

  // Aborts the TCP socket with exactly this four-tuple: 0, or an errno (EPERM without
  // CAP_NET_ADMIN, ENOENT when no socket has this tuple, EOPNOTSUPP without
  // CONFIG_INET_DIAG_DESTROY). The kernel's look-up of a tuple falls back to a listener on the
  // local port, so the socket is first looked up and destroyed by its cookie only when its
  // tuple is exactly the one asked for: a row that has gone never takes its listener with it.
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
