// The decision passes as whole roads on the simulated machine: from the poll that sees a
// change to the rows broken, the programs frozen, asked, resumed or killed, the rules made,
// the notices shown and the log written.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "base/booleans.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

namespace fs = std::filesystem;
using platform::sim::RawPort;

// CRC-32 bit by bit, independent of the firewall's tables.
int32_t referenceCrc(const std::string& bytes) {
  uint32_t reg = 0xFFFFFFFFu;
  for (unsigned char byte : bytes) {
    reg ^= byte;
    for (int bit = 0; bit < 8; ++bit) reg = (reg >> 1) ^ (0xEDB88320u & (0u - (reg & 1u)));
  }
  return static_cast<int32_t>(~reg);
}

std::string sealedList(const std::string& body) {
  auto crc = static_cast<uint32_t>(referenceCrc(body));
  std::string trailer;
  for (int i = 0; i < 4; ++i) trailer.push_back(static_cast<char>((crc >> (8 * i)) & 0xFF));
  return body + trailer;
}

class Decisions : public ::testing::Test, public testing::SimMonitor {
 protected:
  void SetUp() override {
    fs::create_directories(rules.folders.AppDataDir);
    monitor.FirewallActive = kTrue;
    monitor.Check2 = 1;
    monitor.Check3 = 1;
    appPath = sim.writeProgramFile("app", kAppBytes);
    chatPath = sim.writeProgramFile("chat", "chat program");
    program(42, appPath, 2);
    program(43, chatPath);
  }
  // A list of known programs with these entries, loaded as at start.
  void knownPrograms(const std::string& lines) {
    std::ofstream(rules.folders.KnownProgramsPath(), std::ios::binary)
        << sealedList(lines + "END\r\n");
    rules.knownPrograms.LoadKnownPrograms(rules.folders.KnownProgramsPath());
  }
  void rule(const std::string& path, const std::string& crc, const std::string& access) {
    monitor.ListView1.Add("", path);
    RuleRow& row = monitor.ListView1.Item(monitor.ListView1.Count());
    row.SubItems[1] = crc;
    row.SubItems[2] = access;
    row.SubItems[3] = std::to_string(monitor.ListView1.Count());
  }
  std::vector<std::string> ruleCells(int16_t index) {
    const RuleRow& row = monitor.ListView1.Item(index);
    return {row.Text, row.SubItems[1], row.SubItems[2], row.SubItems[3]};
  }
  std::string read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
  }
  std::string logFile() { return rules.folders.AppDataDir + "/Logs/15.11.2026.txt"; }
  // The log's lines, without the header and the empty lines.
  std::vector<std::string> logLines() {
    monitor.Log.FlushLogBuffer();
    std::vector<std::string> lines;
    std::istringstream in(read(logFile()));
    for (std::string line; std::getline(in, line);) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (!line.empty() && line[0] == '|') lines.push_back(line);
    }
    return lines;
  }
  int deletedOnPort(uint16_t localPort) {
    int n = 0;
    for (const auto& row : sim.deletedRows) n += row.dwLocalPort == RawPort(localPort);
    return n;
  }

  static constexpr const char* kAppBytes = "123456789";
  static constexpr int32_t kAppCrc = -873187034;  // CBF43926, held signed
  std::string appPath, chatPath;
};

