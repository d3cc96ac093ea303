// client_peer: a loopback program driven line by line, for the end-to-end tests and the
// benchmarks of the firewall. It opens TCP sockets on 127.0.0.1 when told to, watches every
// connection it holds, and reports on standard output what each socket saw, so a test learns
// from the program itself that its connection was aborted.
//
// Once running it writes "ready <pid>\n". It then reads commands from standard input, one
// line at a time; a line may hold several commands separated by ";", run in order before
// the next line is read:
//   connect PORT [LOCALPORT]  a TCP connection to 127.0.0.1:PORT, bound to LOCALPORT if given
//                             -> "connected ID LOCALPORT T" (or, broken during the
//                             handshake, "aborted ID T" / "reset ID T")
//   listen PORT               a TCP listener on 127.0.0.1:PORT -> "listening ID"
//   accept ID                 one connection taken from listener ID -> "accepted ID2"
//   write ID TEXT             TEXT sent on connection ID -> "wrote ID"
//   ping                      -> "pong" (shows the program runs)
//   quit                      ends the program with status 0, as the end of input does
// Reports, whenever they happen:
//   data ID TEXT              bytes arrived on connection ID
//   eof ID                    the other end closed connection ID in order
//   aborted ID T              a read or write failed with ECONNABORTED (the socket was
//                             destroyed under the program, or a listener aborted)
//   reset ID T                a read or write failed with ECONNRESET (the other end reset)
//   error ID ERRNO            any other failure on the socket
//   failed COMMAND ERRNO      a command could not be carried out
// IDs count the sockets from 0 in the order they were made. T is CLOCK_MONOTONIC in
// nanoseconds, taken right after the call that returned: the tests compare it with their own
// reading of the same clock.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Socket {
  int fd = -1;
  bool listener = false;
  bool watched = true;  // polled until its end has been reported
};

std::vector<Socket> g_sockets;

std::string Now() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return std::to_string(static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec);
}

void Say(const std::string& line) {
  std::string text = line + "\n";
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(STDOUT_FILENO, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) std::_Exit(3);  // nobody listens any more
    done += static_cast<size_t>(n);
  }
}

// What a failed read or write of socket `id` means, as one report line.
void ReportFailure(size_t id, int error) {
  std::string stamp = Now();
  std::string which = std::to_string(id);
  if (error == ECONNABORTED)
    Say("aborted " + which + " " + stamp);
  else if (error == ECONNRESET)
    Say("reset " + which + " " + stamp);
  else
    Say("error " + which + " " + std::to_string(error));
  g_sockets[id].watched = false;
}

sockaddr_in Loopback(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

bool ParsePort(const std::string& text, int& port) {
  char* end = nullptr;
  long value = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || value <= 0 || value > 65535) return false;
  port = static_cast<int>(value);
  return true;
}

bool ParseId(const std::string& text, size_t& id) {
  char* end = nullptr;
  unsigned long value = std::strtoul(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || value >= g_sockets.size()) return false;
  id = value;
  return true;
}

size_t Keep(int fd, bool listener) {
  g_sockets.push_back({fd, listener, true});
  return g_sockets.size() - 1;
}

void Connect(int port, int localPort) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return Say("failed connect " + std::to_string(errno));
  // The id is taken at once, so that ids follow the commands whatever becomes of them.
  size_t id = Keep(fd, false);
  g_sockets[id].watched = false;
  if (localPort != 0) {
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in local = Loopback(localPort);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0)
      return Say("failed connect " + std::to_string(errno));
  }
  sockaddr_in addr = Loopback(port);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    // Broken while the handshake was under way: that is what the socket saw.
    if (errno == ECONNABORTED || errno == ECONNRESET) return ReportFailure(id, errno);
    return Say("failed connect " + std::to_string(errno));
  }
  std::string stamp = Now();
  g_sockets[id].watched = true;
  sockaddr_in bound{};
  socklen_t length = sizeof bound;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length);
  Say("connected " + std::to_string(id) + " " + std::to_string(ntohs(bound.sin_port)) + " " +
      stamp);
}

