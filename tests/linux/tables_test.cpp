// The Linux connection tables on the real kernel, IPv4 and IPv6 alike: the rows of each family
// are what the probe counts for it, each named by the process that holds it (or will take it
// in), IPv4 first and each family in numeric order, from netlink and /proc/net alike, with a
// few sockets and with a thousand; a connection opened as others close moves the count of
// opens; deleting a row aborts its connection, a v4-mapped one included.

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "linux/ipv6_rows.h"
#include "linux/loopback.h"
#include "linux/netns.h"
#include "platform/linux/linux_tables.h"

namespace tessmark::platform::linux_backend {
namespace {

using testing::Fd;
using testing::Tcp6Row;
using testing::V6;
using Tcp = std::vector<TcpOwnerRow>;
using Udp = std::vector<UdpOwnerRow>;

// An address and port of either family, as the socket calls take them; the family follows from
// the text ("::1" is IPv6, "127.0.0.1" IPv4).
struct At {
  sockaddr_storage addr{};
  socklen_t length = 0;
  At(const char* address, int port) {
    if (std::strchr(address, ':') != nullptr) {
      auto* in6 = reinterpret_cast<sockaddr_in6*>(&addr);
      in6->sin6_family = AF_INET6;
      in6->sin6_port = htons(static_cast<uint16_t>(port));
      EXPECT_EQ(::inet_pton(AF_INET6, address, &in6->sin6_addr), 1) << address;
      length = sizeof(sockaddr_in6);
    } else {
      auto* in = reinterpret_cast<sockaddr_in*>(&addr);
      in->sin_family = AF_INET;
      in->sin_port = htons(static_cast<uint16_t>(port));
      EXPECT_EQ(::inet_pton(AF_INET, address, &in->sin_addr), 1) << address;
      length = sizeof(sockaddr_in);
    }
  }
  int family() const { return addr.ss_family; }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&addr); }
};
At Lo(int port) {
  return At("127.0.0.1", port);
}
At Lo6(int port) {
  return At("::1", port);
}

