// The Linux connection tables against the real kernel, inside the test binary's private network
// namespace: the probe counts what the tables list, rows name their owners and carry raw
// fields, and deleting a row aborts the connection.

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "linux/loopback.h"
#include "linux/netns.h"
#include "linux/peer_child.h"
#include "platform/linux/linux_tables.h"
#include "platform/linux/proc_net_parser.h"

namespace tessmark::platform::linux_backend {
namespace {

const uint32_t kLoopback = inet_addr("127.0.0.1");

using tessmark::testing::Fd;

sockaddr_in Loopback(uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = kLoopback;
  return addr;
}

Fd Listen(uint16_t port) {
  Fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  int one = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr = Loopback(port);
  EXPECT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0) << port;
  EXPECT_EQ(::listen(fd.get(), 64), 0);
  return fd;
}

// A connected pair to a listener of this process: {client, server}.
std::pair<Fd, Fd> ConnectPair(const Fd& listener, uint16_t port) {
  Fd client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in addr = Loopback(port);
  EXPECT_EQ(::connect(client.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  Fd server(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  EXPECT_GE(server.get(), 0);
  return {std::move(client), std::move(server)};
}

sockaddr_in At(const char* address, uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = inet_addr(address);
  return addr;
}

// A listener that accepts nothing unless the test does; `option` (SO_REUSEADDR or
// SO_REUSEPORT) is set before bind.
Fd ListenAt(sockaddr_in addr, int option = SO_REUSEADDR) {
  Fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  int one = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, option, &one, sizeof one);
  EXPECT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0)
      << std::strerror(errno);
  EXPECT_EQ(::listen(fd.get(), 64), 0);
  return fd;
}

// A TCP client connected to `to`, from `from` when given.
Fd ConnectTo(sockaddr_in to, std::optional<sockaddr_in> from = std::nullopt) {
  Fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (from) {
    int one = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    EXPECT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&*from), sizeof *from), 0)
        << std::strerror(errno);
  }
  EXPECT_EQ(::connect(fd.get(), reinterpret_cast<sockaddr*>(&to), sizeof to), 0)
      << std::strerror(errno);
  return fd;
}

Fd Udp(std::optional<uint16_t> bindPort, std::optional<uint16_t> connectPort) {
  Fd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (bindPort) {
    sockaddr_in addr = Loopback(*bindPort);
    EXPECT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  }
  if (connectPort) {
    sockaddr_in addr = Loopback(*connectPort);
    EXPECT_EQ(::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  }
  return fd;
}

// The local port of a socket, raw as the tables give it.
uint32_t RawLocalPort(const Fd& fd) {
  sockaddr_in addr{};
  socklen_t length = sizeof addr;
  ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&addr), &length);
  return addr.sin_port;
}

// Kernel state changes on loopback take microseconds, but are not synchronous with the call
// that causes them: wait for the condition, up to two seconds.
bool Eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 200; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return condition();
}

std::optional<TcpOwnerRow> FindRow(LinuxConnectionTables& tables,
                                   const std::function<bool(const TcpRow&)>& match) {
  auto table = tables.tcpTable();
  if (!table) return std::nullopt;
  for (const TcpOwnerRow& r : *table)
    if (match(r.row)) return r;
  return std::nullopt;
}

// The server's row of a connection a client made: the client's two ends, swapped.
std::optional<TcpOwnerRow> ServerRowOf(const std::vector<TcpOwnerRow>& table, const Fd& client) {
  sockaddr_in self{}, peer{};
  socklen_t length = sizeof self;
  ::getsockname(client.get(), reinterpret_cast<sockaddr*>(&self), &length);
  length = sizeof peer;
  ::getpeername(client.get(), reinterpret_cast<sockaddr*>(&peer), &length);
  for (const TcpOwnerRow& r : table) {
    if (r.row.dwLocalAddr == peer.sin_addr.s_addr && r.row.dwLocalPort == peer.sin_port &&
        r.row.dwRemoteAddr == self.sin_addr.s_addr && r.row.dwRemotePort == self.sin_port)
      return r;
  }
  return std::nullopt;
}

// "127.0.0.1:80" from raw fields.
std::string Endpoint(uint32_t rawAddr, uint32_t rawPort) {
  char text[INET_ADDRSTRLEN] = {};
  in_addr addr{rawAddr};
  ::inet_ntop(AF_INET, &addr, text, sizeof text);
  return std::string(text) + ":" + std::to_string(ntohs(static_cast<uint16_t>(rawPort)));
}

