// The kernel's text as the Linux tables read it: /proc/net/tcp and sockstat's row counts, as a
// kernel 6.x wrote them in a private network namespace holding a listener on 127.0.0.1:40000,
// an established pair to it, a pair closed by both ends (TIME_WAIT), a client that half-closed
// and then closed (a TIME_WAIT socket that reports FIN_WAIT2) with its server end in
// CLOSE_WAIT, and two UDP sockets; and snmp's counts of opened connections. Text only: these
// tests need no namespace.

#include <arpa/inet.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "platform/linux/linux_tables.h"

namespace tessmark::platform::linux_backend {
namespace {

namespace fs = std::filesystem;

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

TEST(ProcNetText, CountersAreReadByTheirNamesFromTheirOwnLines) {
  // UDPLITE must not stand in for a missing UDP line.
  EXPECT_FALSE(ParseSockstat("TCP: inuse 4 orphan 0 tw 2 alloc 5 mem 0\nUDPLITE: inuse 0\n"));
  EXPECT_FALSE(ParseSockstat("TCP: inuse x\nUDP: inuse 2 mem 0\n"));
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
  std::ofstream(root.path / "net/tcp") << tcpText;
  std::ofstream(root.path / "net/sockstat") << kSockstatText;
  fs::create_symlink("socket:[10557]", root.path / "4242/fd/3");
  fs::create_symlink("/dev/null", root.path / "4242/fd/4");

  LinuxConnectionTables tables(root.path.string(), TableSource::kProcNetOnly);
  EXPECT_EQ(tables.tcpRowCount(), 4u);  // "TCP: inuse 4" of the same moment
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

}  // namespace
}  // namespace tessmark::platform::linux_backend