// Why this kernel cannot run the IPv6 half of a test; empty when it can.
std::string Ipv6Missing() {
  if (::access("/proc/net/sockstat6", F_OK) != 0)
    return "this kernel has no IPv6 (no /proc/net/sockstat6)";
  Fd fd(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return std::string("no AF_INET6 socket: ") + std::strerror(errno);
  At lo = Lo6(0);
  if (::bind(fd.get(), lo.get(), lo.length) != 0)
    return std::string("::1 cannot be bound: ") + std::strerror(errno);
  return {};
}

// Every fixed port is bound with SO_REUSEADDR: a client of an earlier test may have left a
// TIME_WAIT socket on it, as the kernel also hands these ports out to clients.
enum Flags { kReuseAddr = 1, kReusePort = 2, kV6Only = 4, kFreeBind = 8 };

// A socket of `family` and `type`, never bound.
Fd Unbound(int family, int type) {
  return Fd(::socket(family, type | SOCK_CLOEXEC, 0));
}

// A socket of `type` with the flags set, bound to `local` and connected to `remote` when given,
// of their family. An IPv6 one is dual-stack unless kV6Only asks otherwise.
Fd Open(int type, std::optional<At> local, std::optional<At> remote = {}, int flags = kReuseAddr) {
  const int family = local ? local->family() : remote ? remote->family() : AF_INET;
  Fd fd = Unbound(family, type);
  int one = 1, v6only = (flags & kV6Only) != 0;
  if (flags & kReuseAddr) ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (flags & kReusePort) ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEPORT, &one, sizeof one);
  if (family == AF_INET6) ::setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &v6only, sizeof v6only);
  // An address no interface has: a row all the same, which no connection can reach.
  if ((flags & kFreeBind) && ::setsockopt(fd.get(), IPPROTO_IPV6, IPV6_FREEBIND, &one, sizeof one))
    ::setsockopt(fd.get(), SOL_IP, IP_FREEBIND, &one, sizeof one);
  if ((local && ::bind(fd.get(), local->get(), local->length) != 0) ||
      (remote && ::connect(fd.get(), remote->get(), remote->length) != 0))
    ADD_FAILURE() << std::strerror(errno);
  return fd;
}
Fd Listen(At at, int flags = kReuseAddr) {
  Fd fd = Open(SOCK_STREAM, at, {}, flags);
  EXPECT_EQ(::listen(fd.get(), 1024), 0);
  return fd;
}
Fd Connect(At to) {
  return Open(SOCK_STREAM, {}, to);
}
Fd Accept(const Fd& listener) {
  return Fd(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
}
// Closed with a reset, whoever closes it last: nothing of it outlives the test (a thousand
// closes at once overflow the loopback queue, and a lost FIN would keep its socket retrying).
void ResetOnClose(const Fd& fd) {
  linger reset{1, 0};
  ::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
}

// A child holding a copy of every descriptor this process had at the fork, but those in
// `drop`, until the object goes; it dies with this process. The object is made once the child
// let go of `drop`.
class Holder {
 public:
  explicit Holder(const std::vector<int>& drop = {}) : parent_(::getpid()) {
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // async-signal-safe calls only from here
      for (int fd : drop) ::close(fd);
      char byte = 1;
      if (::write(ready[1], &byte, 1) != 1) ::_exit(1);
      while (::getppid() == parent_) ::pause();
      ::_exit(0);
    }
    char byte;
    if (pid_ > 0 && ::read(ready[0], &byte, 1) != 1) ADD_FAILURE() << "the holder did not start";
    ::close(ready[0]);
    ::close(ready[1]);
  }
  ~Holder() {
    if (pid_ > 0) ::kill(pid_, SIGKILL), ::waitpid(pid_, nullptr, 0);
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;
  uint32_t pid() const { return pid_ > 0 ? static_cast<uint32_t>(pid_) : 0; }

 private:
  pid_t parent_ = 0, pid_ = -1;
};

// "127.0.0.1:80" or "[::1]:80" from raw fields.
std::string Endpoint(bool ipv6, uint32_t rawAddr, const Ipv6Address& rawAddr6, uint32_t rawPort) {
  char text[INET6_ADDRSTRLEN] = {};
  in_addr addr{rawAddr};
  if (ipv6)
    ::inet_ntop(AF_INET6, rawAddr6.data(), text, sizeof text);
  else
    ::inet_ntop(AF_INET, &addr, text, sizeof text);
  const std::string port = ":" + std::to_string(ntohs(static_cast<uint16_t>(rawPort)));
  return ipv6 ? "[" + std::string(text) + "]" + port : text + port;
}
// Each row as text with its owner, in the table's order.
std::string Text(const TcpOwnerRow& r) {
  return Endpoint(r.row.ipv6, r.row.dwLocalAddr, r.row.ucLocalAddr, r.row.dwLocalPort) + " " +
         Endpoint(r.row.ipv6, r.row.dwRemoteAddr, r.row.ucRemoteAddr, r.row.dwRemotePort) + " " +
         std::to_string(r.row.dwState) + " by " + std::to_string(r.dwProcessId);
}
std::string Text(const UdpOwnerRow& r) {
  return Endpoint(r.ipv6, r.dwLocalAddr, r.ucLocalAddr, r.dwLocalPort) + " by " +
         std::to_string(r.dwProcessId);
}
template <class Row>
std::vector<std::string> Listed(const std::optional<std::vector<Row>>& table) {
  std::vector<std::string> rows;
  for (const Row& r : table.value_or(std::vector<Row>{})) rows.push_back(Text(r));
  return rows;
}
// A row holds the addresses of its own family only.
bool OfOneFamily(bool ipv6, uint32_t addr4, const Ipv6Address& addr6) {
  return ipv6 ? addr4 == 0 : addr6 == Ipv6Address{};
}
template <class Row>
RowCounts CountFamilies(const std::vector<Row>& rows) {
  RowCounts counts;
  for (const Row& r : rows) {
    if constexpr (std::is_same_v<Row, TcpOwnerRow>) {
      EXPECT_TRUE(OfOneFamily(r.row.ipv6, r.row.dwLocalAddr, r.row.ucLocalAddr) &&
                  OfOneFamily(r.row.ipv6, r.row.dwRemoteAddr, r.row.ucRemoteAddr))
          << Text(r);
      ++(r.row.ipv6 ? counts.ipv6 : counts.ipv4);
    } else {
      EXPECT_TRUE(OfOneFamily(r.ipv6, r.dwLocalAddr, r.ucLocalAddr)) << Text(r);
      ++(r.ipv6 ? counts.ipv6 : counts.ipv4);
    }
  }
  return counts;
}
bool Ipv6(const TcpOwnerRow& r) {
  return r.row.ipv6;
}
bool Ipv6(const UdpOwnerRow& r) {
  return r.ipv6;
}

// The raw row of `fd`'s own end of its connection, or of the far end, as the socket calls name
// the two ends.
TcpRow RawRowOf(const Fd& fd, bool farEnd, uint32_t state) {
  sockaddr_storage near{}, far{};
  socklen_t length = sizeof near;
  ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&near), &length);
  length = sizeof far;
  ::getpeername(fd.get(), reinterpret_cast<sockaddr*>(&far), &length);  // none for a listener
  if (farEnd) std::swap(near, far);
  TcpRow row{state};
  row.ipv6 = (farEnd ? far : near).ss_family == AF_INET6;
  auto take = [&](const sockaddr_storage& end, uint32_t& addr, Ipv6Address& addr6, uint32_t& port) {
    if (end.ss_family == AF_INET6) {
      const auto& in6 = reinterpret_cast<const sockaddr_in6&>(end);
      std::memcpy(addr6.data(), &in6.sin6_addr, addr6.size());
      port = in6.sin6_port;
    } else if (end.ss_family == AF_INET) {
      const auto& in = reinterpret_cast<const sockaddr_in&>(end);
      addr = in.sin_addr.s_addr;
      port = in.sin_port;
    }
  };
  take(near, row.dwLocalAddr, row.ucLocalAddr, row.dwLocalPort);
  take(far, row.dwRemoteAddr, row.ucRemoteAddr, row.dwRemotePort);
  return row;
}
// The same IPv4 row as an IPv6 socket holds it: each address as ::ffff:a.b.c.d.
TcpRow Mapped(const TcpRow& ipv4) {
  auto mapped = [](uint32_t addr) {
    char text[INET_ADDRSTRLEN] = {};
    in_addr in{addr};
    ::inet_ntop(AF_INET, &in, text, sizeof text);
    return V6((std::string("::ffff:") + text).c_str());
  };
  TcpRow row{ipv4.dwState, 0, ipv4.dwLocalPort, 0, ipv4.dwRemotePort, true};
  row.ucLocalAddr = mapped(ipv4.dwLocalAddr);
  row.ucRemoteAddr = mapped(ipv4.dwRemoteAddr);
  return row;
}
// The row of `fd`'s own end of its connection, or of the far end, as Listed gives it.
std::string RowOf(const Fd& fd, bool farEnd, uint32_t state, uint32_t pid) {
  return Text({RawRowOf(fd, farEnd, state), pid});
}
bool Has(const std::vector<std::string>& rows, const std::string& row) {
  return std::find(rows.begin(), rows.end(), row) != rows.end();
}

// One family's addresses in the scenarios: its loopback address, its wildcard, and another
// address that only the wildcard listener takes in.
struct Family {
  const char* lo;
  const char* any;
  const char* other;
  int base;  // the first port
  bool ipv6;
};
constexpr Family kIpv4{"127.0.0.1", "0.0.0.0", "127.0.0.2", 41000, false};
// The IPv6 loopback has only ::1; its other address is an IPv4 one, v4-mapped, which reaches
// the dual-stack wildcard listener as an IPv6 connection.
constexpr Family kIpv6{"::1", "::", "::ffff:127.0.0.2", 41100, true};