const char* SourceName(TableSource source) {
  return source == TableSource::kNetlinkOnly ? "netlink" : "/proc/net";
}

auto Key(const TcpOwnerRow& r) {
  return std::tie(r.row.dwLocalAddr, r.row.dwLocalPort, r.row.dwRemoteAddr, r.row.dwRemotePort,
                  r.row.dwState, r.dwProcessId);
}

// Sockets in each state the count must or must not count, made in this process. Ports are
// the fixture's own, so tests in the same namespace do not meet.
struct SocketZoo {
  // Rows the TCP and UDP tables gain from it.
  static constexpr uint32_t kTcpRows = 1 + 3 * 2 + 2 + 1;
  static constexpr uint32_t kUdpRows = 3;

  explicit SocketZoo(uint16_t port) : listener(Listen(port)) {
    // Three established pairs.
    for (int i = 0; i < 3; ++i) established.push_back(ConnectPair(listener, port));
    // Half-closed: the client sends FIN and waits in FIN_WAIT2, the server sits in CLOSE_WAIT.
    halfClosed = ConnectPair(listener, port);
    ::shutdown(halfClosed.first.get(), SHUT_WR);
    halfClosedClientPort = RawLocalPort(halfClosed.first);
    // Closed by both ends, client first: the client ends in TIME_WAIT.
    {
      auto pair = ConnectPair(listener, port);
      timeWaitClientPort = RawLocalPort(pair.first);
      pair.first.close();
      pair.second.close();
    }
    // Half-closed, then closed by the client while the server keeps its end: the client
    // becomes a TIME_WAIT socket that still reports FIN_WAIT2; the server stays in CLOSE_WAIT.
    {
      auto pair = ConnectPair(listener, port);
      finWait2ClosedPort = RawLocalPort(pair.first);
      ::shutdown(pair.first.get(), SHUT_WR);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      pair.first.close();
      finWait2Server = std::move(pair.second);
    }
    // UDP: two bound, one connected to the first; one never bound is not counted.
    udp.push_back(Udp(port, std::nullopt));
    udp.push_back(Udp(static_cast<uint16_t>(port + 1), std::nullopt));
    udp.push_back(Udp(std::nullopt, port));
    udp.push_back(Fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
  }

  Fd listener;
  std::vector<std::pair<Fd, Fd>> established;
  std::pair<Fd, Fd> halfClosed;
  Fd finWait2Server;
  std::vector<Fd> udp;
  uint32_t halfClosedClientPort = 0;
  uint32_t timeWaitClientPort = 0;
  uint32_t finWait2ClosedPort = 0;
};

// The kernel's own view of sockets it does not count: TIME_WAIT sockets (timer 3) must really
// be there, or the test proves nothing about leaving them out.
size_t TimeWaitSockets() {
  auto table = ReadProcNet("/proc", "tcp");
  if (!table) return 0;
  return std::count_if(table->rows.begin(), table->rows.end(),
                       [](const ProcNetRow& r) { return r.timer == 3; });
}

TEST(LinuxTableCounts, ProbeCountsEqualTableRowsWithEverySocketState) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  LinuxConnectionTables tables;
  auto tcpBefore = tables.tcpRowCount();
  auto udpBefore = tables.udpRowCount();
  ASSERT_TRUE(tcpBefore && udpBefore);

  SocketZoo zoo(41000);
  // Settled: the half-closed client in FIN_WAIT2 and both TIME_WAIT sockets present.
  ASSERT_TRUE(Eventually([&] {
    auto row =
        FindRow(tables, [&](const TcpRow& r) { return r.dwLocalPort == zoo.halfClosedClientPort; });
    return row && row->row.dwState == 7 && TimeWaitSockets() >= 2;
  }));

  auto tcp = tables.tcpTable();
  auto udp = tables.udpTable();
  ASSERT_TRUE(tcp && udp);
  EXPECT_EQ(tables.tcpRowCount(), tcp->size());
  EXPECT_EQ(tables.udpRowCount(), udp->size());
  EXPECT_EQ(tcp->size(), *tcpBefore + SocketZoo::kTcpRows);
  EXPECT_EQ(udp->size(), *udpBefore + SocketZoo::kUdpRows);

