// The kernel's text tables, captured from a kernel 6.x in a private network namespace holding:
// a listener on 127.0.0.1:40000, an established pair to it, a pair closed by both ends
// (TIME_WAIT), a client that half-closed and then closed (a TIME_WAIT socket that reports
// FIN_WAIT2) with its server end in CLOSE_WAIT, a UDP socket bound to 40001 and one connected
// to it. These tests need no namespace: they read text only.

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "platform/linux/linux_tables.h"
#include "platform/linux/proc_net_parser.h"
#include "platform/linux/sockstat_probe.h"

namespace tessmark::platform::linux_backend {
namespace {

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
const char kUdpText[] =
    "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
    "inode ref pointer drops            \n"
    " 2610: 0100007F:9C41 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 "
    "10563 2 0000000035357608 0         \n"
    "14388: 0100007F:8A43 0100007F:9C41 01 00000000:00000000 00:00000000 00000000     0        0 "
    "10564 2 000000003df02d5b 0         \n";
const char kSockstatText[] =
    "sockets: used 6\n"
    "TCP: inuse 4 orphan 0 tw 2 alloc 5 mem 0\n"
    "UDP: inuse 2 mem 0\n"
    "UDPLITE: inuse 0\n"
    "RAW: inuse 0\n"
    "FRAG: inuse 0 memory 0\n";

const uint32_t kLoopback = inet_addr("127.0.0.1");

TEST(ProcNetParser, CapturedTcpTableGivesEveryLineWithRawFields) {
  ProcNetTable table = ParseProcNet(std::string(kTcpHeader) + kTcpRows);
  EXPECT_EQ(table.rejectedLines, 0u);
  ASSERT_EQ(table.rows.size(), 6u);

  const ProcNetRow& listener = table.rows[0];
  EXPECT_EQ(listener.localAddr, kLoopback);
  EXPECT_EQ(listener.localPort, htons(40000));
  EXPECT_EQ(listener.remoteAddr, 0u);
  EXPECT_EQ(listener.remotePort, 0u);
  EXPECT_EQ(listener.state, 0x0A);  // LISTEN
  EXPECT_EQ(listener.timer, 0);
  EXPECT_EQ(listener.inode, 10556u);
  EXPECT_EQ(listener.refCount, 1u);

  const ProcNetRow& client = table.rows[1];
  EXPECT_EQ(client.localPort, htons(0xED30));  // 60720, printed in host order
  EXPECT_EQ(client.remoteAddr, kLoopback);
  EXPECT_EQ(client.remotePort, htons(40000));
  EXPECT_EQ(client.state, 0x01);  // ESTABLISHED
  EXPECT_EQ(client.inode, 10557u);

  // TIME_WAIT, and a TIME_WAIT socket reporting FIN_WAIT2: timer 3, no inode.
  EXPECT_EQ(table.rows[2].state, 0x06);
  EXPECT_EQ(table.rows[2].timer, 3);
  EXPECT_EQ(table.rows[3].state, 0x05);
  EXPECT_EQ(table.rows[3].timer, 3);
  EXPECT_EQ(table.rows[3].inode, 0u);

  EXPECT_EQ(table.rows[4].state, 0x08);  // CLOSE_WAIT
  EXPECT_EQ(table.rows[4].remotePort, htons(0xED50));
}

TEST(ProcNetParser, PortsAboveTheSignBitOfTheLowByteKeepTheirRawValue) {
  // Port 40000 is 9C40: its raw form in memory is 40 9C; 33023 (80FF) and 65535 likewise.
  ProcNetTable table = ParseProcNet(
      "   0: 0100007F:80FF 0100007F:FFFF 01 00000000:00000000 00:00000000 00000000     0        "
      "0 1 1 0000000000000000\n");
  ASSERT_EQ(table.rows.size(), 1u);
  uint16_t local = static_cast<uint16_t>(table.rows[0].localPort);
  const auto* bytes = reinterpret_cast<const unsigned char*>(&local);
  EXPECT_EQ(bytes[0], 0x80);
  EXPECT_EQ(bytes[1], 0xFF);
  EXPECT_EQ(table.rows[0].localPort, htons(33023));
  EXPECT_EQ(table.rows[0].remotePort, htons(65535));
}

TEST(ProcNetParser, MalformedLinesAreRejectedAndTheRestKept) {
  std::string text = std::string(kTcpHeader) +
                     "   7: 0100007F:9C40\n"
                     "garbage that is not a socket line at all, really not\n"
                     "   8: 0100007Z:9C40 00000000:0000 0A 00000000:00000000 00:00000000 "
                     "00000000     0        0 1 1 0\n"
                     "   9: 0100007F:9C40 00000000:0000 0A 00000000:00000000 00:00000000 "
                     "00000000     0        0 notanumber 1 0\n" +
                     kTcpRows;
  ProcNetTable table = ParseProcNet(text);
  EXPECT_EQ(table.rejectedLines, 4u);
  ASSERT_EQ(table.rows.size(), 6u);
  EXPECT_EQ(table.rows[0].inode, 10556u);
  EXPECT_EQ(table.rows[5].inode, 10558u);
}

TEST(ProcNetParser, CapturedUdpTableGivesBoundAndConnectedSockets) {
  ProcNetTable table = ParseProcNet(kUdpText);
  EXPECT_EQ(table.rejectedLines, 0u);
  ASSERT_EQ(table.rows.size(), 2u);
  EXPECT_EQ(table.rows[0].localPort, htons(40001));
  EXPECT_EQ(table.rows[0].state, 0x07);  // CLOSE: bound only
  EXPECT_EQ(table.rows[0].inode, 10563u);
  EXPECT_EQ(table.rows[1].localPort, htons(0x8A43));
  EXPECT_EQ(table.rows[1].remoteAddr, kLoopback);
  EXPECT_EQ(table.rows[1].remotePort, htons(40001));
  EXPECT_EQ(table.rows[1].state, 0x01);  // ESTABLISHED: connected
}

TEST(SockstatText, InUseCountsAreReadFromTheirOwnLines) {
  auto counts = ParseSockstat(kSockstatText);
  ASSERT_TRUE(counts.has_value());
  EXPECT_EQ(counts->tcpInUse, 4u);
  EXPECT_EQ(counts->udpInUse, 2u);
  // UDPLITE must not stand in for a missing UDP line.
  EXPECT_FALSE(ParseSockstat("TCP: inuse 4 orphan 0 tw 2 alloc 5 mem 0\nUDPLITE: inuse 0\n"));
  EXPECT_FALSE(ParseSockstat("TCP: inuse x\nUDP: inuse 2 mem 0\n"));
}

// A captured tree under a temporary root: net/{tcp,udp,sockstat} and one process holding the
// established client and the bound UDP socket.
class CapturedProcTree : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/tessmark-proc-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    root_ = pattern;
    std::filesystem::create_directories(root_ / "net");
    std::ofstream(root_ / "net/tcp") << kTcpHeader << kTcpRows << kTcpRequestRow;
    std::ofstream(root_ / "net/udp") << kUdpText;
    std::ofstream(root_ / "net/sockstat") << kSockstatText;
    std::filesystem::create_directories(root_ / "4242/fd");
    std::filesystem::create_symlink("socket:[10557]", root_ / "4242/fd/3");
    std::filesystem::create_symlink("/dev/null", root_ / "4242/fd/4");
    std::filesystem::create_symlink("socket:[10563]", root_ / "4242/fd/5");
  }
  void TearDown() override { std::filesystem::remove_all(root_); }
  std::filesystem::path root_;
};

