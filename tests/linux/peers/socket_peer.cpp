// socket_peer: a small program the real-kernel tests start as a child so that sockets belong
// to a process other than the test's. It opens loopback (127.0.0.1) sockets as its arguments
// say, in order, then holds them until told to go.
//
// Arguments, any number, applied left to right:
//   listen PORT        a TCP listener on 127.0.0.1:PORT
//   listen-any PORT    a TCP listener on 0.0.0.0:PORT with SO_REUSEPORT, so a listener on one
//                      address with SO_REUSEPORT may share the port
//   connect PORT       a TCP connection to 127.0.0.1:PORT; when this program listens on PORT
//                      itself, it also accepts the other end, so it holds both ends of the pair
//   udp PORT           a UDP socket bound to 127.0.0.1:PORT
//   udp-connect PORT   a UDP socket connected to 127.0.0.1:PORT (bound to an ephemeral port)
//
// When every socket is open it writes "ready <pid>\n" to standard output. It then reads
// standard input and exits with 0 when it closes or when a line "quit" arrives. On any
// failure it writes "error: <what>" to standard error and exits with 1.
//
// Example: `socket_peer listen 40000 connect 40000` holds a listener on port 40000 and a
// connected pair to it (three TCP rows, all owned by this process).

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "error: %s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(1);
}

sockaddr_in Address(uint32_t hostAddr, int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(hostAddr);
  return addr;
}

sockaddr_in Loopback(int port) {
  return Address(INADDR_LOOPBACK, port);
}

int OpenSocket(int type) {
  int fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
  if (fd < 0) Fail("socket");
  return fd;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<int> held;
  std::map<int, int> listeners;  // port -> fd
  for (int i = 1; i < argc; i += 2) {
    std::string verb = argv[i];
    if (i + 1 >= argc) {
      errno = EINVAL;
      Fail("missing port after " + verb);
    }
    int port = std::atoi(argv[i + 1]);
    if (port <= 0 || port > 65535) {
      errno = EINVAL;
      Fail("bad port " + std::string(argv[i + 1]));
    }
    sockaddr_in addr = Loopback(port);
    auto* sa = reinterpret_cast<sockaddr*>(&addr);
    if (verb == "listen") {
      int fd = OpenSocket(SOCK_STREAM);
      int one = 1;
      ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
      if (::bind(fd, sa, sizeof addr) != 0) Fail("bind tcp " + std::to_string(port));
      if (::listen(fd, 64) != 0) Fail("listen");
      listeners[port] = fd;
      held.push_back(fd);
    } else if (verb == "listen-any") {
      int fd = OpenSocket(SOCK_STREAM);
      int one = 1;
      ::setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &one, sizeof one);
      sockaddr_in any = Address(INADDR_ANY, port);
      if (::bind(fd, reinterpret_cast<sockaddr*>(&any), sizeof any) != 0)
        Fail("bind tcp 0.0.0.0:" + std::to_string(port));
      if (::listen(fd, 64) != 0) Fail("listen");
      held.push_back(fd);
    } else if (verb == "connect") {
      int fd = OpenSocket(SOCK_STREAM);
      if (::connect(fd, sa, sizeof addr) != 0) Fail("connect " + std::to_string(port));
      held.push_back(fd);
      if (auto it = listeners.find(port); it != listeners.end()) {
        int other = ::accept4(it->second, nullptr, nullptr, SOCK_CLOEXEC);
        if (other < 0) Fail("accept");
        held.push_back(other);
      }
    } else if (verb == "udp") {
      int fd = OpenSocket(SOCK_DGRAM);
      if (::bind(fd, sa, sizeof addr) != 0) Fail("bind udp " + std::to_string(port));
      held.push_back(fd);
    } else if (verb == "udp-connect") {
      int fd = OpenSocket(SOCK_DGRAM);
      if (::connect(fd, sa, sizeof addr) != 0) Fail("connect udp " + std::to_string(port));
      held.push_back(fd);
    } else {
      errno = EINVAL;
      Fail("unknown command " + verb);
    }
  }
  std::printf("ready %d\n", static_cast<int>(::getpid()));
  std::fflush(stdout);

  std::string line;
  char c;
  for (;;) {
    ssize_t n = ::read(STDIN_FILENO, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (c != '\n') {
      line += c;
      continue;
    }
    if (line == "quit") break;
    line.clear();
  }
  for (int fd : held) ::close(fd);
  return 0;
}
