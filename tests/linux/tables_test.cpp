// The Linux connection tables on the real kernel: the rows are what the probe counts, each
// named by the process that holds it (or will take it in), in numeric order, from netlink and
// /proc/net alike; a connection opened as others close moves the count of opens; deleting a
// row aborts its connection.

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "linux/loopback.h"
#include "linux/netns.h"
#include "platform/linux/linux_tables.h"

namespace tessmark::platform::linux_backend {
namespace {

using testing::Fd;
using Tcp = std::vector<TcpOwnerRow>;

sockaddr_in At(const char* address, int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = inet_addr(address);
  return addr;
}
sockaddr_in Lo(int port) {
  return At("127.0.0.1", port);
}

// A socket of `type` with `option` set, bound to `local` and connected to `remote` when given.
Fd Open(int type, std::optional<sockaddr_in> local, std::optional<sockaddr_in> remote = {},
        int option = SO_REUSEADDR) {
  Fd fd(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
  int one = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, option, &one, sizeof one);
  if ((local && ::bind(fd.get(), reinterpret_cast<sockaddr*>(&*local), sizeof *local) != 0) ||
      (remote && ::connect(fd.get(), reinterpret_cast<sockaddr*>(&*remote), sizeof *remote) != 0))
    ADD_FAILURE() << std::strerror(errno);
  return fd;
}
Fd Listen(sockaddr_in at, int option = SO_REUSEADDR) {
  Fd fd = Open(SOCK_STREAM, at, {}, option);
  EXPECT_EQ(::listen(fd.get(), 64), 0);
  return fd;
}
Fd Connect(sockaddr_in to) {
  return Open(SOCK_STREAM, {}, to);
}
Fd Accept(const Fd& listener) {
  return Fd(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

// A child holding a copy of every descriptor this process had at the fork, until the object
// goes; it dies with this process.
class Holder {
 public:
  Holder() : parent_(::getpid()), pid_(::fork()) {
    if (pid_ != 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // async-signal-safe calls only from here
    while (::getppid() == parent_) ::pause();
    ::_exit(0);
  }
  ~Holder() {
    if (pid_ > 0) ::kill(pid_, SIGKILL), ::waitpid(pid_, nullptr, 0);
  }
  uint32_t pid() const { return pid_ > 0 ? static_cast<uint32_t>(pid_) : 0; }

 private:
  pid_t parent_, pid_;
};

// "127.0.0.1:80" from raw fields.
std::string Endpoint(uint32_t rawAddr, uint32_t rawPort) {
  char text[INET_ADDRSTRLEN] = {};
  in_addr addr{rawAddr};
  ::inet_ntop(AF_INET, &addr, text, sizeof text);
  return std::string(text) + ":" + std::to_string(ntohs(static_cast<uint16_t>(rawPort)));
}
// Each row as text with its owner, in the table's order.
std::string Text(const TcpOwnerRow& r) {
  return Endpoint(r.row.dwLocalAddr, r.row.dwLocalPort) + " " +
         Endpoint(r.row.dwRemoteAddr, r.row.dwRemotePort) + " " + std::to_string(r.row.dwState) +
         " by " + std::to_string(r.dwProcessId);
}
std::string Text(const UdpOwnerRow& r) {
  return Endpoint(r.dwLocalAddr, r.dwLocalPort) + " by " + std::to_string(r.dwProcessId);
}
template <class Row>
std::vector<std::string> Listed(const std::optional<std::vector<Row>>& table) {
  std::vector<std::string> rows;
  for (const Row& r : table.value_or(std::vector<Row>{})) rows.push_back(Text(r));
  return rows;
}
// The row of `fd`'s own end of its connection, or of the far end, as Listed gives it.
std::string RowOf(const Fd& fd, bool farEnd, uint32_t state, uint32_t pid) {
  sockaddr_in near{}, far{};
  socklen_t length = sizeof near;
  ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&near), &length);
  ::getpeername(fd.get(), reinterpret_cast<sockaddr*>(&far), &length);  // none for a listener
  if (farEnd) std::swap(near, far);
  return Text(
      {{state, near.sin_addr.s_addr, near.sin_port, far.sin_addr.s_addr, far.sin_port}, pid});
}
bool Has(const std::vector<std::string>& rows, const std::string& row) {
  return std::find(rows.begin(), rows.end(), row) != rows.end();
}

TEST(LinuxTables, BothSourcesListWhatTheCountCountsEachRowWithItsOwner) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  LinuxConnectionTables tables;  // netlink, /proc/net when it fails
  auto tcpBefore = tables.tcpRowCount();
  auto udpBefore = tables.udpRowCount();
  ASSERT_TRUE(tcpBefore && udpBefore);

  // Another process's: listeners on 127.0.0.1:41000 and 0.0.0.0:41010 and a UDP socket.
  Fd theirs[] = {Listen(Lo(41000)), Listen(At("0.0.0.0", 41010), SO_REUSEPORT),
                 Open(SOCK_DGRAM, Lo(41002))};
  Holder other;
  for (Fd& fd : theirs) fd.close();
  const uint32_t otherPid = other.pid(), own = static_cast<uint32_t>(::getpid());
  ASSERT_NE(otherPid, 0u);
  Fd exact = Listen(Lo(41010), SO_REUSEPORT), plain = Listen(Lo(41020));
  // Queued: a connection whose handshake is done has no file until accept(); it is the
  // program's that listens on its exact address, else on 0.0.0.0.
  Fd queued = Connect(Lo(41000)), halfClosed = Connect(Lo(41000));
  ::shutdown(halfClosed.get(), SHUT_WR);  // FIN_WAIT2, its far end CLOSE_WAIT still queued
  Fd viaWildcard = Connect(At("127.0.0.2", 41010)), viaExact = Connect(Lo(41010));
  {  // Closed by both ends, client first: TIME_WAIT, no row.
    Fd c = Connect(Lo(41020)), s = Accept(plain);
    c.close();
  }
  // Half-closed, then closed by its client: a TIME_WAIT socket reporting FIN_WAIT2, no row.
  Fd closeWait;
  {
    Fd c = Connect(Lo(41020));
    closeWait = Accept(plain);
    ::shutdown(c.get(), SHUT_WR);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  // Taken in, then closed while its data waits for a client that does not read (its window
  // full): its FIN waits behind the data, and its end lives on without a file in FIN_WAIT1.
  Fd deaf = Connect(Lo(41020));
  {
    Fd s = Accept(plain);
    int small = 4096;
    ::setsockopt(deaf.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    ::fcntl(s.get(), F_SETFL, O_NONBLOCK);
    std::vector<char> data(65536, 'x');
    while (::send(s.get(), data.data(), data.size(), MSG_NOSIGNAL) > 0) {
    }
  }
  constexpr uint32_t kTcpRows = 4 /*listeners*/ + 4 * 2 /*queued*/ + 1 + 2;
  // UDP: two bound here and one connected, besides the other's; one never bound has no row.
  Fd udp1 = Open(SOCK_DGRAM, Lo(41000)), udp2 = Open(SOCK_DGRAM, Lo(41001));
  Fd udp3 = Open(SOCK_DGRAM, {}, Lo(41000)), unbound = Open(SOCK_DGRAM, {});

  // Settled once the closed ones are gone and the orphan stands.
  LinuxConnectionTables netlink("/proc", TableSource::kNetlinkOnly);
  std::optional<Tcp> tcp;
  const std::string orphan = RowOf(deaf, true, 6, 0);  // on a listener's port, held by nobody
  for (int i = 0; i < 200; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
    tcp = netlink.tcpTable();
    if (tcp && tcp->size() == *tcpBefore + kTcpRows && Has(Listed(tcp), orphan)) break;
  }
  ASSERT_TRUE(tcp.has_value());
  EXPECT_EQ(tcp->size(), *tcpBefore + kTcpRows);
  EXPECT_EQ(tables.tcpRowCount(), tcp->size());
  auto udp = netlink.udpTable();
  ASSERT_TRUE(udp.has_value());
  EXPECT_EQ(udp->size(), *udpBefore + 4);
  EXPECT_EQ(tables.udpRowCount(), udp->size());
  LinuxConnectionTables procNet("/proc", TableSource::kProcNetOnly);
  EXPECT_EQ(Listed(procNet.tcpTable()), Listed(tcp));
  EXPECT_EQ(Listed(procNet.udpTable()), Listed(udp));
  for (const std::string& row :
       {orphan, RowOf(queued, true, 5, otherPid),
        RowOf(halfClosed, true, 8, otherPid),   // queued, its client closed its side
        RowOf(viaWildcard, true, 5, otherPid),  // queued at the wildcard listener
        RowOf(viaExact, true, 5, own),          // queued at the exact listener
        RowOf(halfClosed, false, 7, own), RowOf(closeWait, false, 8, own),
        RowOf(plain, false, 2, own)})
    EXPECT_TRUE(Has(Listed(tcp), row)) << row;
  for (const std::string& row : {"127.0.0.1:41001 by " + std::to_string(own),
                                 "127.0.0.1:41002 by " + std::to_string(otherPid)})
    EXPECT_TRUE(Has(Listed(udp), row)) << row;
}

// Rows come ordered by local address, local port, remote address, remote port as numbers. The
// addresses and ports are chosen so that their raw network-order words sort the other way.
TEST(LinuxTables, RowsComeSortedByAddressesAndPortsAsNumbers) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
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
  const std::vector<std::string> tcp = {
      "127.0.0.2:42000 0.0.0.0:0 2" + by,       "127.0.0.2:42240 0.0.0.0:0 2" + by,
      "127.0.0.2:42240 127.0.0.9:42000 5" + by, "127.0.0.2:42240 127.0.0.9:42240 5" + by,
      "127.0.0.2:42240 127.0.1.0:42000 5" + by, "127.0.0.9:42000 127.0.0.2:42240 5" + by,
      "127.0.0.9:42240 127.0.0.2:42240 5" + by, "127.0.1.0:42000 127.0.0.2:42240 5" + by,
      "127.0.1.1:42000 0.0.0.0:0 2" + by};
  const std::vector<std::string> udp = {"127.0.0.2:42000" + by, "127.0.0.2:42240" + by,
                                        "127.0.1.1:42000" + by};
  // Only the rows of the addresses made here.
  auto ours = [](std::vector<std::string> rows) {
    std::erase_if(rows, [](const std::string& r) {
      return r.starts_with("127.0.0.1:") || r.starts_with("0.0.0.0:");
    });
    return rows;
  };
  for (TableSource source : {TableSource::kNetlinkOnly, TableSource::kProcNetOnly}) {
    LinuxConnectionTables tables("/proc", source);
    EXPECT_EQ(ours(Listed(tables.tcpTable())), tcp) << (source == TableSource::kNetlinkOnly);
    EXPECT_EQ(ours(Listed(tables.udpTable())), udp) << (source == TableSource::kNetlinkOnly);
  }
}

// A connection opened as two listeners close leaves the row count where it was; the count of
// opens moves for the connect() and for the end the listener takes in, and not for a close.
// Deleting its row aborts it, where rows that are no connection fail and spare the listener.
TEST(LinuxTables, AConnectionOpenedAsListenersCloseMovesTheOpensAndDeletingItsRowAbortsIt) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  Fd listener = Listen(Lo(41300)), spareA = Listen(Lo(41301)), spareB = Listen(Lo(41302));
  LinuxConnectionTables tables;
  TcpOpensProbe probe;
  auto rows = tables.tcpRowCount();
  auto opens = tables.tcpOpenCount();
  auto counters = probe.read();
  ASSERT_TRUE(rows && opens && counters);
  spareA.close();
  spareB.close();
  Fd client = Connect(Lo(41300)), server = Accept(listener);
  EXPECT_EQ(tables.tcpRowCount(), rows);
  EXPECT_EQ(tables.tcpOpenCount(), *opens + 2);
  auto after = probe.read();
  ASSERT_TRUE(after.has_value());
  EXPECT_EQ(after->activeOpens, counters->activeOpens + 1);
  EXPECT_EQ(after->passiveOpens, counters->passiveOpens + 1);

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
  EXPECT_EQ(tables.tcpOpenCount(), *opens + 2);
  Fd again = Connect(Lo(41300));
  EXPECT_TRUE(Accept(listener).valid()) << "the listener serves on";
}

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
      if (r.row.dwState == 2 && r.row.dwLocalPort == Lo(port).sin_port) return r.dwProcessId;
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