  auto count = [&](auto predicate) { return std::count_if(tcp->begin(), tcp->end(), predicate); };
  EXPECT_EQ(
      count([&](const TcpOwnerRow& r) { return r.row.dwLocalPort == zoo.timeWaitClientPort; }), 0);
  EXPECT_EQ(
      count([&](const TcpOwnerRow& r) { return r.row.dwLocalPort == zoo.finWait2ClosedPort; }), 0);
  EXPECT_EQ(count([&](const TcpOwnerRow& r) { return r.row.dwState == 8; }), 2);  // CLOSE_WAIT
}

TEST(LinuxTableCounts, ProcNetRowsAgreeWithNetlinkRows) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  SocketZoo zoo(41100);
  LinuxConnectionTables netlink("/proc", TableSource::kNetlinkOnly);
  LinuxConnectionTables procNet("/proc", TableSource::kProcNetOnly);
  ASSERT_TRUE(Eventually([&] { return TimeWaitSockets() >= 2; }));

  auto fromNetlink = netlink.tcpTable();
  auto fromProcNet = procNet.tcpTable();
  ASSERT_TRUE(fromNetlink && fromProcNet);
  auto byKey = [](const TcpOwnerRow& a, const TcpOwnerRow& b) { return Key(a) < Key(b); };
  std::sort(fromNetlink->begin(), fromNetlink->end(), byKey);
  std::sort(fromProcNet->begin(), fromProcNet->end(), byKey);
  ASSERT_EQ(fromNetlink->size(), fromProcNet->size());
  for (size_t i = 0; i < fromNetlink->size(); ++i)
    EXPECT_EQ(Key((*fromNetlink)[i]), Key((*fromProcNet)[i])) << "row " << i;
  EXPECT_EQ(fromNetlink->size(), netlink.tcpRowCount());

  auto udpNetlink = netlink.udpTable();
  auto udpProcNet = procNet.udpTable();
  ASSERT_TRUE(udpNetlink && udpProcNet);
  auto udpKey = [](const UdpOwnerRow& r) {
    return std::tie(r.dwLocalAddr, r.dwLocalPort, r.dwProcessId);
  };
  auto udpLess = [&](const UdpOwnerRow& a, const UdpOwnerRow& b) { return udpKey(a) < udpKey(b); };
  std::sort(udpNetlink->begin(), udpNetlink->end(), udpLess);
  std::sort(udpProcNet->begin(), udpProcNet->end(), udpLess);
  ASSERT_EQ(udpNetlink->size(), udpProcNet->size());
  for (size_t i = 0; i < udpNetlink->size(); ++i)
    EXPECT_EQ(udpKey((*udpNetlink)[i]), udpKey((*udpProcNet)[i])) << "row " << i;
}

TEST(LinuxTableRows, PeerSocketsCarryThePeerPidAndRawFields) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  testing::PeerChild peer("socket_peer", {"listen", "40000", "connect", "40000", "udp", "40001"});
  ASSERT_EQ(peer.error(), "");
  Fd own = Listen(40010);
  LinuxConnectionTables tables;
  auto tcp = tables.tcpTable();
  ASSERT_TRUE(tcp.has_value());

  // Known raw values: 127.0.0.1 is the bytes 7F 00 00 01 in memory, port 40000 is 9C 40.
  const uint32_t port40000 = htons(40000);
  const TcpRow listener{2, kLoopback, port40000, 0, 0};
  const uint32_t peerPid = static_cast<uint32_t>(peer.pid());
  std::vector<TcpOwnerRow> peerRows;
  for (const TcpOwnerRow& r : *tcp) {
    if (r.row.dwLocalPort == port40000 || r.row.dwRemotePort == port40000) peerRows.push_back(r);
  }
  ASSERT_EQ(peerRows.size(), 3u);
  for (const TcpOwnerRow& r : peerRows) {
    EXPECT_EQ(r.dwProcessId, peerPid);
    EXPECT_EQ(r.row.dwLocalAddr, kLoopback);
    if (r.row.dwState == 2) {
      EXPECT_EQ(r.row, listener);
    } else {
      EXPECT_EQ(r.row.dwState, 5u);  // ESTAB
      EXPECT_EQ(r.row.dwRemoteAddr, kLoopback);
    }
  }
  // The client end reaches 40000 from an ephemeral port; the server end is on 40000.
  EXPECT_EQ(std::count_if(peerRows.begin(), peerRows.end(),
                          [&](const TcpOwnerRow& r) { return r.row.dwRemotePort == port40000; }),
            1);

  auto ownRow = std::find_if(tcp->begin(), tcp->end(), [&](const TcpOwnerRow& r) {
    return r.row.dwLocalPort == htons(40010);
  });
  ASSERT_NE(ownRow, tcp->end());
  EXPECT_EQ(ownRow->dwProcessId, static_cast<uint32_t>(::getpid()));

  auto udp = tables.udpTable();
  ASSERT_TRUE(udp.has_value());
  auto udpRow = std::find_if(udp->begin(), udp->end(),
                             [&](const UdpOwnerRow& r) { return r.dwLocalPort == htons(40001); });
  ASSERT_NE(udpRow, udp->end());
  EXPECT_EQ(udpRow->dwLocalAddr, kLoopback);
  EXPECT_EQ(udpRow->dwProcessId, peerPid);
}