void Listen(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return Say("failed listen " + std::to_string(errno));
  int one = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr = Loopback(port);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(fd, SOMAXCONN) != 0) {
    int error = errno;
    ::close(fd);
    return Say("failed listen " + std::to_string(error));
  }
  Say("listening " + std::to_string(Keep(fd, true)));
}

void Accept(size_t id) {
  if (!g_sockets[id].listener) return Say("failed accept " + std::to_string(EINVAL));
  int fd = ::accept4(g_sockets[id].fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) return Say("failed accept " + std::to_string(errno));
  Say("accepted " + std::to_string(Keep(fd, false)));
}

void Write(size_t id, const std::string& text) {
  ssize_t n = ::send(g_sockets[id].fd, text.data(), text.size(), MSG_NOSIGNAL);
  if (n < 0) return ReportFailure(id, errno);
  Say("wrote " + std::to_string(id));
}

// Runs one command; false for "quit".
bool Run(const std::string& command) {
  std::istringstream in(command);
  std::string verb, first, second;
  in >> verb >> first;
  int port = 0, localPort = 0;
  size_t id = 0;
  if (verb.empty()) return true;
  if (verb == "quit") return false;
  if (verb == "ping") {
    Say("pong");
  } else if (verb == "connect" && ParsePort(first, port)) {
    in >> second;
    if (!second.empty() && !ParsePort(second, localPort)) {
      Say("failed connect " + std::to_string(EINVAL));
      return true;
    }
    Connect(port, localPort);
  } else if (verb == "listen" && ParsePort(first, port)) {
    Listen(port);
  } else if (verb == "accept" && ParseId(first, id)) {
    Accept(id);
  } else if (verb == "write" && ParseId(first, id)) {
    std::string text;
    std::getline(in >> std::ws, text);
    Write(id, text);
  } else {
    Say("failed " + verb + " " + std::to_string(EINVAL));
  }
  return true;
}

// Runs the commands of one line; false once one of them was "quit".
bool RunLine(const std::string& line) {
  size_t start = 0;
  for (;;) {
    size_t end = line.find(';', start);
    if (!Run(line.substr(start, end == std::string::npos ? end : end - start))) return false;
    if (end == std::string::npos) return true;
    start = end + 1;
  }
}

// A watched socket has something to tell: bytes, an orderly end or an error.
void Drain(size_t id) {
  Socket& socket = g_sockets[id];
  if (socket.listener) {
    int error = 0;
    socklen_t length = sizeof error;
    ::getsockopt(socket.fd, SOL_SOCKET, SO_ERROR, &error, &length);
    if (error != 0) ReportFailure(id, error);
    socket.watched = false;  // a listener that failed once stays failed
    return;
  }
  char buffer[512];
  ssize_t n = ::recv(socket.fd, buffer, sizeof buffer, MSG_DONTWAIT);
  if (n < 0) {
    if (errno != EAGAIN && errno != EINTR) ReportFailure(id, errno);
    return;
  }
  if (n == 0) {
    Say("eof " + std::to_string(id));
    socket.watched = false;
    return;
  }
  Say("data " + std::to_string(id) + " " + std::string(buffer, static_cast<size_t>(n)));
}

}  // namespace

int main() {
  Say("ready " + std::to_string(::getpid()));
  std::string input;
  for (;;) {
    // Standard input first, then every socket: connections are watched for reads and
    // failures, listeners only for failures (a waiting connection is taken on command).
    std::vector<pollfd> fds{{STDIN_FILENO, POLLIN, 0}};
    std::vector<size_t> ids;
    for (size_t id = 0; id < g_sockets.size(); ++id) {
      const Socket& socket = g_sockets[id];
      if (!socket.watched) continue;
      fds.push_back({socket.fd, static_cast<short>(socket.listener ? 0 : POLLIN), 0});
      ids.push_back(id);
    }
    if (::poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      return 1;
    }
    for (size_t k = 1; k < fds.size(); ++k)
      if (fds[k].revents != 0) Drain(ids[k - 1]);
    if (fds[0].revents != 0) {
      char buffer[512];
      ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return 0;
      input.append(buffer, static_cast<size_t>(n));
      for (size_t end; (end = input.find('\n')) != std::string::npos;) {
        std::string line = input.substr(0, end);
        input.erase(0, end + 1);
        if (!RunLine(line)) return 0;
      }
    }
  }
}
