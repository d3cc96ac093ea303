// steady_peer: a program that opens a TCP connection without moving the TCP row count.
//
//   steady_peer SERVER_PORT
//
// It listens on two loopback ports of the kernel's choosing, writes "ready <pid>" and waits
// for SIGUSR1. Then, back to back, it closes both listeners and connects to
// 127.0.0.1:SERVER_PORT: two rows go as two come (its own end of the connection, and the far
// end that the server's listener takes in). It then watches the connection.
// Exit status: 0 when the connection was aborted under it (ECONNABORTED, during the handshake
// or after), 1 when it ended any other way, 2 when it could not be set up.

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "linux/loopback.h"

using tessmark::testing::Connect;
using tessmark::testing::Fd;
using tessmark::testing::ListenOn;
using tessmark::testing::TcpSocket;

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const auto serverPort = static_cast<uint16_t>(std::atoi(argv[1]));
  // Blocked before "ready", so a signal sent right after it waits for sigwait.
  sigset_t go;
  sigemptyset(&go);
  sigaddset(&go, SIGUSR1);
  if (::sigprocmask(SIG_BLOCK, &go, nullptr) != 0) return 2;
  Fd first = ListenOn(0);
  Fd second = ListenOn(0);
  // Made before the signal, so that the swap below is three calls and nothing else.
  Fd client = TcpSocket();
  if (!first.valid() || !second.valid() || !client.valid()) return 2;
  std::string ready = "ready " + std::to_string(::getpid()) + "\n";
  if (::write(STDOUT_FILENO, ready.data(), ready.size()) != static_cast<ssize_t>(ready.size()))
    return 2;
  int signal = 0;
  if (::sigwait(&go, &signal) != 0) return 2;

  first.close();
  second.close();
  if (!Connect(client, serverPort)) return errno == ECONNABORTED ? 0 : 1;
  for (;;) {
    pollfd p{client.get(), POLLIN, 0};
    if (::poll(&p, 1, -1) < 0) {
      if (errno == EINTR) continue;
      return 1;
    }
    char buffer[64];
    ssize_t n = ::recv(client.get(), buffer, sizeof buffer, 0);
    if (n < 0) return errno == ECONNABORTED ? 0 : 1;
    if (n == 0) return 1;
  }
}
