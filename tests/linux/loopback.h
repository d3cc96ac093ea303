#pragma once
// TCP sockets on 127.0.0.1, for the real-kernel tests and for the peers they start (so no
// test framework here).

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
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

inline sockaddr_in Loopback(uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

inline Fd TcpSocket() {
  return Fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

// Binds to 127.0.0.1:port; a fixed port is taken again at once after an earlier test's
// connection on it, which may still wait in TIME_WAIT.
inline bool BindLoopback(const Fd& fd, uint16_t port) {
  if (port != 0) {
    int one = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  }
  sockaddr_in addr = Loopback(port);
  return ::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
}

// A listener on 127.0.0.1:port (0: a port of the kernel's choosing), or an invalid Fd with
// errno set. The backlog holds every connection a test makes before it accepts one.
inline Fd ListenOn(uint16_t port) {
  Fd fd = TcpSocket();
  if (!fd.valid() || !BindLoopback(fd, port) || ::listen(fd.get(), 64) != 0) return Fd();
  return fd;
}

// Connects `fd` to 127.0.0.1:port; false with errno set on failure.
inline bool Connect(const Fd& fd, uint16_t port) {
  sockaddr_in addr = Loopback(port);
  return ::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
}

// A connection to 127.0.0.1:port from localPort (0: any); invalid with errno set on failure.
inline Fd ConnectTo(uint16_t port, uint16_t localPort = 0) {
  Fd fd = TcpSocket();
  if (localPort != 0 && !BindLoopback(fd, localPort)) return Fd();
  if (!Connect(fd, port)) return Fd();
  return fd;
}

inline uint16_t LocalPortOf(const Fd& fd) {
  sockaddr_in addr{};
  socklen_t length = sizeof addr;
  ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&addr), &length);
  return ntohs(addr.sin_port);
}

}  // namespace tessmark::testing