TEST_F(Decisions, ANewProgramIsFrozenAskedAndAllowedForGood) {
  tcp(42, 3000, 443, 5, "93.184.216.34");
  monitor.firewall();

  // Frozen, with a rule that asks and the file's checksum.
  EXPECT_EQ(sim.suspensionDepth(42), 1);
  EXPECT_EQ(ruleCells(1), (std::vector<std::string>{appPath, std::to_string(kAppCrc), "ask", "1"}));
  ASSERT_EQ(ui.alertsShown.size(), 1u);
  const AlertView& view = ui.alertsShown[0].view;
  EXPECT_EQ(ui.alertsShown[0].slot, 1);
  EXPECT_EQ(view.Label1, "New program");
  EXPECT_EQ(view.lblProgram, "app");
  EXPECT_EQ(view.lblDESC, appPath +
                              " is trying to connect to 93.184.216.34 using port 3000 . Do you "
                              "want to allow this program to access the network?");
  EXPECT_EQ(view.raddr, "93.184.216.34");
  EXPECT_EQ(view.rport, "443");
  EXPECT_EQ(view.Label2, "192.168.1.20");
  EXPECT_EQ(view.localport, "3000");
  EXPECT_EQ(main.AlertCount, 1);
  EXPECT_TRUE(sim.deletedRows.empty());
  EXPECT_EQ(ui.blabel.back(), "0");

  // "Yes" with Remember, posted by the dialog and run at the engine's next pump.
  mailbox.post([this] {
    frmAlert& alert = monitor.AlertForm(1);
    alert.chkRemember = 1;
    alert.Command1_Click();
  });
  mailbox.pumpOnce();
  EXPECT_FALSE(sim.isFrozen(42));
  EXPECT_EQ(ruleCells(1),
            (std::vector<std::string>{appPath, std::to_string(kAppCrc), "allow", "1"}));
  EXPECT_EQ(read(rules.folders.RuleFilePath()),
            "\t" + appPath + "\t" + std::to_string(kAppCrc) + "\tallow\t1\r\n");
  EXPECT_EQ(rules.secureConfig.GetConfig(), rules.secureConfig.ComputeConfigCheck());
  EXPECT_TRUE(ui.openAlerts.empty());
  EXPECT_EQ(main.AlertCount, 1);  // answered, but not swept yet

  // The next change of the table sweeps the answered alert away; the program stands allowed.
  tcp(42, 3001);
  monitor.firewall();
  EXPECT_EQ(main.AlertCount, 0);
  EXPECT_FALSE(sim.isFrozen(42));
  EXPECT_EQ(ui.alertsShown.size(), 1u);
}

TEST_F(Decisions, TwoRowsOfANewProgramInOneWalkShareOneAlert) {
  tcp(42, 3000);
  tcp(42, 3001);
  monitor.firewall();
  EXPECT_EQ(ui.alertsShown.size(), 1u);
  EXPECT_EQ(monitor.ListView1.Count(), 1);
  EXPECT_EQ(main.AlertCount, 2);
  EXPECT_EQ(monitor.AlertForm(1).AlertIdCount, 2);
  EXPECT_EQ(monitor.AlertForm(2).GetAlertPath(), "");  // the second id's own slot stays empty
  EXPECT_EQ(sim.suspensionDepth(42), 2);
}

TEST_F(Decisions, NoBreaksEveryHeldConnectionAndResumesAsOftenAsFrozen) {
  tcp(42, 3000);
  tcp(42, 3001);
  monitor.firewall();
  ASSERT_EQ(sim.suspensionDepth(42), 2);
  frmAlert& alert = monitor.AlertForm(1);
  alert.chkRemember = 1;
  alert.command2_Click();
  EXPECT_EQ(deletedOnPort(3000), 1);
  EXPECT_EQ(deletedOnPort(3001), 1);
  EXPECT_FALSE(sim.isFrozen(42));
  EXPECT_EQ(monitor.ListView1.Item(1).SubItems[2], "deny");
  EXPECT_EQ(alert.GetAlertPath(), "");
  // A refusal is not logged, and the program runs on.
  EXPECT_FALSE(fs::exists(logFile()));
  EXPECT_TRUE(sim.killedPids.empty());
}

TEST_F(Decisions, YesWithoutRememberKeepsAskingAtTheNextChange) {
  tcp(42, 3000);
  monitor.firewall();
  monitor.AlertForm(1).Command1_Click();
  EXPECT_EQ(monitor.ListView1.Item(1).SubItems[2], "ask");
  tcp(42, 3001);
  monitor.firewall();
  // Both rows of the "ask" program are held again, by a Repeat alert.
  ASSERT_EQ(ui.alertsShown.size(), 2u);
  EXPECT_EQ(ui.alertsShown[1].view.Label1, "Repeat program");
  EXPECT_EQ(sim.suspensionDepth(42), 2);
}

TEST_F(Decisions, AChangedFileUnderDenyIsAskedFirstAndBrokenLater) {
  rule(appPath, "12345", "deny");
  tcp(42, 3000);
  monitor.firewall();
  ASSERT_EQ(ui.alertsShown.size(), 1u);
  EXPECT_EQ(ui.alertsShown[0].view.Label1, "Changed program");
  EXPECT_TRUE(sim.deletedRows.empty());
  EXPECT_EQ(monitor.ListView1.Item(1).SubItems[1], "12345");  // the rule waits for the answer

  // Unanswered, the program is seen at the next walk: now its rule breaks its rows, the
  // held one included.
  tcp(42, 3001);
  monitor.firewall();
  EXPECT_EQ(deletedOnPort(3000), 1);
  EXPECT_EQ(deletedOnPort(3001), 1);
  EXPECT_EQ(monitor.TcpBlocked, 2);
  std::vector<std::string> lines = logLines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "|" + appPath + "|42|12:00:01|192.168.1.20|93.184.216.34|3001|80|ESTAB|n");

  // The answer takes the new checksum, and without Remember leaves "deny".
  monitor.AlertForm(1).Command1_Click();
  EXPECT_EQ(ruleCells(1),
            (std::vector<std::string>{appPath, std::to_string(kAppCrc), "deny", "1"}));
}