TEST(LinuxTableRows, OrphanedConnectionIsARowWithoutOwner) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  Fd listener = Listen(41200);
  auto [client, server] = ConnectPair(listener, 41200);
  // The server never reads: fill its window, then close the client. Its FIN waits behind the
  // unsent data, so the socket lives on in FIN_WAIT1 with no process holding it.
  int small = 4096;
  ::setsockopt(server.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  ::fcntl(client.get(), F_SETFL, O_NONBLOCK);
  std::vector<char> data(65536, 'x');
  while (::send(client.get(), data.data(), data.size(), MSG_NOSIGNAL) > 0) {
  }
  uint32_t clientPort = RawLocalPort(client);
  client.close();

  LinuxConnectionTables tables;
  std::optional<TcpOwnerRow> orphan;
  ASSERT_TRUE(Eventually([&] {
    orphan = FindRow(tables, [&](const TcpRow& r) { return r.dwLocalPort == clientPort; });
    return orphan && orphan->row.dwState == 6;  // FIN_WAIT1
  }));
  EXPECT_EQ(orphan->dwProcessId, 0u);
  EXPECT_EQ(tables.tcpRowCount(), tables.tcpTable()->size());
  // Closing the server with unread data resets the orphan, so it does not outlive the test.
}

// A connection whose handshake is done but that no accept() has taken has no file yet, so no
// socket inode: it belongs to the program listening on its local address and port.
TEST(LinuxTableRows, AConnectionNotYetAcceptedBelongsToItsListener) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  // The peer listens on 127.0.0.1:42400 and on 0.0.0.0:42410; it accepts nothing.
  testing::PeerChild peer("socket_peer", {"listen", "42400", "listen-any", "42410"});
  ASSERT_EQ(peer.error(), "");
  // This process listens on 127.0.0.1:42410 beside the peer's wildcard, accepting nothing.
  Fd exact = ListenAt(At("127.0.0.1", 42410), SO_REUSEPORT);
  Fd plain = Listen(42420);

  Fd queued = ConnectTo(At("127.0.0.1", 42400));
  Fd halfClosed = ConnectTo(At("127.0.0.1", 42400));
  ::shutdown(halfClosed.get(), SHUT_WR);  // its server end goes to CLOSE_WAIT still queued
  Fd viaWildcard = ConnectTo(At("127.0.0.2", 42410));  // only 0.0.0.0 listens on 127.0.0.2
  Fd viaExact = ConnectTo(At("127.0.0.1", 42410));     // the exact address is looked up first
  // Accepted and closed by the server while its data waits for a client that does not read:
  // its end lives on in FIN_WAIT1 without a file, on the listener's port, held by nobody.
  auto [closedClient, closedServer] = ConnectPair(plain, 42420);
  int small = 4096;
  ::setsockopt(closedClient.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  ::fcntl(closedServer.get(), F_SETFL, O_NONBLOCK);
  std::vector<char> data(65536, 'x');
  while (::send(closedServer.get(), data.data(), data.size(), MSG_NOSIGNAL) > 0) {
  }
  closedServer.close();

  pollfd waiting{exact.get(), POLLIN, 0};
  ASSERT_EQ(::poll(&waiting, 1, 2000), 1) << "nothing waits in this process's listener";
  const uint32_t peerPid = static_cast<uint32_t>(peer.pid());
  const uint32_t ownPid = static_cast<uint32_t>(::getpid());

  for (TableSource source : {TableSource::kNetlinkOnly, TableSource::kProcNetOnly}) {
    SCOPED_TRACE(SourceName(source));
    LinuxConnectionTables tables("/proc", source);
    std::optional<std::vector<TcpOwnerRow>> table;
    ASSERT_TRUE(Eventually([&] {
      table = tables.tcpTable();
      if (!table) return false;
      auto half = ServerRowOf(*table, halfClosed);
      auto closed = ServerRowOf(*table, closedClient);
      return half && half->row.dwState == 8 && closed && closed->row.dwState == 6;
    }));
    struct Case {
      const char* what;
      const Fd& client;
      uint32_t state;
      uint32_t pid;
    };
    const Case cases[] = {{"queued", queued, 5, peerPid},
                          {"queued, client closed its side", halfClosed, 8, peerPid},
                          {"queued at the wildcard listener", viaWildcard, 5, peerPid},
                          {"queued at the exact listener", viaExact, 5, ownPid}};
    for (const Case& c : cases) {
      SCOPED_TRACE(c.what);
      auto row = ServerRowOf(*table, c.client);
      ASSERT_TRUE(row.has_value());
      EXPECT_EQ(row->row.dwState, c.state);
      EXPECT_EQ(row->dwProcessId, c.pid);
    }
    auto closed = ServerRowOf(*table, closedClient);
    ASSERT_TRUE(closed.has_value());
    EXPECT_EQ(closed->dwProcessId, 0u);
  }
}