TEST_F(CapturedProcTree, TableRowsAreWhatTheCapturedCountCounts) {
  LinuxConnectionTables tables(root_.string(), TableSource::kProcNetOnly);
  ASSERT_EQ(tables.tcpRowCount(), 4u);  // "TCP: inuse 4" of the same moment
  ASSERT_EQ(tables.udpRowCount(), 2u);

  auto tcp = tables.tcpTable();
  ASSERT_TRUE(tcp.has_value());
  // The two TIME_WAIT sockets and the request socket are not rows.
  ASSERT_EQ(tcp->size(), 4u);
  const TcpRow listener{2, kLoopback, htons(40000), 0, 0};
  const TcpRow client{5, kLoopback, htons(60720), kLoopback, htons(40000)};
  const TcpRow closeWait{8, kLoopback, htons(40000), kLoopback, htons(60752)};
  const TcpRow server{5, kLoopback, htons(40000), kLoopback, htons(60720)};
  // In the table's order, ports as numbers: 40000 before 60720, remote 60720 before 60752.
  EXPECT_EQ((*tcp)[0].row, listener);
  EXPECT_EQ((*tcp)[1].row, server);
  EXPECT_EQ((*tcp)[2].row, closeWait);
  EXPECT_EQ((*tcp)[3].row, client);
  EXPECT_EQ((*tcp)[0].dwProcessId, 0u);
  EXPECT_EQ((*tcp)[1].dwProcessId, 0u);
  EXPECT_EQ((*tcp)[3].dwProcessId, 4242u);

  auto udp = tables.udpTable();
  ASSERT_TRUE(udp.has_value());
  ASSERT_EQ(udp->size(), 2u);
  // The connected socket's port 35395 comes before the bound 40001.
  EXPECT_EQ((*udp)[0].dwLocalPort, htons(35395));
  EXPECT_EQ((*udp)[0].dwProcessId, 0u);
  EXPECT_EQ((*udp)[1].dwLocalAddr, kLoopback);
  EXPECT_EQ((*udp)[1].dwLocalPort, htons(40001));
  EXPECT_EQ((*udp)[1].dwProcessId, 4242u);
}

TEST_F(CapturedProcTree, ASocketSharedAfterAForkBelongsToTheOlderProcess) {
  // A child between fork and exec holds its parent's client socket too; it is scanned first,
  // being the newer, but the socket stays its parent's.
  std::filesystem::create_directories(root_ / "4300/fd");
  std::filesystem::create_symlink("socket:[10557]", root_ / "4300/fd/3");
  LinuxConnectionTables tables(root_.string(), TableSource::kProcNetOnly);
  auto tcp = tables.tcpTable();
  ASSERT_TRUE(tcp.has_value());
  EXPECT_EQ((*tcp)[3].dwProcessId, 4242u);  // the client row
}

TEST_F(CapturedProcTree, MissingSourcesGiveNoTableRatherThanAnEmptyOne) {
  std::filesystem::remove(root_ / "net/tcp");
  std::filesystem::remove(root_ / "net/sockstat");
  LinuxConnectionTables tables(root_.string(), TableSource::kProcNetOnly);
  EXPECT_FALSE(tables.tcpRowCount().has_value());
  EXPECT_FALSE(tables.tcpTable().has_value());
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