TEST(LinuxTables, BothSourcesListWhatEachFamilysCountCountsEachRowWithItsOwner) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  const std::string noIpv6 = Ipv6Missing();
  std::vector<Family> families{kIpv4};
  if (noIpv6.empty()) families.push_back(kIpv6);
  LinuxConnectionTables tables;  // netlink, /proc/net when it fails
  auto tcpBefore = tables.tcpRowCount();
  auto udpBefore = tables.udpRowCount();
  ASSERT_TRUE(tcpBefore && udpBefore);

  // Another process's, in each family: listeners on the loopback address at the first port and
  // on the wildcard (dual-stack for IPv6) ten ports on, and a UDP socket. Across the families,
  // 0.0.0.0:41030, whose IPv6-only twin [::]:41030 is this process's.
  std::vector<Fd> theirs;
  for (const Family& f : families) {
    theirs.push_back(Listen(At(f.lo, f.base)));
    theirs.push_back(Listen(At(f.any, f.base + 10), kReuseAddr | kReusePort));
    theirs.push_back(Open(SOCK_DGRAM, At(f.lo, f.base + 2)));
  }
  if (noIpv6.empty()) theirs.push_back(Listen(At("0.0.0.0", 41030)));
  Holder other;
  theirs.clear();
  const uint32_t otherPid = other.pid(), own = static_cast<uint32_t>(::getpid());
  ASSERT_NE(otherPid, 0u);

  RowCounts tcpAdded, udpAdded;
  auto added = [](RowCounts& counts, bool ipv6, uint32_t n) {
    (ipv6 ? counts.ipv6 : counts.ipv4) += n;
  };
  std::vector<Fd> open;  // kept until the end
  std::vector<std::string> tcpRows, udpRows, orphans;
  for (const Family& f : families) {
    const int b = f.base;
    Fd exact = Listen(At(f.lo, b + 10), kReuseAddr | kReusePort), plain = Listen(At(f.lo, b + 20));
    // Queued: a connection whose handshake is done has no file until accept(); it is the
    // program's that listens on its exact address, else on the wildcard.
    Fd queued = Connect(At(f.lo, b)), halfClosed = Connect(At(f.lo, b));
    ::shutdown(halfClosed.get(), SHUT_WR);  // FIN_WAIT2, its far end CLOSE_WAIT still queued
    Fd viaWildcard = Connect(At(f.other, b + 10)), viaExact = Connect(At(f.lo, b + 10));
    {  // Closed by both ends, client first: TIME_WAIT, no row.
      Fd c = Connect(At(f.lo, b + 20)), s = Accept(plain);
      c.close();
    }
    // Half-closed, then closed by its client: a TIME_WAIT socket reporting FIN_WAIT2, no row.
    Fd closeWait;
    {
      Fd c = Connect(At(f.lo, b + 20));
      closeWait = Accept(plain);
      ::shutdown(c.get(), SHUT_WR);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    // Taken in, then closed while its data waits for a client that does not read (its window
    // full): its FIN waits behind the data, and its end lives on without a file in FIN_WAIT1.
    Fd deaf = Connect(At(f.lo, b + 20));
    {
      Fd s = Accept(plain);
      int small = 4096;
      ::setsockopt(deaf.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
      ::fcntl(s.get(), F_SETFL, O_NONBLOCK);
      std::vector<char> data(65536, 'x');
      while (::send(s.get(), data.data(), data.size(), MSG_NOSIGNAL) > 0) {
      }
    }
    // A listener that takes a connection in only once data came: the silent client's end is a
    // row, the listener's end stays a request socket, which is none.
    Fd deferred = Listen(At(f.lo, b + 40));
    int wait = 30;
    ::setsockopt(deferred.get(), IPPROTO_TCP, TCP_DEFER_ACCEPT, &wait, sizeof wait);
    Fd silent = Connect(At(f.lo, b + 40));
    added(tcpAdded, f.ipv6, 4 /*listeners*/ + 4 * 2 /*queued*/ + 1 + 2 + 2);
    for (const std::string& row :
         {RowOf(queued, true, 5, otherPid),
          RowOf(halfClosed, true, 8, otherPid),   // queued, its client closed its side
          RowOf(viaWildcard, true, 5, otherPid),  // queued at the wildcard listener
          RowOf(viaExact, true, 5, own),          // queued at the exact listener
          RowOf(halfClosed, false, 7, own), RowOf(closeWait, false, 8, own),
          RowOf(plain, false, 2, own), RowOf(deferred, false, 2, own),
          RowOf(silent, false, 5, own)})
      tcpRows.push_back(row);
    orphans.push_back(RowOf(deaf, true, 6, 0));  // on a listener's port, held by nobody
    // UDP: two bound here and one connected, besides the other's; one never bound has no row.
    Fd udp1 = Open(SOCK_DGRAM, At(f.lo, b)), udp2 = Open(SOCK_DGRAM, At(f.lo, b + 1));
    Fd udp3 = Open(SOCK_DGRAM, {}, At(f.lo, b));
    open.push_back(Unbound(f.ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM));
    added(udpAdded, f.ipv6, 4);
    const std::string lo = f.ipv6 ? "[::1]:" : "127.0.0.1:";
    udpRows.push_back(lo + std::to_string(b + 1) + " by " + std::to_string(own));
    udpRows.push_back(lo + std::to_string(b + 2) + " by " + std::to_string(otherPid));
    for (Fd* fd : {&exact, &plain, &queued, &halfClosed, &viaWildcard, &viaExact, &closeWait, &deaf,
                   &deferred, &silent, &udp1, &udp2, &udp3})
      open.push_back(std::move(*fd));
  }
  if (noIpv6.empty()) {
    // Each wildcard listener takes in its own family's connections: the queued IPv4 one is the
    // other's, the queued IPv6 one this process's.
    Fd wildcard6 = Listen(At("::", 41030), kReuseAddr | kV6Only);
    Fd queued4 = Connect(Lo(41030)), queued6 = Connect(Lo6(41030));
    // An IPv4 client of the dual-stack listener: its own row is IPv4; the end the listener takes
    // in is an IPv6 socket holding the v4-mapped addresses, queued at [::].
    Fd fromIpv4 = Connect(At("127.0.0.3", 41110));
    added(tcpAdded, false, 1 + 2 + 1);
    added(tcpAdded, true, 1 + 2 + 1);
    for (const std::string& row :
         {RowOf(wildcard6, false, 2, own), RowOf(queued4, true, 5, otherPid),
          RowOf(queued6, true, 5, own), RowOf(fromIpv4, false, 5, own),
          Text({Mapped(RawRowOf(fromIpv4, true, 5)), otherPid})})
      tcpRows.push_back(row);
    for (Fd* fd : {&wildcard6, &queued4, &queued6, &fromIpv4}) open.push_back(std::move(*fd));
  }

  // Settled once the closed ones are gone and the orphans stand.
  LinuxConnectionTables netlink("/proc", TableSource::kNetlinkOnly);
  std::optional<Tcp> tcp;
  auto settled = [&] {
    if (!tcp || tcp->size() != tcpBefore->total() + tcpAdded.total()) return false;
    std::vector<std::string> listed = Listed(tcp);
    return std::all_of(orphans.begin(), orphans.end(),
                       [&](const std::string& row) { return Has(listed, row); });
  };
  for (int i = 0; i < 200 && !(tcp = netlink.tcpTable(), settled()); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_TRUE(tcp.has_value());
  const RowCounts tcpListed = CountFamilies(*tcp);
  EXPECT_EQ(tcpListed,
            (RowCounts{tcpBefore->ipv4 + tcpAdded.ipv4, tcpBefore->ipv6 + tcpAdded.ipv6}));
  EXPECT_EQ(tables.tcpRowCount(), tcpListed);
  auto udp = netlink.udpTable();
  ASSERT_TRUE(udp.has_value());
  const RowCounts udpListed = CountFamilies(*udp);
  EXPECT_EQ(udpListed,
            (RowCounts{udpBefore->ipv4 + udpAdded.ipv4, udpBefore->ipv6 + udpAdded.ipv6}));
  EXPECT_EQ(tables.udpRowCount(), udpListed);
  // IPv4 rows first.
  EXPECT_TRUE(std::is_partitioned(tcp->begin(), tcp->end(), [](auto& r) { return !Ipv6(r); }));
  EXPECT_TRUE(std::is_partitioned(udp->begin(), udp->end(), [](auto& r) { return !Ipv6(r); }));
  LinuxConnectionTables procNet("/proc", TableSource::kProcNetOnly);
  EXPECT_EQ(Listed(procNet.tcpTable()), Listed(tcp));
  EXPECT_EQ(Listed(procNet.udpTable()), Listed(udp));
  for (const std::string& row : orphans) EXPECT_TRUE(Has(Listed(tcp), row)) << row;
  for (const std::string& row : tcpRows) EXPECT_TRUE(Has(Listed(tcp), row)) << row;
  for (const std::string& row : udpRows) EXPECT_TRUE(Has(Listed(udp), row)) << row;
  if (!noIpv6.empty())
    GTEST_SKIP() << "the IPv4 rows hold; the IPv6 ones were not tried: " << noIpv6;
}

// Rows come IPv4 first, then IPv6, each family ordered by local address, local port, remote
// address, remote port as numbers. The addresses and ports are chosen so that their raw
// network-order words sort the other way, and so that IPv6 addresses compared word by word as
// this machine loads them, or last word first, would too.
TEST(LinuxTables, RowsComeSortedByFamilyThenAddressesAndPortsAsNumbers) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  const std::string noIpv6 = Ipv6Missing();
  std::vector<Fd> fds;  // made in an order that is not the table's
  for (auto [address, port] :
       {std::pair{"127.0.1.1", 42000}, {"127.0.0.2", 42240}, {"127.0.0.2", 42000}}) {
    fds.push_back(Listen(At(address, port)));
    fds.push_back(Open(SOCK_DGRAM, At(address, port)));
  }
  for (auto [address, port] :
       {std::pair{"127.0.1.0", 42000}, {"127.0.0.9", 42240}, {"127.0.0.9", 42000}}) {
    fds.push_back(Open(SOCK_STREAM, At(address, port), At("127.0.0.2", 42240)));
    fds.push_back(Accept(fds[2]));
  }
  const std::string by = " by " + std::to_string(::getpid());
  std::vector<std::string> tcp = {
      "127.0.0.2:42000 0.0.0.0:0 2" + by,       "127.0.0.2:42240 0.0.0.0:0 2" + by,
      "127.0.0.2:42240 127.0.0.9:42000 5" + by, "127.0.0.2:42240 127.0.0.9:42240 5" + by,
      "127.0.0.2:42240 127.0.1.0:42000 5" + by, "127.0.0.9:42000 127.0.0.2:42240 5" + by,
      "127.0.0.9:42240 127.0.0.2:42240 5" + by, "127.0.1.0:42000 127.0.0.2:42240 5" + by,
      "127.0.1.1:42000 0.0.0.0:0 2" + by};
  std::vector<std::string> udp = {"127.0.0.2:42000" + by, "127.0.0.2:42240" + by,
                                  "127.0.1.1:42000" + by};
  if (noIpv6.empty()) {
    // Listeners and UDP sockets on ::1 and on addresses no interface has; connections between
    // v4-mapped addresses, whose last words differ in their last two bytes.
    for (auto [address, port] : {std::pair{"fe00::1", 43000},
                                 {"fd00::100", 43240},
                                 {"::1", 43240},
                                 {"fd00::2", 43000},
                                 {"::ffff:127.0.0.2", 43240},
                                 {"fd00::100", 43000},
                                 {"::1", 43000}}) {
      fds.push_back(Listen(At(address, port), kReuseAddr | kFreeBind));
      fds.push_back(Open(SOCK_DGRAM, At(address, port), {}, kReuseAddr | kFreeBind));
    }
    const size_t server = fds.size() - 6;
    for (auto [address, port] : {std::pair{"::ffff:127.0.1.0", 43000},
                                 {"::ffff:127.0.0.9", 43240},
                                 {"::ffff:127.0.0.9", 43000}}) {
      fds.push_back(Open(SOCK_STREAM, At(address, port), At("::ffff:127.0.0.2", 43240)));
      fds.push_back(Accept(fds[server]));
    }
    for (const char* row :
         {"[::1]:43000 [::]:0 2", "[::1]:43240 [::]:0 2", "[::ffff:127.0.0.2]:43240 [::]:0 2",
          "[::ffff:127.0.0.2]:43240 [::ffff:127.0.0.9]:43000 5",
          "[::ffff:127.0.0.2]:43240 [::ffff:127.0.0.9]:43240 5",
          "[::ffff:127.0.0.2]:43240 [::ffff:127.0.1.0]:43000 5",
          "[::ffff:127.0.0.9]:43000 [::ffff:127.0.0.2]:43240 5",
          "[::ffff:127.0.0.9]:43240 [::ffff:127.0.0.2]:43240 5",
          "[::ffff:127.0.1.0]:43000 [::ffff:127.0.0.2]:43240 5", "[fd00::2]:43000 [::]:0 2",
          "[fd00::100]:43000 [::]:0 2", "[fd00::100]:43240 [::]:0 2", "[fe00::1]:43000 [::]:0 2"})
      tcp.push_back(row + by);
    for (const char* row :
         {"[::1]:43000", "[::1]:43240", "[::ffff:127.0.0.2]:43240", "[fd00::2]:43000",
          "[fd00::100]:43000", "[fd00::100]:43240", "[fe00::1]:43000"})
      udp.push_back(row + by);
  }
  // Only the rows of the ports used here.
  auto ours = [](std::vector<std::string> rows) {
    std::erase_if(rows, [](const std::string& r) {
      for (const char* port : {":42000 ", ":42240 ", ":43000 ", ":43240 "})
        if (r.find(port) != std::string::npos) return false;
      return true;
    });
    return rows;
  };
  for (TableSource source : {TableSource::kNetlinkOnly, TableSource::kProcNetOnly}) {
    LinuxConnectionTables tables("/proc", source);
    EXPECT_EQ(ours(Listed(tables.tcpTable())), tcp) << (source == TableSource::kNetlinkOnly);
    EXPECT_EQ(ours(Listed(tables.udpTable())), udp) << (source == TableSource::kNetlinkOnly);
  }
  if (!noIpv6.empty())
    GTEST_SKIP() << "the IPv4 rows hold; the IPv6 ones were not tried: " << noIpv6;
}

// The socket was aborted under its program (ECONNABORTED), or by its peer's reset.
void ExpectBroken(const Fd& fd, const char* what) {
  char byte;
  errno = 0;
  EXPECT_EQ(::recv(fd.get(), &byte, 1, MSG_DONTWAIT), -1) << what;
  EXPECT_TRUE(errno == ECONNABORTED || errno == ECONNRESET) << what << ": " << std::strerror(errno);
}

// A connection of each family opened as two listeners close leaves the row counts where they
// were; the count of opens moves for each connect() and for each end a listener takes in, and
// not for a close. Deleting a row aborts its connection, where rows that are no connection fail
// and spare the listener; a v4-mapped connection goes as the IPv6 row it is, and only as one.
TEST(LinuxTables, ConnectionsOpenedAsListenersCloseMoveTheOpensAndDeletingTheirRowsAbortsThem) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  const std::string noIpv6 = Ipv6Missing();
  const bool ipv6 = noIpv6.empty();
  Fd listener = Listen(Lo(41300)), spareA = Listen(Lo(41301)), spareB = Listen(Lo(41302));
  Fd listener6, spare6A, spare6B;
  if (ipv6)
    listener6 = Listen(Lo6(41300)), spare6A = Listen(Lo6(41301)), spare6B = Listen(Lo6(41302));
  LinuxConnectionTables tables;
  TcpOpensProbe probe;
  auto rows = tables.tcpRowCount();
  auto opens = tables.tcpOpenCount();
  auto counters = probe.read();
  ASSERT_TRUE(rows && opens && counters);
  spareA.close();
  spareB.close();
  spare6A.close();
  spare6B.close();
  Fd client = Connect(Lo(41300)), server = Accept(listener);
  Fd client6, server6;
  if (ipv6) client6 = Connect(Lo6(41300)), server6 = Accept(listener6);
  const uint32_t connections = ipv6 ? 2 : 1;
  EXPECT_EQ(tables.tcpRowCount(), rows);
  EXPECT_EQ(tables.tcpOpenCount(), *opens + 2 * connections);
  auto after = probe.read();
  ASSERT_TRUE(after.has_value());
  EXPECT_EQ(after->activeOpens, counters->activeOpens + connections);
  EXPECT_EQ(after->passiveOpens, counters->passiveOpens + connections);

  // The kernel's look-up of a connection that is not there would fall back to the listener.
  const uint32_t lo = inet_addr("127.0.0.1");
  EXPECT_NE(tables.deleteTcpRow({5, lo, htons(41300), lo, htons(1)}), 0u);
  EXPECT_NE(tables.deleteTcpRow({2, lo, htons(41300), 0, 0}), 0u);
  const TcpRow row{5, lo, htons(testing::LocalPortOf(client)), lo, htons(41300)};
  // Without CAP_NET_ADMIN the kernel refuses, and the refusal is what comes back.
  pid_t child = ::fork();
  if (child == 0) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    if (::syscall(SYS_capset, &header, none) != 0) ::_exit(100);
    ::_exit(static_cast<int>(LinuxConnectionTables().deleteTcpRow(row)) & 0xFF);
  }
  int status = 0;
  ASSERT_TRUE(child > 0 && ::waitpid(child, &status, 0) == child) << std::strerror(errno);
  const uint32_t result = tables.deleteTcpRow(row);
  if (result == EOPNOTSUPP) GTEST_SKIP() << "kernel built without CONFIG_INET_DIAG_DESTROY";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == EPERM) << "wait status " << status;
  ASSERT_EQ(result, 0u);
  char byte;
  EXPECT_EQ(::recv(client.get(), &byte, 1, 0), -1);
  EXPECT_TRUE(errno == ECONNABORTED || errno == ECONNRESET) << std::strerror(errno);
  EXPECT_EQ(::recv(server.get(), &byte, 1, 0), -1);  // the far end got a reset
  EXPECT_EQ(errno, ECONNRESET) << std::strerror(errno);
  client.close();
  server.close();
  EXPECT_EQ(tables.tcpOpenCount(), *opens + 2 * connections);
  Fd again = Connect(Lo(41300));
  EXPECT_TRUE(Accept(listener).valid()) << "the listener serves on";
  if (!ipv6) GTEST_SKIP() << "the IPv4 rows hold; the IPv6 ones were not tried: " << noIpv6;

  // IPv6: a gone connection and the listener's own row are refused; the connection's row
  // aborts it, once.
  EXPECT_NE(tables.deleteTcpRow(Tcp6Row(5, "::1", 41300, "::1", 1)), 0u);
  EXPECT_NE(tables.deleteTcpRow(Tcp6Row(2, "::1", 41300, "::", 0)), 0u);
  const TcpRow row6 = Tcp6Row(5, "::1", testing::LocalPortOf(client6), "::1", 41300);
  ASSERT_EQ(tables.deleteTcpRow(row6), 0u);
  ExpectBroken(client6, "the IPv6 client");
  EXPECT_EQ(::recv(server6.get(), &byte, 1, 0), -1);
  EXPECT_EQ(errno, ECONNRESET) << std::strerror(errno);
  EXPECT_NE(tables.deleteTcpRow(row6), 0u) << "gone, and the listener is spared";
  Fd again6 = Connect(Lo6(41300));
  EXPECT_TRUE(Accept(listener6).valid()) << "the IPv6 listener serves on";

  // The end a dual-stack listener took in from an IPv4 client is an IPv6 row on v4-mapped
  // addresses. The same connection spelled as an IPv4 row is no row, and stays.
  Fd dual = Listen(At("::", 41310));
  Fd client4 = Connect(Lo(41310)), mappedEnd = Accept(dual);
  const uint16_t clientPort = htons(testing::LocalPortOf(client4));
  EXPECT_NE(tables.deleteTcpRow({5, lo, htons(41310), lo, clientPort}), 0u);
  ASSERT_EQ(::send(client4.get(), "x", 1, MSG_NOSIGNAL), 1);
  EXPECT_EQ(::recv(mappedEnd.get(), &byte, 1, 0), 1) << "the connection lives on";
  const TcpRow mapped =
      Tcp6Row(5, "::ffff:127.0.0.1", 41310, "::ffff:127.0.0.1", ntohs(clientPort));
  EXPECT_TRUE(Has(Listed(tables.tcpTable()), Text({mapped, static_cast<uint32_t>(::getpid())})));
  ASSERT_EQ(tables.deleteTcpRow(mapped), 0u);
  ExpectBroken(mappedEnd, "the v4-mapped end");
  EXPECT_EQ(::recv(client4.get(), &byte, 1, 0), -1);
  EXPECT_EQ(errno, ECONNRESET) << std::strerror(errno);
  Fd again4 = Connect(Lo(41310));
  EXPECT_TRUE(Accept(dual).valid()) << "the dual-stack listener serves on";

  // An IPv6 client of an IPv4 listener: its own row is v4-mapped as well.
  Fd mappedClient = Connect(At("::ffff:127.0.0.1", 41300)), ipv4End = Accept(listener);
  ASSERT_EQ(tables.deleteTcpRow(RawRowOf(mappedClient, false, 5)), 0u);
  ExpectBroken(mappedClient, "the v4-mapped client");
  EXPECT_EQ(::recv(ipv4End.get(), &byte, 1, 0), -1);
  EXPECT_EQ(errno, ECONNRESET) << std::strerror(errno);
}

