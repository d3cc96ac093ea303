// A scripted loopback client for trying the firewall out: it opens a listener, then connects
// to it and closes again in a slow rhythm, so the connection counts move. Loopback only;
// it ends by itself after the given number of rounds (default 600, about ten minutes).
//
//   tessmark-demo-client [rounds] [port]
//
// The port (default 8080) is the TCP listener's; the UDP socket takes 5353 + (port - 8080).

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

int listenOnLoopback(uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 64) != 0) {
    std::perror("demo client: listen");
    std::exit(1);
  }
  return fd;
}

int connectTo(uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = argc > 1 ? std::atoi(argv[1]) : 600;
  const auto kPort = static_cast<uint16_t>(argc > 2 ? std::atoi(argv[2]) : 8080);
  int listener = listenOnLoopback(kPort);
  int udp = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in udpAddr{};
  udpAddr.sin_family = AF_INET;
  udpAddr.sin_port = htons(static_cast<uint16_t>(5353 + (kPort - 8080)));
  udpAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(udp, reinterpret_cast<sockaddr*>(&udpAddr), sizeof udpAddr);

  std::vector<int> open;
  for (int round = 0; round < rounds; ++round) {
    // Up to three connections build up, then they all close: the counts rise and fall.
    if (open.size() < 6) {
      int client = connectTo(kPort);
      int server = client >= 0 ? accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1;
      if (client >= 0) open.push_back(client);
      if (server >= 0) open.push_back(server);
    } else {
      for (int fd : open) close(fd);
      open.clear();
    }
    sleep(1);
  }
  return 0;
}
