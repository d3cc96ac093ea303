// The kernel's text as the Linux tables read it: /proc/net/tcp and sockstat's row counts, as a
// kernel 6.x wrote them in a private network namespace holding a listener on 127.0.0.1:40000,
// an established pair to it, a pair closed by both ends (TIME_WAIT), a client that half-closed
// and then closed (a TIME_WAIT socket that reports FIN_WAIT2) with its server end in
// CLOSE_WAIT, and two UDP sockets; and snmp's counts of opened connections. Then the IPv6
// twins, as a 6.18 kernel wrote them (see kTcp6Text). Text only: these tests need no namespace.

#include <arpa/inet.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "linux/ipv6_rows.h"
#include "platform/linux/linux_tables.h"

namespace tessmark::platform::linux_backend {
namespace {

namespace fs = std::filesystem;
using testing::Tcp6Row;
using testing::V6;

const char kTcpHeader[] =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
    "inode                                                     \n";
const char kTcpRows[] =
    "   0: 0100007F:9C40 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 "
    "10556 1 000000000734ddd1 100 0 0 10 0                     \n"
    "   1: 0100007F:ED30 0100007F:9C40 01 00000000:00000000 00:00000000 00000000     0        0 "
    "10557 2 00000000f39c2bc8 20 0 0 10 -1                     \n"
    "   2: 0100007F:ED40 0100007F:9C40 06 00000000:00000000 03:00001751 00000000     0        0 "
    "0 3 000000009a371026                                      \n"
    "   3: 0100007F:ED50 0100007F:9C40 05 00000000:00000000 03:0000175C 00000000     0        0 "
    "0 3 000000006985687f                                      \n"
    "   4: 0100007F:9C40 0100007F:ED50 08 00000000:00000001 00:00000000 00000000     0        0 "
    "10562 1 000000003fb3353f 20 4 0 10 -1                     \n"
    "   5: 0100007F:9C40 0100007F:ED30 01 00000000:00000000 00:00000000 00000000     0        0 "
    "10558 1 000000007a76a1fa 20 0 0 10 -1                     \n";
// A request socket of a handshake not yet completed, in the kernel's format for those: state
// SYN_RECV, timer 1, no inode and a reference count of 0.
const char kTcpRequestRow[] =
    "   6: 0100007F:9C40 0100007F:ED60 03 00000000:00000000 01:00000064 00000002     0        0 "
    "0 0 00000000c0ffee00                                      \n";
const char kSockstatText[] =
    "sockets: used 6\nTCP: inuse 4 orphan 0 tw 2 alloc 5 mem 0\nUDP: inuse 2 mem 0\n"
    "UDPLITE: inuse 0\nRAW: inuse 0\nFRAG: inuse 0 memory 0\n";
const uint32_t kLoopback = inet_addr("127.0.0.1");

// /proc/net/tcp6, udp6, tcp (IPv4), sockstat and sockstat6 of one moment of a private network
// namespace on kernel 6.18, holding:
//   [::]:40000, a dual-stack listener (IPV6_V6ONLY off), and from an IPv4 client 127.0.0.1:48382
//     (its row is in /proc/net/tcp) the child it took in, ::ffff:127.0.0.1:40000;
//   an AF_INET6 client ::ffff:127.0.0.1:48392 of it, its child not accepted (inode 0);
//   [::1]:40001 with TCP_DEFER_ACCEPT and a client [::1]:58932 that sent nothing: the server's
//     end is still a request socket (SYN_RECV, timer 1, inode 0, reference count 0);
//   [::1]:40002 and a client [::1]:58206 that shut its side (FIN_WAIT2; the accepted end
//     CLOSE_WAIT); a pair to it closed by both ends, the client [::1]:58220 in TIME_WAIT;
//   UDP: [::1]:40000 and [::]:40003 bound, [::1]:42344 connected to [::1]:40000.
// sockstat6 counts 9 TCP rows: every tcp6 line but the request and the TIME_WAIT socket.
const char kTcp6Text[] =
    "  sl  local_address                         remote_address                        st "
    "tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
    "   0: 00000000000000000000000000000000:9C40 00000000000000000000000000000000:0000 0A "
    "00000000:00000001 00:00000000 00000000     0        0 2404512 2 00000000554b072d 100 0 0 10 "
    "0\n"
    "   1: 00000000000000000000000001000000:9C41 00000000000000000000000000000000:0000 0A "
    "00000000:00000000 00:00000000 00000000     0        0 2404513 2 00000000be9bf233 100 0 0 10 "
    "0\n"
    "   2: 00000000000000000000000001000000:9C42 00000000000000000000000000000000:0000 0A "
    "00000000:00000000 00:00000000 00000000     0        0 2404514 1 0000000062c1459d 100 0 0 10 "
    "0\n"
    "   3: 0000000000000000FFFF00000100007F:9C40 0000000000000000FFFF00000100007F:BD08 01 "
    "00000000:00000000 00:00000000 00000000     0        0 0 1 0000000086edc76f 20 0 0 10 -1\n"
    "   4: 00000000000000000000000001000000:9C41 00000000000000000000000001000000:E634 03 "
    "00000000:00000000 01:00000050 00000000     0        0 0 0 000000003a5e3a13\n"
    "   5: 0000000000000000FFFF00000100007F:9C40 0000000000000000FFFF00000100007F:BCFE 01 "
    "00000000:00000000 00:00000000 00000000     0        0 2404516 1 00000000f1e9698b 20 0 0 10 "
    "-1\n"
    "   6: 00000000000000000000000001000000:E35E 00000000000000000000000001000000:9C42 05 "
    "00000000:00000000 00:00000000 00000000     0        0 2404519 2 0000000076dc9ac2 20 0 0 11 "
    "-1\n"
    "   7: 00000000000000000000000001000000:E36C 00000000000000000000000001000000:9C42 06 "
    "00000000:00000000 03:0000175C 00000000     0        0 0 3 00000000f390c719\n"
    "   8: 00000000000000000000000001000000:9C42 00000000000000000000000001000000:E35E 08 "
    "00000000:00000001 00:00000000 00000000     0        0 2404520 1 0000000039bb3a88 20 4 0 10 "
    "-1\n"
    "   9: 0000000000000000FFFF00000100007F:BD08 0000000000000000FFFF00000100007F:9C40 01 "
    "00000000:00000000 00:00000000 00000000     0        0 2404517 2 0000000077e666a0 20 0 0 10 "
    "-1\n"
    "  10: 00000000000000000000000001000000:E634 00000000000000000000000001000000:9C41 01 "
    "00000000:00000000 00:00000000 00000000     0        0 2404518 2 00000000183ac042 20 0 0 10 "
    "-1\n";
const char kUdp6Text[] =
    "  sl  local_address                         remote_address                        st "
    "tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode ref pointer drops\n"
    " 8464: 00000000000000000000000001000000:9C40 00000000000000000000000000000000:0000 07 "
    "00000000:00000000 00:00000000 00000000     0        0 2404523 2 00000000f4e4564d 0\n"
    " 8467: 00000000000000000000000000000000:9C43 00000000000000000000000000000000:0000 07 "
    "00000000:00000000 00:00000000 00000000     0        0 2404524 2 0000000074a355dd 0\n"
    "10808: 00000000000000000000000001000000:A568 00000000000000000000000001000000:9C40 01 "
    "00000000:00000000 00:00000000 00000000     0        0 2404525 2 000000006707f6fa 0\n";
const char kTcpOfTheSameMoment[] =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
    "inode                                                     \n"
    "   0: 0100007F:BCFE 0100007F:9C40 01 00000000:00000000 00:00000000 00000000     0        0 "
    "2404515 2 0000000009e7bc46 20 0 0 10 -1                   \n";
const char kUdpOfTheSameMoment[] =
    "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
    "inode ref pointer drops            \n";
const char kSockstatOfTheSameMoment[] =
    "sockets: used 13\nTCP: inuse 1 orphan 0 tw 1 alloc 11 mem 153\nUDP: inuse 0 mem 0\n"
    "UDPLITE: inuse 0\nRAW: inuse 0\nFRAG: inuse 0 memory 0\n";
const char kSockstat6Text[] =
    "TCP6: inuse 9\nUDP6: inuse 3\nUDPLITE6: inuse 0\nRAW6: inuse 0\nFRAG6: inuse 0 memory 0\n";

ProcNetRow Row6(const char* local, int localPort, const char* remote, int remotePort, uint8_t state,
                uint8_t timer, uint64_t inode, uint32_t refCount) {
  ProcNetRow row;
  row.ipv6 = true;
  row.localAddr6 = V6(local);
  row.localPort = htons(static_cast<uint16_t>(localPort));
  row.remoteAddr6 = V6(remote);
  row.remotePort = htons(static_cast<uint16_t>(remotePort));
  row.state = state;
  row.timer = timer;
  row.inode = inode;
  row.refCount = refCount;
  return row;
}

TEST(ProcNetText, CountersAreReadByTheirNamesFromTheirOwnLines) {
  // UDPLITE must not stand in for a missing UDP line.
  EXPECT_FALSE(ParseSockstat("TCP: inuse 4 orphan 0 tw 2 alloc 5 mem 0\nUDPLITE: inuse 0\n"));
  EXPECT_FALSE(ParseSockstat("TCP: inuse x\nUDP: inuse 2 mem 0\n"));
  EXPECT_EQ(ParseSockstat(kSockstatText), (FamilyCounts{4, 2}));
  // Each family's counts from its own file's lines: the IPv4 lines do not answer for IPv6, nor
  // the other way round, nor UDPLITE6 for UDP6.
  EXPECT_EQ(ParseSockstat6(kSockstat6Text), (FamilyCounts{9, 3}));
  EXPECT_FALSE(ParseSockstat(kSockstat6Text));
  EXPECT_FALSE(ParseSockstat6(kSockstatText));
  EXPECT_FALSE(ParseSockstat6("TCP6: inuse 9\nUDPLITE6: inuse 0\n"));
  EXPECT_FALSE(ParseSockstat6("TCP6: inuse 9x\nUDP6: inuse 3\n"));
  // Found by name, not by place; counters run past 32 bits on a long-lived host.
  auto opens =
      ParseTcpOpens("Tcp: PassiveOpens RtoMin ActiveOpens\nTcp: 7 200 18446744073709551615\n");
  ASSERT_TRUE(opens.has_value());
  EXPECT_EQ(opens->activeOpens, 18446744073709551615u);
  EXPECT_EQ(opens->passiveOpens, 7u);
  // Nothing unless both lines are whole: a read cut after the names, a value missing or bad,
  // the other counters of "TcpExt:" lines.
  for (const char* text :
       {"", "Tcp: ActiveOpens PassiveOpens\n", "Tcp: ActiveOpens PassiveOpens\nUdp: 1 2\n",
        "Tcp: ActiveOpens PassiveOpens\nTcp: 13\n", "Tcp: ActiveOpens PassiveOpens\nTcp: 13 x2\n",
        "Tcp: ActiveOpens PassiveOpens\nTcp: -1 2\n",
        "TcpExt: ActiveOpens PassiveOpens\nTcpExt: 13 2\n"})
    EXPECT_FALSE(ParseTcpOpens(text)) << text;
  EXPECT_FALSE(TcpOpensProbe("/nonexistent-proc").read());
}

// A tree laid out like /proc: the captured net/tcp, with lines that are no socket among its
// own, and net/sockstat; one process holds the established client.
TEST(ProcNetText, ATreeLikeProcGivesTheRowsItsCountCountsWithTheirOwners) {
  struct Root {
    fs::path path = fs::temp_directory_path() / ("tessmark-proc-" + std::to_string(getpid()));
    ~Root() { fs::remove_all(path); }
  } root;
  fs::create_directories(root.path / "net");
  fs::create_directories(root.path / "4242/fd");
  const std::string tcpText =
      std::string(kTcpHeader) + "   7: 0100007F:9C40\n" + kTcpRows +
      "   8: 0100007Z:9C40 00000000:0000 0A 00000000:00000000 00:00000000 00000000 0 0 1 1\n" +
      kTcpRequestRow;
  // Each socket line gives its fields raw; a line that is neither that nor the header is
  // counted and passed over.
  ProcNetTable parsed = ParseProcNet(tcpText);
  EXPECT_EQ(parsed.rejectedLines, 2u);
  EXPECT_EQ(parsed.rows.at(0), (ProcNetRow{kLoopback, htons(40000), 0, 0, 0x0A, 0, 10556, 1}));
  EXPECT_FALSE(parsed.rows.at(0).ipv6);
  std::ofstream(root.path / "net/tcp") << tcpText;
  std::ofstream(root.path / "net/sockstat") << kSockstatText;
  fs::create_symlink("socket:[10557]", root.path / "4242/fd/3");
  fs::create_symlink("/dev/null", root.path / "4242/fd/4");

  LinuxConnectionTables tables(root.path.string(), TableSource::kProcNetOnly);
  // "TCP: inuse 4" of the same moment; no sockstat6 here, so no IPv6 rows.
  EXPECT_EQ(tables.tcpRowCount(), (RowCounts{4, 0}));
  auto tcp = tables.tcpTable();
  ASSERT_TRUE(tcp.has_value());
  // The two TIME_WAIT sockets and the request socket are no rows. In the table's order, ports
  // as numbers: 40000 before 60720, remote 60720 before 60752.
  ASSERT_EQ(tcp->size(), 4u);
  EXPECT_EQ((*tcp)[0].row, (TcpRow{2, kLoopback, htons(40000), 0, 0}));
  EXPECT_EQ((*tcp)[1].row, (TcpRow{5, kLoopback, htons(40000), kLoopback, htons(60720)}));
  EXPECT_EQ((*tcp)[2].row, (TcpRow{8, kLoopback, htons(40000), kLoopback, htons(60752)}));
  EXPECT_EQ((*tcp)[3].row, (TcpRow{5, kLoopback, htons(60720), kLoopback, htons(40000)}));
  EXPECT_EQ((*tcp)[0].dwProcessId, 0u);
  EXPECT_EQ((*tcp)[3].dwProcessId, 4242u);

  // Without its sources there is no table, rather than an empty one.
  fs::remove(root.path / "net/tcp");
  fs::remove(root.path / "net/sockstat");
  LinuxConnectionTables bare(root.path.string(), TableSource::kProcNetOnly);
  EXPECT_FALSE(bare.tcpRowCount().has_value());
  EXPECT_FALSE(bare.tcpTable().has_value());
}

// The IPv6 tables: each address is four words printed as numbers, so each word's bytes come out
// reversed on this machine; the rows must come back as the bytes inet_pton gives.
TEST(ProcNetText, Tcp6AndUdp6LinesGiveTheAddressesInetPtonGives) {
  ProcNetTable tcp = ParseProcNet(kTcp6Text);
  EXPECT_EQ(tcp.rejectedLines, 0u);
  ASSERT_EQ(tcp.rows.size(), 11u);
  EXPECT_EQ(tcp.rows[0], Row6("::", 40000, "::", 0, 0x0A, 0, 2404512, 2));
  EXPECT_EQ(tcp.rows[1], Row6("::1", 40001, "::", 0, 0x0A, 0, 2404513, 2));
  // The child of the dual-stack listener, not accepted yet: no inode.
  EXPECT_EQ(tcp.rows[3], Row6("::ffff:127.0.0.1", 40000, "::ffff:127.0.0.1", 48392, 0x01, 0, 0, 1));
  // The request socket: SYN_RECV with a reference count of 0.
  EXPECT_EQ(tcp.rows[4], Row6("::1", 40001, "::1", 58932, 0x03, 1, 0, 0));
  EXPECT_EQ(tcp.rows[6], Row6("::1", 58206, "::1", 40002, 0x05, 0, 2404519, 2));
  EXPECT_EQ(tcp.rows[7], Row6("::1", 58220, "::1", 40002, 0x06, 3, 0, 3));  // TIME_WAIT
  EXPECT_EQ(tcp.rows[10], Row6("::1", 58932, "::1", 40001, 0x01, 0, 2404518, 2));
  for (const ProcNetRow& row : tcp.rows) EXPECT_TRUE(row.ipv6 && row.localAddr == 0);

  ProcNetTable udp = ParseProcNet(kUdp6Text);
  EXPECT_EQ(udp.rejectedLines, 0u);
  ASSERT_EQ(udp.rows.size(), 3u);
  EXPECT_EQ(udp.rows[0], Row6("::1", 40000, "::", 0, 0x07, 0, 2404523, 2));
  EXPECT_EQ(udp.rows[1], Row6("::", 40003, "::", 0, 0x07, 0, 2404524, 2));
  EXPECT_EQ(udp.rows[2], Row6("::1", 42344, "::1", 40000, 0x01, 0, 2404525, 2));

  // Addresses whose every byte differs, each word's bytes in reverse as the kernel prints them.
  ProcNetTable other = ParseProcNet(
      "   0: B80D01205D4CA38570037F6E1C9B2E8A:0050 F00DFEC0EFBEADDE78563412BEBAFECA:C350 01 "
      "00000000:00000000 00:00000000 00000000 0 0 77 1\n");
  ASSERT_EQ(other.rows.size(), 1u);
  EXPECT_EQ(other.rows[0], Row6("2001:db8:85a3:4c5d:6e7f:370:8a2e:9b1c", 80,
                                "c0fe:df0:dead:beef:1234:5678:"
                                "cafe:babe",
                                50000, 0x01, 0, 77, 1));

  // A line is one family or malformed: two widths, a cut address, a word that is no number.
  const char* kBroken[] = {
      "   0: 00000000000000000000000001000000:9C41 0100007F:9C40 01 00000000:00000000 "
      "00:00000000 00000000 0 0 1 1\n",
      "   0: 0100007F:9C40 00000000000000000000000001000000:9C41 01 00000000:00000000 "
      "00:00000000 00000000 0 0 1 1\n",
      "   0: 0000000000000000000000000100000:9C41 00000000000000000000000001000000:9C41 01 "
      "00000000:00000000 00:00000000 00000000 0 0 1 1\n",
      "   0: 000000000000000000000000010000G0:9C41 00000000000000000000000001000000:9C41 01 "
      "00000000:00000000 00:00000000 00000000 0 0 1 1\n",
      "   0: 00000000000000000000000001000000+9C41 00000000000000000000000001000000:9C41 01 "
      "00000000:00000000 00:00000000 00000000 0 0 1 1\n"};
  for (const char* line : kBroken) {
    ProcNetTable broken = ParseProcNet(line);
    EXPECT_TRUE(broken.rows.empty() && broken.rejectedLines == 1u) << line;
  }
}

// A tree laid out like /proc with both families of one moment: the counts of sockstat and
// sockstat6 are the rows of each family, IPv4 first, each family in numeric order, each row
// with its owner; the queued child of the dual-stack listener is the listener's.
TEST(ProcNetText, ATreeWithBothFamiliesGivesEachFamilyTheRowsItsCountCounts) {
  struct Root {
    fs::path path = fs::temp_directory_path() / ("tessmark-proc6-" + std::to_string(getpid()));
    ~Root() { fs::remove_all(path); }
  } root;
  fs::create_directories(root.path / "net");
  fs::create_directories(root.path / "4242/fd");
  fs::create_directories(root.path / "4343/fd");
  std::ofstream(root.path / "net/tcp") << kTcpOfTheSameMoment;
  std::ofstream(root.path / "net/udp") << kUdpOfTheSameMoment;
  std::ofstream(root.path / "net/tcp6") << kTcp6Text;
  std::ofstream(root.path / "net/udp6") << kUdp6Text;
  std::ofstream(root.path / "net/sockstat") << kSockstatOfTheSameMoment;
  std::ofstream(root.path / "net/sockstat6") << kSockstat6Text;
  // 4242 serves: the dual-stack listener and the accepted child; 4343 holds the clients.
  fs::create_symlink("socket:[2404512]", root.path / "4242/fd/3");
  fs::create_symlink("socket:[2404516]", root.path / "4242/fd/4");
  fs::create_symlink("socket:[2404523]", root.path / "4242/fd/5");
  fs::create_symlink("socket:[2404515]", root.path / "4343/fd/3");
  fs::create_symlink("socket:[2404517]", root.path / "4343/fd/4");

  LinuxConnectionTables tables(root.path.string(), TableSource::kProcNetOnly);
  EXPECT_EQ(tables.tcpRowCount(), (RowCounts{1, 9}));
  EXPECT_EQ(tables.udpRowCount(), (RowCounts{0, 3}));
  auto tcp = tables.tcpTable();
  ASSERT_TRUE(tcp.has_value());
  const std::vector<TcpRow> expected = {
      {5, kLoopback, htons(48382), kLoopback, htons(40000)},
      Tcp6Row(2, "::", 40000, "::", 0),
      Tcp6Row(2, "::1", 40001, "::", 0),
      Tcp6Row(2, "::1", 40002, "::", 0),
      Tcp6Row(8, "::1", 40002, "::1", 58206),
      Tcp6Row(7, "::1", 58206, "::1", 40002),
      Tcp6Row(5, "::1", 58932, "::1", 40001),
      Tcp6Row(5, "::ffff:127.0.0.1", 40000, "::ffff:127.0.0.1", 48382),
      Tcp6Row(5, "::ffff:127.0.0.1", 40000, "::ffff:127.0.0.1", 48392),
      Tcp6Row(5, "::ffff:127.0.0.1", 48392, "::ffff:127.0.0.1", 40000)};
  std::vector<TcpRow> rows;
  std::vector<uint32_t> owners;
  for (const TcpOwnerRow& r : *tcp) rows.push_back(r.row), owners.push_back(r.dwProcessId);
  EXPECT_EQ(rows, expected);
  EXPECT_EQ(owners, (std::vector<uint32_t>{4343, 4242, 0, 0, 0, 0, 0, 4242, 4242, 4343}));
  auto udp = tables.udpTable();
  ASSERT_TRUE(udp.has_value());
  ASSERT_EQ(udp->size(), 3u);
  EXPECT_TRUE((*udp)[0].ipv6 && (*udp)[0].ucLocalAddr == V6("::") &&
              (*udp)[0].dwLocalPort == htons(40003));
  EXPECT_TRUE((*udp)[1].ucLocalAddr == V6("::1") && (*udp)[1].dwLocalPort == htons(40000) &&
              (*udp)[1].dwProcessId == 4242u);
  EXPECT_TRUE((*udp)[2].ucLocalAddr == V6("::1") && (*udp)[2].dwLocalPort == htons(42344));

  // A system without IPv6 has no sockstat6: it counts no IPv6 rows and reads none, whatever
  // else lies about.
  fs::remove(root.path / "net/sockstat6");
  LinuxConnectionTables ipv4Only(root.path.string(), TableSource::kProcNetOnly);
  EXPECT_EQ(ipv4Only.tcpRowCount(), (RowCounts{1, 0}));
  EXPECT_EQ(ipv4Only.udpRowCount(), (RowCounts{0, 0}));
  tcp = ipv4Only.tcpTable();
  ASSERT_TRUE(tcp.has_value());
  ASSERT_EQ(tcp->size(), 1u);
  EXPECT_FALSE((*tcp)[0].row.ipv6);
  EXPECT_EQ(ipv4Only.udpTable().value_or(std::vector<UdpOwnerRow>(1)).size(), 0u);

  // But a sockstat6 that is there and cannot be read is a failed count, not a count of 0; and
  // with sockstat6 there, a missing tcp6 is a failed table.
  fs::create_directories(root.path / "net/sockstat6");
  LinuxConnectionTables unreadable(root.path.string(), TableSource::kProcNetOnly);
  EXPECT_FALSE(unreadable.tcpRowCount().has_value());
  EXPECT_FALSE(unreadable.udpRowCount().has_value());
  fs::remove(root.path / "net/sockstat6");
  std::ofstream(root.path / "net/sockstat6") << kSockstat6Text;
  fs::remove(root.path / "net/tcp6");
  LinuxConnectionTables noTcp6(root.path.string(), TableSource::kProcNetOnly);
  EXPECT_TRUE(noTcp6.tcpRowCount().has_value());
  EXPECT_FALSE(noTcp6.tcpTable().has_value());
  EXPECT_TRUE(noTcp6.udpTable().has_value());
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