// Sockets of both families by the thousand, held by several processes: each family's count is
// its rows, from netlink and /proc/net alike, each row with its owner, IPv4 first and each
// family in numeric order.
class BothFamiliesAtScale : public ::testing::TestWithParam<int> {};

// The rows' order as numbers: the family, then each address's bytes in network order (most
// significant first) and each port as a number.
bool NumericallyBefore(const TcpRow& a, const TcpRow& b) {
  auto key = [](const TcpRow& r) {
    std::array<uint8_t, 41> key{};
    key[0] = r.ipv6;
    auto put = [&](size_t at, uint32_t addr, const Ipv6Address& addr6, uint32_t port) {
      if (r.ipv6)
        std::memcpy(&key[at], addr6.data(), 16);
      else
        std::memcpy(&key[at], &addr, 4);  // network order: most significant byte first
      std::memcpy(&key[at + 16], &port, 2);
    };
    put(1, r.dwLocalAddr, r.ucLocalAddr, r.dwLocalPort);
    put(19, r.dwRemoteAddr, r.ucRemoteAddr, r.dwRemotePort);
    return key;
  };
  return key(a) < key(b);
}

bool RaiseFileLimit(rlim_t wanted) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  if (limit.rlim_cur >= wanted) return true;
  limit.rlim_cur = std::min(wanted, limit.rlim_max);
  return ::setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= wanted;
}

