// The snapshot side: when a table is read, what its records hold, and what a poll costs.

#include <gtest/gtest.h>

#include "support/sim_engine.h"

namespace tessmark {
namespace {

using platform::sim::MakeTcpRow;
using platform::sim::RawAddress;
using platform::sim::RawPort;

class Snapshot : public ::testing::Test, public testing::SimMonitor {};

TEST_F(Snapshot, FirstPollSeesEveryRowThenAnUnchangedTableReadsNothing) {
  program(42, "/usr/bin/curl");
  tcp(42, 3000);
  tcp(42, 3001);
  EXPECT_EQ(main.GetTCPConnections(-1, 0), -1);
  EXPECT_EQ(LastTableIndex(main.TcpConnections), 1);
  EXPECT_EQ(main.LastTcpCount, 2);

  // Nothing opened or closed: the poll is quiet, two probes and no table.
  sim.calls = {};
  EXPECT_EQ(main.GetTCPConnections(-1, 0), 0);
  EXPECT_EQ(sim.calls.tcpProbes, 1);
  EXPECT_EQ(sim.calls.tcpOpenProbes, 1);
  EXPECT_EQ(sim.calls.tcpTableReads, 0);
  EXPECT_EQ(sim.calls.processListings, 0);
}

TEST_F(Snapshot, RecordsHoldConvertedTextsAndTheUntouchedRow) {
  program(42, "/usr/bin/ssh");
  sim.tcpRows.push_back(MakeTcpRow(5, "192.168.1.20", 40000, "10.1.2.3", 22, 42));
  ASSERT_EQ(main.GetTCPConnections(-1, 0), -1);
  ASSERT_EQ(main.TcpConnections.size(), 2u);
  const ConnectionRecord& r = main.TcpConnections[0];
  EXPECT_EQ(r.State, "ESTAB");
  EXPECT_EQ(r.LocalAddress, "192.168.1.20");
  EXPECT_EQ(r.LocalPort, 40001);  // ports from 33024 up come out one higher
  EXPECT_EQ(r.RemoteAddress, "10.1.2.3");
  EXPECT_EQ(r.RemotePort, 22);
  EXPECT_EQ(r.ProcessId, 42);
  EXPECT_EQ(r.ProcessPath, "/usr/bin/ssh");
  EXPECT_EQ(r.AllRows, -1);
  EXPECT_EQ(r.Row.dwLocalPort, RawPort(40000));  // breaking uses the true port
  EXPECT_EQ(r.Row.dwRemoteAddr, RawAddress("10.1.2.3"));
  EXPECT_EQ(r.Row.dwState, 5u);

  // The surplus record behind the rows stays empty.
  const ConnectionRecord& surplus = main.TcpConnections[1];
  EXPECT_EQ(surplus.ProcessPath, "");
  EXPECT_EQ(surplus.State, "");
  EXPECT_EQ(surplus.LocalPort, 0);
}

TEST_F(Snapshot, AnEmptiedTableKeepsOnlyTheSurplusRecord) {
  EXPECT_EQ(LastTableIndex(main.TcpConnections), -1);  // never filled
  tcp(7, 50000);
  ASSERT_EQ(main.GetTCPConnections(-1, 0), -1);
  sim.tcpRows.clear();
  EXPECT_EQ(main.GetTCPConnections(-1, 0), -1);
  EXPECT_EQ(main.TcpConnections.size(), 1u);
  EXPECT_EQ(LastTableIndex(main.TcpConnections), -1);
}

TEST_F(Snapshot, MoreRowsThanTheProbeBufferReadAsZeroAndOnlyOpensAreSeenThen) {
  for (uint16_t p = 0; p < 3; ++p) tcp(7, 50000 + p);
  ASSERT_EQ(main.GetTCPConnections(-1, 0), -1);
  for (uint16_t p = 3; p < 1002; ++p) tcp(7, 50000 + p);  // 1002 rows
  EXPECT_EQ(main.GetTCPConnections(-1, 0), -1);           // 3 -> 0 is a change
  EXPECT_EQ(main.LastTcpCount, 0);
  EXPECT_EQ(LastTableIndex(main.TcpConnections), 1001);
  // The count stays 0 from now on; a new connection is still seen by the count of opens.
  tcp(7, 60000);
  EXPECT_EQ(main.GetTCPConnections(-1, 0), -1);
  EXPECT_EQ(main.LastTcpCount, 0);
  EXPECT_EQ(LastTableIndex(main.TcpConnections), 1002);
  // A connection that ends opens nothing: blind to it.
  sim.tcpRows.pop_back();
  EXPECT_EQ(main.GetTCPConnections(-1, 0), 0);

  // Exactly 1001 rows still fit.
  sim.tcpRows.resize(1001);
  EXPECT_EQ(main.GetTCPConnections(-1, 0), -1);
  EXPECT_EQ(main.LastTcpCount, 1001);
}

TEST_F(Snapshot, AMachineStartingWithAHugeTableIsSeenAtItsFirstNewConnection) {
  // 40000 rows are above 32767 and above the buffer: the probe reads 0, equal to the start,
  // and the first count of opens is where counting starts.
  sim.tcpRows.assign(40000, MakeTcpRow(2, "0.0.0.0", 8080, "0.0.0.0", 0, 7));
  EXPECT_EQ(main.GetTCPConnections(-1, 0), 0);
  EXPECT_EQ(sim.calls.tcpTableReads, 0);
  sim.tcpRows.push_back(MakeTcpRow(5, "192.168.1.20", 3000, "10.0.0.9", 443, 7));
  EXPECT_EQ(main.GetTCPConnections(-1, 0), -1);
  EXPECT_EQ(LastTableIndex(main.TcpConnections), 40000);
}

TEST_F(Snapshot, AFailedReadLeavesTheTableAndIsNotRetried) {
  tcp(7, 50000);
  ASSERT_EQ(main.GetTCPConnections(-1, 0), -1);
  tcp(7, 50001);
  sim.tcpTableFails = true;
  EXPECT_EQ(main.GetTCPConnections(-1, 0), 0);
  EXPECT_EQ(LastTableIndex(main.TcpConnections), 0);
  sim.tcpTableFails = false;
  // The count was stored before the read failed, so the next poll finds it equal.
  EXPECT_EQ(main.GetTCPConnections(-1, 0), 0);

  sim.udpTableFails = true;
  udp(7, 53);
  EXPECT_EQ(main.GetUDPConnections(-1, 0), 0);
  EXPECT_EQ(LastTableIndex(main.UdpConnections), -1);
}

TEST_F(Snapshot, AForcedReadSkipsTheProbeAndLeavesTheStoredCount) {
  tcp(7, 50000);
  tcp(7, 50001);
  EXPECT_EQ(main.GetTCPConnections(-1, -1), -1);
  EXPECT_EQ(sim.calls.tcpProbes, 0);
  EXPECT_EQ(main.LastTcpCount, 0);
  // So the next poll still sees the change and judges the rows.
  EXPECT_EQ(main.GetTCPConnections(-1, 0), -1);
}

TEST_F(Snapshot, UdpRecordsHaveFixedFieldsAndPathsFromTheLastTcpRebuild) {
  program(42, "/usr/bin/dig");
  tcp(42, 50000);
  ASSERT_EQ(main.GetTCPConnections(-1, 0), -1);
  program(43, "/usr/bin/late");  // started after the last TCP snapshot
  udp(42, 5353);
  udp(43, 40000, "127.0.0.1");
  ASSERT_EQ(main.GetUDPConnections(-1, 0), -1);
  const ConnectionRecord& r = main.UdpConnections[0];
  EXPECT_EQ(r.State, "LISTEN");
  EXPECT_EQ(r.LocalAddress, "0.0.0.0");
  EXPECT_EQ(r.LocalPort, 5353);
  EXPECT_EQ(r.RemoteAddress, "");
  EXPECT_EQ(r.RemotePort, 0);
  EXPECT_EQ(r.Row, MIB_TCPROW{});
  EXPECT_EQ(r.AllRows, 0);
  EXPECT_EQ(r.ProcessPath, "/usr/bin/dig");
  EXPECT_EQ(main.UdpConnections[1].ProcessPath, "");  // unknown until a TCP change
  EXPECT_EQ(main.UdpConnections[1].LocalPort, 40001);
  EXPECT_EQ(sim.calls.processListings, 1);  // only the TCP read rebuilt the process table

  tcp(43, 50001);
  ASSERT_EQ(main.GetTCPConnections(-1, 0), -1);
  udp(43, 40002);
  ASSERT_EQ(main.GetUDPConnections(-1, 0), -1);
  EXPECT_EQ(main.UdpConnections[1].ProcessPath, "/usr/bin/late");
}

TEST_F(Snapshot, TheFilteredModeKeepsOnlyOneRecord) {
  sim.tcpRows.push_back(MakeTcpRow(2, "0.0.0.0", 22, "0.0.0.0", 0, 7));
  sim.tcpRows.push_back(MakeTcpRow(5, "10.0.0.2", 3000, "10.0.0.9", 80, 7));
  sim.tcpRows.push_back(MakeTcpRow(5, "127.0.0.1", 3001, "127.0.0.1", 80, 7));
  sim.tcpRows.push_back(MakeTcpRow(5, "10.0.0.2", 3002, "10.0.0.9", 443, 7));
  EXPECT_EQ(main.GetTCPConnections(0, -1), -1);
  ASSERT_EQ(main.TcpConnections.size(), 1u);
  EXPECT_EQ(main.TcpConnections[0].LocalPort, 3002);  // the last kept row overwrote the first
  EXPECT_EQ(main.TcpConnections[0].AllRows, 0);

  sim.tcpRows.resize(1);  // nothing kept: the array stays unallocated
  EXPECT_EQ(main.GetTCPConnections(0, -1), -1);
  EXPECT_TRUE(main.TcpConnections.empty());
}

TEST_F(Snapshot, AHandlerRunDuringTheWalkSeesTheOldTableWhole) {
  tcp(7, 50000);
  ASSERT_EQ(main.GetTCPConnections(-1, 0), -1);
  tcp(7, 50001);
  tcp(7, 50002);
  int32_t seen = -2;
  mailbox.post([&] { seen = LastTableIndex(main.TcpConnections); });
  ASSERT_EQ(main.GetTCPConnections(-1, 0), -1);
  EXPECT_EQ(seen, 0);
  EXPECT_EQ(LastTableIndex(main.TcpConnections), 2);
}

}  // namespace
}  // namespace tessmark
