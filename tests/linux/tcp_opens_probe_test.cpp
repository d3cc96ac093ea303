// The count of opened TCP connections: read from captured /proc/net/snmp text, and on the
// real kernel, where it moves at each connect() and at each connection a listener takes in,
// while the row count of sockstat stands still as two listeners close at the same time.

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "linux/loopback.h"
#include "linux/netns.h"
#include "platform/linux/linux_tables.h"
#include "platform/linux/sockstat_probe.h"
#include "platform/linux/tcp_opens_probe.h"

namespace tessmark::platform::linux_backend {
namespace {

// /proc/net/snmp as kernel 6.18 wrote it.
constexpr std::string_view kSnmp =
    "Ip: Forwarding DefaultTTL InReceives InHdrErrors InAddrErrors ForwDatagrams "
    "InUnknownProtos InDiscards InDelivers OutRequests OutDiscards OutNoRoutes ReasmTimeout "
    "ReasmReqds ReasmOKs ReasmFails FragOKs FragFails FragCreates OutTransmits\n"
    "Ip: 2 64 1218 0 0 0 0 0 1218 1005 0 0 0 0 0 0 0 0 0 1005\n"
    "Icmp: InMsgs InErrors InCsumErrors InDestUnreachs InTimeExcds InParmProbs InSrcQuenchs "
    "InRedirects InEchos InEchoReps InTimestamps InTimestampReps InAddrMasks InAddrMaskReps "
    "OutMsgs OutErrors OutRateLimitGlobal OutRateLimitHost OutDestUnreachs OutTimeExcds "
    "OutParmProbs OutSrcQuenchs OutRedirects OutEchos OutEchoReps OutTimestamps "
    "OutTimestampReps OutAddrMasks OutAddrMaskReps\n"
    "Icmp: 1 0 0 1 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n"
    "IcmpMsg: InType3\n"
    "IcmpMsg: 1\n"
    "Tcp: RtoAlgorithm RtoMin RtoMax MaxConn ActiveOpens PassiveOpens AttemptFails "
    "EstabResets CurrEstab InSegs OutSegs RetransSegs InErrs OutRsts InCsumErrors\n"
    "Tcp: 1 200 120000 -1 13 2 0 0 0 1191 979 0 0 2 0\n"
    "Udp: InDatagrams NoPorts InErrors OutDatagrams RcvbufErrors SndbufErrors InCsumErrors "
    "IgnoredMulti MemErrors\n"
    "Udp: 26 0 0 27 0 0 0 0 0\n"
    "UdpLite: InDatagrams NoPorts InErrors OutDatagrams RcvbufErrors SndbufErrors "
    "InCsumErrors IgnoredMulti MemErrors\n"
    "UdpLite: 0 0 0 0 0 0 0 0 0\n";

TEST(TcpOpensText, ReadsBothCountersByTheirNames) {
  auto counts = ParseTcpOpens(kSnmp);
  ASSERT_TRUE(counts.has_value());
  EXPECT_EQ(counts->activeOpens, 13u);
  EXPECT_EQ(counts->passiveOpens, 2u);

  // Fields are found by name, not by place; counters run past 32 bits on a long-lived host.
  auto moved =
      ParseTcpOpens("Tcp: PassiveOpens RtoMin ActiveOpens\nTcp: 7 200 18446744073709551615\n");
  ASSERT_TRUE(moved.has_value());
  EXPECT_EQ(moved->activeOpens, 18446744073709551615u);
  EXPECT_EQ(moved->passiveOpens, 7u);
}

TEST(TcpOpensText, AnythingButTwoWholeTcpLinesGivesNothing) {
  EXPECT_FALSE(ParseTcpOpens("").has_value());
  EXPECT_FALSE(ParseTcpOpens("Udp: InDatagrams\nUdp: 26\n").has_value());
  // The names without their values, as a buffer cut after the first line would leave them.
  EXPECT_FALSE(ParseTcpOpens("Tcp: ActiveOpens PassiveOpens\n").has_value());
  EXPECT_FALSE(ParseTcpOpens("Tcp: ActiveOpens PassiveOpens\nUdp: 1 2\n").has_value());
  EXPECT_FALSE(ParseTcpOpens("Tcp: ActiveOpens\nTcp: 13\n").has_value());
  EXPECT_FALSE(ParseTcpOpens("Tcp: ActiveOpens PassiveOpens\nTcp: 13\n").has_value());
  EXPECT_FALSE(ParseTcpOpens("Tcp: ActiveOpens PassiveOpens\nTcp: 13 x2\n").has_value());
  EXPECT_FALSE(ParseTcpOpens("Tcp: ActiveOpens PassiveOpens\nTcp: -1 2\n").has_value());
  // "TcpExt:" lines of /proc/net/netstat are other counters.
  EXPECT_FALSE(ParseTcpOpens("TcpExt: ActiveOpens PassiveOpens\nTcpExt: 13 2\n").has_value());
}

TEST(TcpOpensText, AMissingFileGivesNothing) {
  EXPECT_FALSE(TcpOpensProbe("/nonexistent-proc").read().has_value());
}

// ---------------------------------------------------------------------------------------

using testing::Connect;
using testing::Fd;
using testing::ListenOn;
using testing::LocalPortOf;
using testing::TcpSocket;

TEST(TcpOpensKernel, EachConnectAndEachTakenConnectionCountsWhileTheRowCountStands) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  Fd server = ListenOn(0);
  Fd spareA = ListenOn(0);
  Fd spareB = ListenOn(0);
  ASSERT_TRUE(server.get() >= 0 && spareA.get() >= 0 && spareB.get() >= 0) << std::strerror(errno);
  Fd client = TcpSocket();
  ASSERT_GE(client.get(), 0);

  SockstatProbe rows;
  TcpOpensProbe opens;
  LinuxConnectionTables tables;
  auto rowsBefore = rows.read();
  auto opensBefore = opens.read();
  auto sumBefore = tables.tcpOpenCount();
  ASSERT_TRUE(rowsBefore && opensBefore && sumBefore);

  // Two listeners go as two connection ends come: the client's and the one the server takes.
  spareA.close();
  spareB.close();
  ASSERT_TRUE(Connect(client, LocalPortOf(server))) << std::strerror(errno);
  Fd taken(::accept4(server.get(), nullptr, nullptr, SOCK_CLOEXEC));
  ASSERT_GE(taken.get(), 0) << std::strerror(errno);

  auto rowsAfter = rows.read();
  auto opensAfter = opens.read();
  auto sumAfter = tables.tcpOpenCount();
  ASSERT_TRUE(rowsAfter && opensAfter && sumAfter);
  EXPECT_EQ(rowsAfter->tcpInUse, rowsBefore->tcpInUse);
  EXPECT_EQ(opensAfter->activeOpens, opensBefore->activeOpens + 1);
  EXPECT_EQ(opensAfter->passiveOpens, opensBefore->passiveOpens + 1);
  EXPECT_EQ(*sumAfter, *sumBefore + 2);

  // Closing opens nothing.
  client.close();
  taken.close();
  EXPECT_EQ(tables.tcpOpenCount(), sumAfter);
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