TEST_P(BothFamiliesAtScale, EachFamilysCountIsItsRowsFromBothSourcesEachWithItsOwner) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  if (std::string reason = Ipv6Missing(); !reason.empty()) GTEST_SKIP() << reason;
  const int sockets = GetParam();
  if (!RaiseFileLimit(static_cast<rlim_t>(sockets) * 2 + 512))
    GTEST_SKIP() << "the file limit does not allow " << sockets << " sockets";
  const int port = sockets < 100 ? 44000 : 44100;
  LinuxConnectionTables tables;
  auto tcpBefore = tables.tcpRowCount();
  auto udpBefore = tables.udpRowCount();
  ASSERT_TRUE(tcpBefore && udpBefore);

  // Who holds what: 0 this process, 1 to 3 a holder each, 4 the listeners' holder.
  constexpr size_t kHolders = 5, kListeners = 4;
  std::vector<std::vector<Fd>> held(kHolders);
  struct Made {
    TcpRow row;
    size_t holder;
  };
  std::vector<Made> tcpMade;
  RowCounts tcpAdded, udpAdded;
  auto made = [&](const TcpRow& row, size_t holder) {
    tcpMade.push_back({row, holder});
    ++(row.ipv6 ? tcpAdded.ipv6 : tcpAdded.ipv4);
  };
  // Listeners on 127.0.0.1, on ::1, on [::] dual-stack and on [::] for IPv6 only.
  Fd listeners[kListeners] = {Listen(Lo(port)), Listen(Lo6(port + 1)), Listen(At("::", port + 2)),
                              Listen(At("::", port + 3), kReuseAddr | kV6Only)};
  for (const Fd& l : listeners) made(RawRowOf(l, false, 2), 4);
  // Connections of five kinds: IPv4; IPv6 on ::1; an IPv4 client of the dual-stack listener
  // (an IPv4 row and a v4-mapped one); an IPv6 client of it on ::ffff:127.0.0.1 (two v4-mapped
  // rows); an IPv6 client of the IPv6-only wildcard. Every third is left queued, the
  // listener's; queued ones are made last, so that each accept() takes the one just made.
  const int connections = (sockets - static_cast<int>(kListeners)) / 2;
  auto kind = [&](int i) -> std::pair<At, size_t> {
    switch (i % 5) {
      case 0:
        return {Lo(port), 0};
      case 1:
        return {Lo6(port + 1), 1};
      case 2:
        return {Lo(port + 2), 2};
      case 3:
        return {At("::ffff:127.0.0.1", port + 2), 2};
      default:
        return {Lo6(port + 3), 3};
    }
  };
  for (bool queue : {false, true}) {
    for (int i = 0; i < connections; ++i) {
      if ((i % 3 == 2) != queue) continue;
      auto [to, listener] = kind(i);
      Fd client = Connect(to);
      ASSERT_TRUE(client.valid());
      ResetOnClose(client);
      const size_t clientHolder = static_cast<size_t>(i) % 4;
      made(RawRowOf(client, false, 5), clientHolder);
      // The listener's end: an IPv6 listener holds v4-mapped addresses for an IPv4 client.
      TcpRow far = RawRowOf(client, true, 5);
      if (!far.ipv6 && listener >= 1) far = Mapped(far);
      if (queue) {
        made(far, 4);
      } else {
        Fd server = Accept(listeners[listener]);
        ASSERT_TRUE(server.valid()) << std::strerror(errno);
        ResetOnClose(server);
        made(far, (clientHolder + 1) % 4);
        held[(clientHolder + 1) % 4].push_back(std::move(server));
      }
      held[clientHolder].push_back(std::move(client));
    }
  }
  for (Fd& l : listeners) held[4].push_back(std::move(l));
  // UDP, one in ten: on 127.0.0.1, on ::1, and on [::] dual-stack, each on a port of the
  // kernel's choosing.
  struct UdpMade {
    std::string text;
    size_t holder;
  };
  std::vector<UdpMade> udpMade;
  for (int j = 0; j < std::max(3, sockets / 10); ++j) {
    const char* address = j % 3 == 0 ? "127.0.0.1" : j % 3 == 1 ? "::1" : "::";
    Fd fd = Open(SOCK_DGRAM, At(address, 0), {}, 0);
    const TcpRow row = RawRowOf(fd, false, 0);
    ++(row.ipv6 ? udpAdded.ipv6 : udpAdded.ipv4);
    udpMade.push_back({Endpoint(row.ipv6, row.dwLocalAddr, row.ucLocalAddr, row.dwLocalPort),
                       static_cast<size_t>(j) % 4});
    held[static_cast<size_t>(j) % 4].push_back(std::move(fd));
  }

  // Hand each share to its holder, which lets go of the others; this process keeps share 0.
  std::vector<std::unique_ptr<Holder>> holders;
  std::vector<uint32_t> pids{static_cast<uint32_t>(::getpid())};
  for (size_t h = 1; h < kHolders; ++h) {
    std::vector<int> drop;
    for (size_t other = 0; other < kHolders; ++other)
      for (const Fd& fd : held[other])
        if (other != h) drop.push_back(fd.get());
    holders.push_back(std::make_unique<Holder>(drop));
    ASSERT_NE(holders.back()->pid(), 0u);
    pids.push_back(holders.back()->pid());
  }
  for (size_t h = 1; h < kHolders; ++h) held[h].clear();

  std::sort(tcpMade.begin(), tcpMade.end(),
            [](const Made& a, const Made& b) { return NumericallyBefore(a.row, b.row); });
  std::vector<std::string> tcpExpected, udpExpected;
  for (const Made& m : tcpMade) tcpExpected.push_back(Text({m.row, pids[m.holder]}));
  for (const UdpMade& m : udpMade)
    udpExpected.push_back(m.text + " by " + std::to_string(pids[m.holder]));
  std::sort(udpExpected.begin(), udpExpected.end());  // compared as a set below
  RecordProperty("tcp_rows", static_cast<int>(tcpExpected.size()));
  RecordProperty("udp_rows", static_cast<int>(udpExpected.size()));

  // The rows of this test: TCP ones on its ports, UDP ones of its processes.
  auto ourTcp = [&](const std::vector<std::string>& rows) {
    std::vector<std::string> ours;
    for (const std::string& r : rows)
      for (int p = port; p < port + static_cast<int>(kListeners); ++p)
        if (r.find(":" + std::to_string(p) + " ") != std::string::npos) {
          ours.push_back(r);
          break;
        }
    return ours;
  };
  auto ourUdp = [&](std::vector<std::string> rows) {
    std::erase_if(rows, [&](const std::string& r) {
      return std::none_of(pids.begin(), pids.end(),
                          [&](uint32_t pid) { return r.ends_with(" by " + std::to_string(pid)); });
    });
    std::sort(rows.begin(), rows.end());
    return rows;
  };
  LinuxConnectionTables netlink("/proc", TableSource::kNetlinkOnly);
  std::optional<Tcp> tcp;
  for (int i = 0; i < 200 && ourTcp(Listed(tcp = netlink.tcpTable())) != tcpExpected; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_TRUE(tcp.has_value());
  EXPECT_EQ(ourTcp(Listed(tcp)), tcpExpected);
  auto udp = netlink.udpTable();
  ASSERT_TRUE(udp.has_value());
  EXPECT_EQ(ourUdp(Listed(udp)), udpExpected);
  // Each family's rows are those there before and those made, and the probe counts them.
  auto expectCounts = [](RowCounts listed, RowCounts before, RowCounts added,
                         std::optional<RowCounts> probed) {
    EXPECT_EQ(listed, (RowCounts{before.ipv4 + added.ipv4, before.ipv6 + added.ipv6}));
    EXPECT_EQ(probed, listed);
  };
  expectCounts(CountFamilies(*tcp), *tcpBefore, tcpAdded, tables.tcpRowCount());
  expectCounts(CountFamilies(*udp), *udpBefore, udpAdded, tables.udpRowCount());
  EXPECT_TRUE(std::is_sorted(tcp->begin(), tcp->end(), [](const auto& a, const auto& b) {
    return NumericallyBefore(a.row, b.row);
  }));
  LinuxConnectionTables procNet("/proc", TableSource::kProcNetOnly);
  EXPECT_EQ(Listed(procNet.tcpTable()), Listed(tcp));
  EXPECT_EQ(Listed(procNet.udpTable()), Listed(udp));
}