TEST_F(Decisions, TheChecksumComparesAsANumber) {
  rule(appPath, " " + std::to_string(kAppCrc) + ".0", "allow");
  rule(chatPath, "", "allow");                            // no number: counts as matching
  std::string empty = sim.writeProgramFile("empty", "");  // the checksum of nothing is 0
  program(44, empty);
  rule(empty, "-0", "allow");
  tcp(42, 3000);
  tcp(43, 3001);
  tcp(44, 3002);
  monitor.firewall();
  EXPECT_TRUE(ui.alertsShown.empty());
  EXPECT_FALSE(sim.isFrozen(42));
}

TEST_F(Decisions, KnownProgramsAreAllowedDeniedOrKilledWithoutAQuestion) {
  std::string dialer = sim.writeProgramFile("dialer", "unwanted dialer");
  std::string worm = sim.writeProgramFile("worm", "destructive worm");
  program(44, dialer);
  program(45, worm);
  knownPrograms(std::to_string(kAppCrc) + "|1|App\r\n" +
                std::to_string(referenceCrc("unwanted dialer")) + "|2|Dialer\r\n" +
                std::to_string(referenceCrc("destructive worm")) + "|3|Worm.Example\r\n");
  rules.closePorts.Check4[12].Value = 1;  // port 80 closed
  rules.closePorts.RefreshClosedPorts();
  tcp(42, 80);    // verdict 1: the closed-port check still runs
  tcp(44, 3001);  // verdict 2
  tcp(45, 80);    // verdict 3: no closed-port check
  monitor.firewall();

  EXPECT_EQ(monitor.ListView1.Count(), 3);
  EXPECT_EQ(monitor.ListView1.Item(1).SubItems[2], "deny");  // the worm, walked first
  EXPECT_EQ(monitor.ListView1.Item(2).SubItems[2], "deny");
  EXPECT_EQ(monitor.ListView1.Item(3).SubItems[2], "allow");
  EXPECT_EQ(sim.killedPids, (std::vector<int32_t>{45}));
  EXPECT_EQ(deletedOnPort(3001), 1);
  EXPECT_EQ(deletedOnPort(80), 1);  // the allowed program's row on the closed port
  EXPECT_EQ(monitor.TcpBlocked, 2);
  EXPECT_TRUE(ui.alertsShown.empty());

  ASSERT_EQ(ui.rulesCreated.size(), 2u);  // for the dialer and the app, not for the worm
  EXPECT_EQ(ui.rulesCreated[0].Label1, "Application Rules created");
  EXPECT_EQ(ui.rulesCreated[0].Label2, "dialer");
  ASSERT_EQ(ui.virusNotices.size(), 1u);
  const VirusView& virus = ui.virusNotices[0];
  EXPECT_EQ(virus.caption, "Destructive program detected!");
  EXPECT_EQ(virus.txtInfo, "Program: " + worm +
                               "\r\nChecksum: " + std::to_string(referenceCrc("destructive worm")) +
                               "\r\nDescription: Worm.Example");
  std::vector<std::string> lines = logLines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("|3001|80|ESTAB|n"), std::string::npos);
  EXPECT_NE(lines[1].find("|80|80|ESTAB|n"), std::string::npos);
}

TEST_F(Decisions, ADestructiveChecksumOverridesAnExistingRuleAtFirstSight) {
  knownPrograms(std::to_string(kAppCrc) + "|3|Now destructive\r\n");
  rule(appPath, std::to_string(kAppCrc), "allow");
  tcp(42, 3000);
  monitor.firewall();
  EXPECT_EQ(sim.killedPids, (std::vector<int32_t>{42}));
  EXPECT_EQ(monitor.ListView1.Item(1).SubItems[2], "deny");
  EXPECT_EQ(ui.virusNotices.size(), 1u);
}

TEST_F(Decisions, TheLockBreaksEveryRowAndAsksNothing) {
  main.InternetLocked = kTrue;
  tcp(42, 3000);
  tcp(43, 3001);
  udp(42, 5353);
  monitor.firewall();
  EXPECT_EQ(sim.deletedRows.size(), 2u);
  EXPECT_TRUE(ui.alertsShown.empty());
  EXPECT_EQ(monitor.ListView1.Count(), 0);
  EXPECT_FALSE(sim.isFrozen(42));
  EXPECT_EQ(ui.blabel.back(), ui.ilabel.back());
  EXPECT_EQ(logLines().size(), 2u);
}

