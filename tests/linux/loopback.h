#pragma once
// TCP sockets on 127.0.0.1 and ::1, for the real-kernel tests and for the peers they start (so no
// test framework here).

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <utility>

namespace tessmark::testing {

// An owned descriptor, closed when the object goes.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    close();
    fd_ = std::exchange(other.fd_, -1);
    return *this;
  }
  ~Fd() { close(); }
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

// Which loopback a socket uses: 127.0.0.1, ::1 only, or a listener on [::] that takes IPv4
// clients too (their connections are IPv6 sockets holding ::ffff:127.0.0.1).
enum class Family { kIpv4, kIpv6, kDualStack };

inline sockaddr_in Loopback(uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

// The address to bind or connect to, with its length.
inline std::pair<sockaddr_storage, socklen_t> LoopbackOf(Family family, uint16_t port) {
  sockaddr_storage storage{};
  if (family == Family::kIpv4) {
    sockaddr_in addr = Loopback(port);
    std::memcpy(&storage, &addr, sizeof addr);
    return {storage, sizeof addr};
  }
  sockaddr_in6 addr{};
  addr.sin6_family = AF_INET6;
  addr.sin6_port = htons(port);
  addr.sin6_addr = family == Family::kIpv6 ? in6addr_loopback : in6addr_any;
  std::memcpy(&storage, &addr, sizeof addr);
  return {storage, sizeof addr};
}

inline Fd TcpSocket(Family family = Family::kIpv4) {
  Fd fd(::socket(family == Family::kIpv4 ? AF_INET : AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd.valid() && family != Family::kIpv4) {
    int v6only = family == Family::kIpv6 ? 1 : 0;
    ::setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &v6only, sizeof v6only);
  }
  return fd;
}

// Binds to the loopback of the family at `port`; a fixed port is taken again at once after an
// earlier test's connection on it, which may still wait in TIME_WAIT.
inline bool BindLoopback(const Fd& fd, uint16_t port, Family family = Family::kIpv4) {
  if (port != 0) {
    int one = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  }
  auto [addr, length] = LoopbackOf(family, port);
  return ::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), length) == 0;
}

// A listener on the loopback at port (0: a port of the kernel's choosing), or an invalid Fd
// with errno set. The backlog holds every connection a test makes before it accepts one.
inline Fd ListenOn(uint16_t port, Family family = Family::kIpv4) {
  Fd fd = TcpSocket(family);
  if (!fd.valid() || !BindLoopback(fd, port, family) || ::listen(fd.get(), 64) != 0) return Fd();
  return fd;
}

// Connects `fd` to the loopback's port; false with errno set on failure.
inline bool Connect(const Fd& fd, uint16_t port, Family family = Family::kIpv4) {
  auto [addr, length] = LoopbackOf(family == Family::kIpv4 ? family : Family::kIpv6, port);
  return ::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), length) == 0;
}

// A connection to the loopback's port from localPort (0: any); invalid with errno set on
// failure.
inline Fd ConnectTo(uint16_t port, uint16_t localPort = 0, Family family = Family::kIpv4) {
  Fd fd = TcpSocket(family);
  if (localPort != 0 && !BindLoopback(fd, localPort, family)) return Fd();
  if (!Connect(fd, port, family)) return Fd();
  return fd;
}

// The local port of a socket of either family: both address forms keep the port at the same
// place.
inline uint16_t LocalPortOf(const Fd& fd) {
  sockaddr_in6 addr{};
  socklen_t length = sizeof addr;
  ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&addr), &length);
  return ntohs(addr.sin6_port);
}

// Why this kernel cannot carry the IPv6 loopback tests, or "" when it can.
inline const char* NoIpv6Loopback() {
  Fd fd = TcpSocket(Family::kIpv6);
  if (!fd.valid()) return "this kernel makes no IPv6 sockets";
  if (!BindLoopback(fd, 0, Family::kIpv6)) return "::1 cannot be bound here";
  return "";
}

}  // namespace tessmark::testing