INSTANTIATE_TEST_SUITE_P(Sockets, BothFamiliesAtScale, ::testing::Values(10, 1000));

// Owners of sockets that change hands between two reads, with each way of noticing that a
// process's open files changed: the fd folder's size, which kernels from 6.2 on report and
// which is then the one found, or the count of the folder's entries.
class SocketOwnersOnEachSignal : public ::testing::TestWithParam<FdChangeSignal> {};

TEST_P(SocketOwnersOnEachSignal, ASocketIsItsOldestHoldersAndMovesToAChildOnceTheParentLetsGo) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  utsname name{};
  int major = 0, minor = 0;
  ASSERT_TRUE(::uname(&name) == 0 && std::sscanf(name.release, "%d.%d", &major, &minor) == 2);
  const bool sizeCounts = major > 6 || (major == 6 && minor >= 2);
  EXPECT_EQ(SocketOwners().signal() == FdChangeSignal::kFolderSize, sizeCounts);
  if (GetParam() == FdChangeSignal::kFolderSize && !sizeCounts)
    GTEST_SKIP() << "this kernel reports no count of open files in the fd folder's size";
  LinuxConnectionTables tables("/proc", TableSource::kNetlinkOnly, GetParam());
  auto ownerOf = [&](int port) -> std::optional<uint32_t> {
    for (const TcpOwnerRow& r : tables.tcpTable().value_or(Tcp{}))
      if (r.row.dwState == 2 && r.row.dwLocalPort == htons(port)) return r.dwProcessId;
    return std::nullopt;
  };
  const uint32_t self = static_cast<uint32_t>(::getpid());
  ASSERT_EQ(ownerOf(42600), std::nullopt);  // this process is known before its sockets exist
  Fd first = Listen(Lo(42600));
  Holder early;  // a child between fork and exec holds its parent's sockets
  ASSERT_NE(early.pid(), 0u);
  EXPECT_EQ(ownerOf(42600), self) << "held by both, it is the older process's";
  Fd second = Listen(Lo(42610));
  EXPECT_EQ(ownerOf(42610), self) << "opened by a process known already";
  first.close();
  EXPECT_EQ(ownerOf(42600), early.pid()) << "the parent let go";
  Holder late;  // a child the last read did not know
  ASSERT_NE(late.pid(), 0u);
  Fd other(::open("/dev/null", O_RDONLY | O_CLOEXEC));  // this process's count stays the same
  second.close();
  EXPECT_EQ(ownerOf(42610), late.pid()) << "handed to a new child";
}

INSTANTIATE_TEST_SUITE_P(Signals, SocketOwnersOnEachSignal,
                         ::testing::Values(FdChangeSignal::kFolderSize,
                                           FdChangeSignal::kOwnerCount),
                         [](const auto& info) {
                           return info.param == FdChangeSignal::kFolderSize ? "FolderSize"
                                                                            : "OwnerCount";
                         });

}  // namespace
}  // namespace tessmark::platform::linux_backend
