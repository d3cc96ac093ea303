// A new TCP connection is judged even when the table's row count does not move: a program
// that closes one socket as it opens a connection keeps the count steady, and the poll must
// still read the table because the system's count of opened connections went up.

#include <gtest/gtest.h>

#include <filesystem>

#include "base/booleans.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

using platform::sim::MakeTcpRow;
using platform::sim::RawPort;

class SteadyCount : public ::testing::Test, public testing::SimMonitor {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(rules.folders.AppDataDir);
    monitor.FirewallActive = kTrue;
    appPath = sim.writeProgramFile("app", "refused program");
    chatPath = sim.writeProgramFile("chat", "allowed program");
    program(42, appPath);
    program(43, chatPath);
  }
  void rule(const std::string& path, const std::string& access) {
    monitor.ListView1.Add("", path);
    RuleRow& row = monitor.ListView1.Item(monitor.ListView1.Count());
    row.SubItems[1] = "";  // no number: compares as equal, so the file is not asked about
    row.SubItems[2] = access;
    row.SubItems[3] = std::to_string(monitor.ListView1.Count());
  }
  int deletedOnPort(uint16_t localPort) {
    int n = 0;
    for (const auto& row : sim.deletedRows) n += row.dwLocalPort == RawPort(localPort);
    return n;
  }
  std::string appPath, chatPath;
};

TEST_F(SteadyCount, AConnectionOpenedAsAnotherClosedIsJudgedAtTheNextPoll) {
  rule(appPath, "deny");
  rule(chatPath, "allow");
  tcp(43, 3000);
  tcp(43, 3001);
  monitor.firewall();
  ASSERT_TRUE(sim.deletedRows.empty());

  // The allowed program ends one connection while the refused one opens its own: two rows.
  sim.tcpRows.erase(sim.tcpRows.begin());
  tcp(42, 3002);
  monitor.firewall();
  EXPECT_EQ(deletedOnPort(3002), 1);
  EXPECT_EQ(sim.deletedRows.size(), 1u);
  EXPECT_EQ(monitor.TcpBlocked, 1);
}

TEST_F(SteadyCount, AConnectionThatOnlyChangesStateIsNoNewConnection) {
  tcp(43, 3000, 80, /*state=*/3);  // SYN_SENT
  ASSERT_EQ(main.GetTCPConnections(kTrue, kFalse), kTrue);
  sim.tcpRows[0].row.dwState = 5;  // the same connection, now established
  sim.calls = {};
  EXPECT_EQ(main.GetTCPConnections(kTrue, kFalse), kFalse);
  EXPECT_EQ(sim.calls.tcpTableReads, 0);
  EXPECT_EQ(main.TcpConnections[0].State, "SYN_SENT");
}

TEST_F(SteadyCount, WithoutTheSystemsCountOfOpensTheRowCountAloneDecides) {
  sim.tcpOpenCountUnknown = true;
  tcp(43, 3000);
  ASSERT_EQ(main.GetTCPConnections(kTrue, kFalse), kTrue);
  sim.tcpRows[0] = MakeTcpRow(5, "192.168.1.20", 3001, "10.0.0.9", 443, 42);
  EXPECT_EQ(main.GetTCPConnections(kTrue, kFalse), kFalse);

  // Once the count of opens can be read again, what opened meanwhile is seen.
  sim.tcpOpenCountUnknown = false;
  sim.tcpRows[0] = MakeTcpRow(5, "192.168.1.20", 3002, "10.0.0.9", 443, 42);
  ASSERT_EQ(main.GetTCPConnections(kTrue, kFalse), kFalse);  // the first count is the baseline
  sim.tcpRows[0] = MakeTcpRow(5, "192.168.1.20", 3003, "10.0.0.9", 443, 42);
  sim.tcpOpenCountUnknown = true;
  EXPECT_EQ(main.GetTCPConnections(kTrue, kFalse), kFalse);
  sim.tcpOpenCountUnknown = false;
  EXPECT_EQ(main.GetTCPConnections(kTrue, kFalse), kTrue);
  EXPECT_EQ(main.TcpConnections[0].LocalPort, 3003);
}

TEST_F(SteadyCount, AForcedReadLeavesTheStoredCountOfOpens) {
  tcp(43, 3000);
  ASSERT_EQ(main.GetTCPConnections(kTrue, kFalse), kTrue);
  sim.tcpRows[0] = MakeTcpRow(5, "192.168.1.20", 3001, "10.0.0.9", 443, 42);
  EXPECT_EQ(main.GetTCPConnections(kTrue, kTrue), kTrue);
  // The connection list's read is no poll: the next poll still sees the open and judges it.
  EXPECT_EQ(main.GetTCPConnections(kTrue, kFalse), kTrue);
  EXPECT_EQ(main.GetTCPConnections(kTrue, kFalse), kFalse);
}

}  // namespace
}  // namespace tessmark