// Rows come ordered by local address, local port, remote address, remote port as numbers. The
// addresses and ports are chosen so that their raw network-order words sort the other way.
TEST(LinuxTableOrder, RowsComeSortedByAddressesAndPortsAsNumbers) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  // Made in an order that is not the table's.
  Fd l1 = ListenAt(At("127.0.1.1", 42000));
  Fd l2 = ListenAt(At("127.0.0.2", 42240));
  Fd l3 = ListenAt(At("127.0.0.2", 42000));
  std::vector<std::pair<Fd, Fd>> pairs;
  for (auto [address, port] :
       {std::pair{"127.0.1.0", 42000}, {"127.0.0.9", 42240}, {"127.0.0.9", 42000}}) {
    Fd client = ConnectTo(At("127.0.0.2", 42240), At(address, static_cast<uint16_t>(port)));
    Fd server(::accept4(l2.get(), nullptr, nullptr, SOCK_CLOEXEC));
    pairs.emplace_back(std::move(client), std::move(server));
  }
  std::vector<Fd> udp;
  for (auto [address, port] : {std::pair{"127.0.1.1", 42000},
                               {"127.0.0.2", 42240},
                               {"127.0.0.9", 42000},
                               {"127.0.0.2", 42000}}) {
    Fd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr = At(address, static_cast<uint16_t>(port));
    EXPECT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    udp.push_back(std::move(fd));
  }
  const std::vector<std::string> expectedTcp = {
      "127.0.0.2:42000 0.0.0.0:0",       "127.0.0.2:42240 0.0.0.0:0",
      "127.0.0.2:42240 127.0.0.9:42000", "127.0.0.2:42240 127.0.0.9:42240",
      "127.0.0.2:42240 127.0.1.0:42000", "127.0.0.9:42000 127.0.0.2:42240",
      "127.0.0.9:42240 127.0.0.2:42240", "127.0.1.0:42000 127.0.0.2:42240",
      "127.0.1.1:42000 0.0.0.0:0"};
  const std::vector<std::string> expectedUdp = {"127.0.0.2:42000", "127.0.0.2:42240",
                                                "127.0.0.9:42000", "127.0.1.1:42000"};
  // Rows of the addresses made here, in the order the table gives them.
  auto ours = [](uint32_t rawAddr) {
    for (const char* a : {"127.0.0.2", "127.0.0.9", "127.0.1.0", "127.0.1.1"})
      if (rawAddr == inet_addr(a)) return true;
    return false;
  };

  for (TableSource source : {TableSource::kNetlinkOnly, TableSource::kProcNetOnly}) {
    SCOPED_TRACE(SourceName(source));
    LinuxConnectionTables tables("/proc", source);
    auto tcp = tables.tcpTable();
    auto udpTable = tables.udpTable();
    ASSERT_TRUE(tcp && udpTable);
    std::vector<std::string> tcpSeen, udpSeen;
    for (const TcpOwnerRow& r : *tcp) {
      if (ours(r.row.dwLocalAddr))
        tcpSeen.push_back(Endpoint(r.row.dwLocalAddr, r.row.dwLocalPort) + " " +
                          Endpoint(r.row.dwRemoteAddr, r.row.dwRemotePort));
    }
    for (const UdpOwnerRow& r : *udpTable) {
      if (ours(r.dwLocalAddr)) udpSeen.push_back(Endpoint(r.dwLocalAddr, r.dwLocalPort));
    }
    EXPECT_EQ(tcpSeen, expectedTcp);
    EXPECT_EQ(udpSeen, expectedUdp);
  }
}