TEST_F(Decisions, AClosedPortIsBrokenWithItsNoticeAndRating) {
  rule(appPath, std::to_string(kAppCrc), "allow");
  rules.closePorts.Check4[0].Value = 1;  // 139 NetBIOS, rated high
  rules.closePorts.RefreshClosedPorts();
  tcp(42, 139, 3000, 5, "10.0.0.2");
  monitor.firewall();
  EXPECT_EQ(deletedOnPort(139), 1);
  EXPECT_EQ(monitor.TcpBlocked, 1);
  ASSERT_EQ(ui.closedPortNotices.size(), 1u);
  const ClosedPortView& notice = ui.closedPortNotices[0];
  EXPECT_EQ(notice.Label2, "Tessmark Personal Firewall closed port 139 for safety reasons.");
  EXPECT_EQ(notice.Label3, "Service NetBIOS");
  EXPECT_EQ(notice.Label5, "Program: " + appPath);
  EXPECT_EQ(notice.Label7, "10.0.0.2");
  ASSERT_EQ(logLines().size(), 1u);
  EXPECT_EQ(logLines()[0].substr(logLines()[0].size() - 2), "|h");
  EXPECT_EQ(monitor.Log.BlockedHigh, 1);

  // "Don't show this Dialog again.": the notice is off from now on, stored and sealed.
  monitor.ClosedPortNotice.Check1 = 1;
  monitor.ClosedPortNotice.Command1_Click();
  EXPECT_EQ(monitor.Check2, 0);
  EXPECT_EQ(sim.readSetting(AppTitle, "Options", "AlertDialogs"), "hide");
  EXPECT_EQ(rules.secureConfig.GetConfig(), rules.secureConfig.ComputeConfigCheck());
  tcp(42, 139, 3001, 5, "10.0.0.3");
  monitor.firewall();
  EXPECT_EQ(deletedOnPort(139), 2);
  EXPECT_EQ(ui.closedPortNotices.size(), 1u);  // broken and logged, silently
  EXPECT_EQ(logLines().size(), 2u);
}

TEST_F(Decisions, ARowWithoutOwnerIsOnlyCheckedForClosedPorts) {
  rules.closePorts.Check4[12].Value = 1;  // 80
  rules.closePorts.RefreshClosedPorts();
  tcp(0, 80);
  tcp(0, 3000);
  monitor.firewall();
  EXPECT_TRUE(ui.alertsShown.empty());
  EXPECT_EQ(monitor.ListView1.Count(), 0);
  EXPECT_EQ(deletedOnPort(80), 1);
  EXPECT_EQ(deletedOnPort(3000), 0);
  std::vector<std::string> lines = logLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("|-|0|", 0), 0u);
}

TEST_F(Decisions, ABreakLowersTheStoredCountSoTheNextPollIsQuiet) {
  rule(appPath, std::to_string(kAppCrc), "deny");
  tcp(42, 3000);
  monitor.firewall();
  EXPECT_EQ(main.LastTcpCount, 0);
  sim.calls = {};
  monitor.firewall();
  EXPECT_EQ(sim.calls.tcpTableReads, 0);

  // A row that does not go away at once is judged and broken again, with a second line.
  sim.deletedRowsLinger = true;
  tcp(42, 3001);
  monitor.firewall();
  monitor.firewall();
  EXPECT_EQ(deletedOnPort(3001), 2);
  EXPECT_EQ(logLines().size(), 3u);

  // A refused delete is neither counted nor logged, and the count stays.
  sim.deleteError = 5;
  tcp(42, 3002);
  monitor.firewall();
  EXPECT_EQ(monitor.TcpBlocked, 0);
  EXPECT_EQ(logLines().size(), 3u);
}

TEST_F(Decisions, UdpDenyCountsEveryEndpointThoughNoneCanBeBroken) {
  rule(appPath, std::to_string(kAppCrc), "deny");
  main.GetTCPConnections(kTrue, kTrue);  // the process table, as a TCP change builds it
  udp(42, 5353);
  udp(42, 5354);
  monitor.firewall();
  EXPECT_EQ(monitor.UdpBlocked, 2);
  EXPECT_EQ(ui.blabel.back(), "2");
  EXPECT_TRUE(sim.deletedRows.empty());
  EXPECT_FALSE(fs::exists(logFile()));
}

