// client_peer: a loopback program driven line by line, for the end-to-end tests and the
// benchmarks of the firewall. It reports on standard output what each of its sockets saw, so
// that a test learns from the program itself that its connection was aborted.
//
// Once running it writes "ready <pid>". Commands, one a line on standard input:
//   connect PORT [LOCALPORT]  -> "connected ID LOCALPORT T" (broken during the handshake:
//                                "aborted ID T" or "reset ID T")
//   listen PORT               -> "listening ID" (its connections are never taken)
//   connect6 PORT [LOCALPORT], listen6 PORT
//                             -> the same over ::1; listen6 listens on [::] and so takes IPv4
//                                clients too
//   write ID TEXT             -> "wrote ID"
// Reports on a connection, whenever they happen: "data ID TEXT", "eof ID", "aborted ID T"
// (ECONNABORTED: the socket was destroyed under the program), "reset ID T" (ECONNRESET),
// "error ID ERRNO"; a command it cannot carry out: "failed VERB ERRNO". IDs count the sockets
// from 0 in the order they were made. T is CLOCK_MONOTONIC in nanoseconds right after the
// call, for the benchmarks to compare with their own reading. The end of input ends it.

#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "linux/loopback.h"

namespace {

using namespace tessmark::testing;

struct Socket {
  Fd fd;
  bool watched = false;  // a connection, polled until its end has been reported
};
std::vector<Socket> g_sockets;

std::string Now() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return std::to_string(static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec);
}

void Say(const std::string& line) {
  std::string text = line + "\n";
  for (size_t done = 0; done < text.size();) {
    ssize_t n = ::write(STDOUT_FILENO, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) std::_Exit(3);  // nobody listens any more
    done += static_cast<size_t>(n);
  }
}

// The end of socket `id`, told once.
void Failed(size_t id, int error) {
  const std::string which = std::to_string(id);
  if (error == ECONNABORTED || error == ECONNRESET)
    Say((error == ECONNABORTED ? "aborted " : "reset ") + which + " " + Now());
  else
    Say("error " + which + " " + std::to_string(error));
  g_sockets[id].watched = false;
}

void Connect(uint16_t port, uint16_t localPort, Family family) {
  // The id is taken at once, so that ids follow the commands whatever becomes of them.
  g_sockets.push_back({TcpSocket(family)});
  const size_t id = g_sockets.size() - 1;
  const Fd& fd = g_sockets[id].fd;
  if (!fd.valid() || (localPort != 0 && !BindLoopback(fd, localPort, family)))
    return Say("failed connect " + std::to_string(errno));
  if (!tessmark::testing::Connect(fd, port, family)) {
    if (errno == ECONNABORTED || errno == ECONNRESET) return Failed(id, errno);
    return Say("failed connect " + std::to_string(errno));
  }
  const std::string stamp = Now();
  g_sockets[id].watched = true;
  Say("connected " + std::to_string(id) + " " + std::to_string(LocalPortOf(fd)) + " " + stamp);
}

void Run(const std::string& command) {
  std::istringstream in(command);
  std::string verb;
  long first = -1, second = 0;
  in >> verb >> first;
  const bool six = verb.ends_with("6");
  if (six) verb.pop_back();
  if (verb == "connect" && first > 0 && first < 65536 &&
      (!(in >> second) || (second >= 0 && second < 65536))) {
    Connect(static_cast<uint16_t>(first), static_cast<uint16_t>(second),
            six ? Family::kIpv6 : Family::kIpv4);
  } else if (verb == "listen" && first > 0 && first < 65536) {
    const Family family = six ? Family::kDualStack : Family::kIpv4;
    g_sockets.push_back({TcpSocket(family)});
    const Fd& fd = g_sockets.back().fd;
    if (!BindLoopback(fd, static_cast<uint16_t>(first), family) ||
        ::listen(fd.get(), SOMAXCONN) != 0)
      return Say("failed listen " + std::to_string(errno));
    Say("listening " + std::to_string(g_sockets.size() - 1));
  } else if (verb == "write" && first >= 0 && static_cast<size_t>(first) < g_sockets.size()) {
    const auto id = static_cast<size_t>(first);
    std::string text;
    std::getline(in >> std::ws, text);
    if (::send(g_sockets[id].fd.get(), text.data(), text.size(), MSG_NOSIGNAL) < 0)
      return Failed(id, errno);
    Say("wrote " + std::to_string(id));
  } else if (!verb.empty()) {
    Say("failed " + verb + " " + std::to_string(EINVAL));
  }
}

// A watched connection has something to tell: bytes, an orderly end or an error.
void Drain(size_t id) {
  char buffer[512];
  ssize_t n = ::recv(g_sockets[id].fd.get(), buffer, sizeof buffer, MSG_DONTWAIT);
  if (n < 0 && errno != EAGAIN && errno != EINTR) Failed(id, errno);
  if (n > 0) Say("data " + std::to_string(id) + " " + std::string(buffer, static_cast<size_t>(n)));
  if (n == 0) {
    Say("eof " + std::to_string(id));
    g_sockets[id].watched = false;
  }
}

}  // namespace

int main() {
  Say("ready " + std::to_string(::getpid()));
  std::string input;
  for (;;) {
    std::vector<pollfd> fds{{STDIN_FILENO, POLLIN, 0}};
    std::vector<size_t> ids;
    for (size_t id = 0; id < g_sockets.size(); ++id) {
      if (!g_sockets[id].watched) continue;
      fds.push_back({g_sockets[id].fd.get(), POLLIN, 0});
      ids.push_back(id);
    }
    if (::poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      return 1;
    }
    for (size_t k = 1; k < fds.size(); ++k)
      if (fds[k].revents != 0) Drain(ids[k - 1]);
    if (fds[0].revents == 0) continue;
    char buffer[512];
    ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return 0;
    input.append(buffer, static_cast<size_t>(n));
    for (size_t end; (end = input.find('\n')) != std::string::npos; input.erase(0, end + 1))
      Run(input.substr(0, end));
  }
}