TEST(LinuxTableDelete, DeletingALiveConnectionAbortsIt) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  Fd listener = Listen(41300);
  auto [client, server] = ConnectPair(listener, 41300);
  LinuxConnectionTables tables;
  uint32_t clientPort = RawLocalPort(client);
  auto row = FindRow(tables, [&](const TcpRow& r) { return r.dwLocalPort == clientPort; });
  ASSERT_TRUE(row.has_value());

  uint32_t result = tables.deleteTcpRow(row->row);
  if (result == EOPNOTSUPP) GTEST_SKIP() << "kernel built without CONFIG_INET_DIAG_DESTROY";
  ASSERT_EQ(result, 0u);

  char byte;
  EXPECT_EQ(::recv(client.get(), &byte, 1, 0), -1);
  EXPECT_TRUE(errno == ECONNABORTED || errno == ECONNRESET) << std::strerror(errno);
  EXPECT_EQ(::recv(server.get(), &byte, 1, 0), -1);  // the peer got a reset
  EXPECT_EQ(errno, ECONNRESET) << std::strerror(errno);
  EXPECT_FALSE(FindRow(tables, [&](const TcpRow& r) { return r.dwLocalPort == clientPort; }));
  EXPECT_EQ(tables.tcpRowCount(), tables.tcpTable()->size());
}

TEST(LinuxTableDelete, ARowThatDoesNotExistOrListensFailsAndSparesTheListener) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  Fd listener = Listen(41400);
  LinuxConnectionTables tables;
  // The kernel's look-up of this tuple would fall back to the listener on 41400.
  const TcpRow gone{5, kLoopback, htons(41400), kLoopback, htons(1)};
  EXPECT_NE(tables.deleteTcpRow(gone), 0u);
  const TcpRow nowhere{5, kLoopback, htons(41401), kLoopback, htons(1)};
  EXPECT_NE(tables.deleteTcpRow(nowhere), 0u);

  // A listening row is no connection: deleting it fails, and the service goes on.
  const TcpRow listenRow{2, kLoopback, htons(41400), 0, 0};
  EXPECT_NE(tables.deleteTcpRow(listenRow), 0u);
  EXPECT_TRUE(FindRow(tables, [&](const TcpRow& r) { return r == listenRow; }));
  auto pair = ConnectPair(listener, 41400);
  EXPECT_GE(pair.second.get(), 0);
}

TEST(LinuxTableDelete, WithoutNetAdminTheDeleteIsRefusedWithEperm) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  Fd listener = Listen(41500);
  auto [client, server] = ConnectPair(listener, 41500);
  const TcpRow row{5, kLoopback, RawLocalPort(client), kLoopback, htons(41500)};
  pid_t child = ::fork();
  if (child == 0) {
    // Drop every effective capability in this child only.
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    if (::syscall(SYS_capget, &header, data) != 0) ::_exit(100);
    data[0].effective = data[1].effective = 0;
    if (::syscall(SYS_capset, &header, data) != 0) ::_exit(101);
    LinuxConnectionTables tables;
    ::_exit(static_cast<int>(tables.deleteTcpRow(row)) & 0xFF);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), EPERM);
  // The connection still works.
  EXPECT_EQ(::send(client.get(), "x", 1, MSG_NOSIGNAL), 1);
  char byte;
  EXPECT_EQ(::recv(server.get(), &byte, 1, 0), 1);
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