TEST_F(Decisions, AUdpQuestionNamesNoPeer) {
  main.GetTCPConnections(kTrue, kTrue);
  udp(43, 5353);
  monitor.firewall();
  ASSERT_EQ(ui.alertsShown.size(), 1u);
  const AlertView& view = ui.alertsShown[0].view;
  EXPECT_EQ(view.lblDESC, chatPath +
                              " is trying to connect to [Unknown] using port 5353 . Do you want "
                              "to allow this program to access the network?");
  EXPECT_EQ(view.raddr, "[Unknown]");
  EXPECT_EQ(view.rport, "0");
}

TEST_F(Decisions, AUdpEndpointOfAProgramStartedAfterTheTcpSnapshotWaits) {
  udp(43, 5353);  // no TCP snapshot has named pid 43 yet
  monitor.firewall();
  EXPECT_TRUE(ui.alertsShown.empty());
  EXPECT_EQ(monitor.ListView1.Count(), 0);
}

TEST_F(Decisions, AProgramSeenOnTcpIsCheckedAgainOnUdpAndJoinsItsOpenAlert) {
  tcp(42, 3000);
  udp(42, 5353);
  monitor.firewall();
  EXPECT_EQ(ui.alertsShown.size(), 1u);
  EXPECT_EQ(monitor.AlertForm(1).AlertIdCount, 2);
  EXPECT_EQ(sim.suspensionDepth(42), 2);
}

TEST_F(Decisions, AFullAlertTableFreezesNothingMoreAndStillEnds) {
  // 32766 ids held by an answered alert: room for one more.
  main.AlertCount = 32766;
  main.AlertRows.resize(32767);
  main.AlertPids.resize(32767);
  tcp(42, 3000);
  tcp(42, 3001);
  monitor.firewall();
  EXPECT_EQ(main.AlertCount, 32767);
  EXPECT_EQ(sim.suspensionDepth(42), 1);  // the second row found the table full
  ASSERT_EQ(ui.alertsShown.size(), 1u);
  EXPECT_EQ(ui.alertsShown[0].slot, 32767);

  tcp(43, 3002);
  monitor.firewall();  // a sweep over the whole table, with the alert open
  EXPECT_EQ(main.AlertCount, 32767);
  EXPECT_FALSE(sim.isFrozen(43));
  monitor.UnloadAllAlerts();
  EXPECT_FALSE(sim.isFrozen(42));
}

TEST_F(Decisions, TheListShowsOneRowPerProgramOrPerConnection) {
  tcp(42, 3000, 80, 5, "10.0.0.1");
  tcp(42, 3001, 80, 2, "0.0.0.0");
  tcp(42, 3002, 80, 5, "10.0.0.3");
  udp(42, 5353);
  udp(42, 5354);
  tcp(0, 3009);  // no owner: not listed
  monitor.NewtcpCon(kTrue, kFalse);
  monitor.NewUdpCon(kTrue, kFalse);
  ASSERT_EQ(ui.connectionList.size(), 1u);
  const ConnectionListRow& row = ui.connectionList[0];
  EXPECT_EQ(row.Text, appPath);
  EXPECT_EQ(row.SubItems[6], "Tcp | Udp");
  EXPECT_EQ(row.SubItems[7], "5");
  // The last UDP record walked (from the last index down) shows.
  EXPECT_EQ(row.SubItems[1], "0.0.0.0");
  EXPECT_EQ(row.SubItems[2], "0.0.0.0");
  EXPECT_EQ(row.SubItems[3], "5353");
  EXPECT_EQ(row.SubItems[5], "LISTEN");

  monitor.NewtcpCon(kTrue, kTrue);
  monitor.NewUdpCon(kTrue, kTrue);
  ASSERT_EQ(ui.connectionList.size(), 5u);
  EXPECT_EQ(ui.connectionList[0].SubItems[6], "tcp");
  EXPECT_EQ(ui.connectionList[4].SubItems[6], "Udp");
  // A display pass judges nothing.
  EXPECT_TRUE(ui.alertsShown.empty());
}

TEST_F(Decisions, UnderTheLockTheListStandsAndEachTickBreaks) {
  tcp(42, 3000);
  monitor.NewtcpCon(kTrue, kFalse);
  int updates = ui.connectionListUpdates;
  main.InternetLocked = kTrue;
  monitor.NewtcpCon(kTrue, kFalse);
  EXPECT_EQ(ui.connectionListUpdates, updates);
  EXPECT_EQ(deletedOnPort(3000), 1);
}

}  // namespace
}  // namespace tessmark
