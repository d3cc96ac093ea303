// The monitor on the simulated machine, as whole roads: from the poll that sees a change to
// the rows broken, the programs frozen, asked, resumed or killed, the rules, notices and log
// written; the labels, the alert table's sweep, the loop, and when a poll reads a table.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "base/booleans.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

using Cells = std::vector<std::string>;

// The program files hold well-known CRC-32 check strings; their checksums, held signed:
constexpr int32_t kAppCrc = -873187034;    // "123456789": CBF43926
constexpr int32_t kChatCrc = -390611389;   // "a": E8B7BE43
constexpr int32_t kDialerCrc = 891568578;  // "abc": 352441C2
constexpr int32_t kWormCrc = 1095738169;   // "The quick brown fox jumps over the lazy dog"
const std::string kApp = std::to_string(kAppCrc);

class Monitor : public ::testing::Test, public testing::SimMonitor {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(rules.folders.AppDataDir);
    monitor.FirewallActive = kTrue;
    monitor.Check2 = 1;  // closed-port notices shown
    monitor.Check3 = 1;  // breaks logged
    program(42, appPath, 2);
    program(43, chatPath);
  }
  void rule(const std::string& path, const std::string& crc, const std::string& access) {
    monitor.ListView1.Add("", path);
    int16_t n = monitor.ListView1.Count();
    monitor.ListView1.Item(n).SubItems = {"", crc, access, std::to_string(n)};
  }
  Cells ruleCells(int16_t index) {
    const RuleRow& row = monitor.ListView1.Item(index);
    return {row.Text, row.SubItems[1], row.SubItems[2], row.SubItems[3]};
  }
  Cells logLines() {
    monitor.Log.FlushLogBuffer();
    std::ifstream in(rules.folders.AppDataDir + "/Logs/15.11.2026.txt");
    Cells lines;
    for (std::string line; std::getline(in, line);)
      if (line.starts_with("|")) lines.push_back(line.substr(0, line.find('\r')));
    return lines;
  }
  std::string ruleFile() {
    std::ifstream in(rules.folders.RuleFilePath(), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  int deletedOnPort(uint16_t port) {
    return int(std::ranges::count(sim.deletedRows, platform::sim::RawPort(port),
                                  &platform::TcpRow::dwLocalPort));
  }
  int16_t poll() { return main.GetTCPConnections(kTrue, kFalse); }
  std::string appPath = sim.writeProgramFile("app", "123456789");
  std::string chatPath = sim.writeProgramFile("chat", "a");
};

TEST_F(Monitor, ANewProgramIsFrozenAskedAskedAgainAndRefusedWithEveryHoldLetGo) {
  tcp(42, 3000);
  udp(42, 5353);
  tcp(42, 40000, 443);
  monitor.firewall();

  // One alert, for the row walked first (TCP walks from the last); ports from 33024 up show +1.
  ASSERT_EQ(ui.alertsShown.size(), 1u);
  const AlertView view = ui.alertsShown[0].view;
  EXPECT_EQ(view.Label1, "New program");
  EXPECT_EQ(view.lblDESC, appPath +
                              " is trying to connect to 93.184.216.34 using port 40001 . Do you "
                              "want to allow this program to access the network?");
  EXPECT_EQ(std::tie(view.raddr, view.rport, view.Label2, view.localport),
            std::tuple("93.184.216.34", "443", "192.168.1.20", "40001"));
  EXPECT_EQ(ruleCells(1), (Cells{appPath, kApp, "ask", "1"}));
  // The other row and the endpoint, checked again on its side, join it with a freeze each.
  EXPECT_EQ(sim.suspensionDepth(42), 3);
  EXPECT_TRUE(sim.deletedRows.empty());

  // "Yes" without Remember, posted by the dialog and run at the engine's next pump.
  mailbox.post([this] { monitor.AlertForm(1).Command1_Click(); });
  mailbox.pumpOnce();
  EXPECT_EQ(sim.suspensionDepth(42), 0);
  EXPECT_EQ(ruleFile(), "\t" + appPath + "\t" + kApp + "\task\t1\r\n");  // stored, still asking
  EXPECT_TRUE(ui.openAlerts.empty());

  // The rule still asks: at the next change every TCP row is held again.
  tcp(42, 3002);
  monitor.firewall();
  ASSERT_EQ(ui.alertsShown.size(), 2u);
  EXPECT_EQ(ui.alertsShown[1].view.Label1, "Repeat program");
  EXPECT_EQ(sim.suspensionDepth(42), 3);

  // "No" with Remember breaks every held row, refuses for good and logs nothing: one resume each.
  frmAlert& alert = monitor.AlertForm(ui.alertsShown[1].slot);
  alert.chkRemember = 1;
  alert.command2_Click();
  for (uint16_t port : {3000, 40000, 3002}) EXPECT_EQ(deletedOnPort(port), 1) << port;
  EXPECT_EQ(sim.suspensionDepth(42), 0);
  EXPECT_EQ(sim.resumedThreadLog.size(), sim.suspendedThreadLog.size());
  EXPECT_EQ(alert.GetAlertPath(), "");
  EXPECT_EQ(ruleFile(), "\t" + appPath + "\t" + kApp + "\tdeny\t1\r\n");
  EXPECT_EQ(rules.secureConfig.GetConfig(), rules.secureConfig.ComputeConfigCheck());
  EXPECT_TRUE(logLines().empty());
}

TEST_F(Monitor, ADenyRuleBreaksAndLogsEachNewRowOnceItsChangedFileWasAskedAbout) {
  rule(appPath, "12345", "deny");
  rule(chatPath, "", "allow");  // no number: counts as matching
  tcp(43, 4000);
  tcp(42, 3000);
  monitor.firewall();
  // A changed file is asked about whatever its rule says, which waits for the answer.
  ASSERT_EQ(ui.alertsShown.size(), 1u);
  EXPECT_EQ(ui.alertsShown[0].view.Label1, "Changed program");
  EXPECT_TRUE(sim.deletedRows.empty());
  EXPECT_EQ(ruleCells(1)[1], "12345");

  // At the next walk its rows are broken and logged, the held one too; the poll after is quiet.
  tcp(42, 3001);
  monitor.firewall();
  const std::string line = "|" + appPath + "|42|12:00:01|192.168.1.20|93.184.216.34|";
  EXPECT_EQ(logLines(), (Cells{line + "3001|80|ESTAB|n", line + "3000|80|ESTAB|n"}));
  sim.calls = {};
  monitor.firewall();
  EXPECT_EQ(sim.calls.tcpTableReads, 0);

  // The answer takes the new checksum, and without Remember leaves "deny".
  monitor.AlertForm(1).Command1_Click();
  EXPECT_EQ(ruleCells(1), (Cells{appPath, kApp, "deny", "1"}));
  EXPECT_FALSE(sim.isFrozen(42));

  // The allowed program's row goes as the refused one opens one: the count of opens tells.
  sim.tcpRows.clear();
  tcp(42, 3002);
  monitor.firewall();
  EXPECT_EQ(deletedOnPort(3002), 1);

  // A row that does not go away at once is broken and logged again at the next poll.
  sim.deletedRowsLinger = true;
  tcp(42, 3003);
  monitor.firewall();
  monitor.firewall();
  EXPECT_EQ(deletedOnPort(3003), 2);
  EXPECT_EQ(logLines().size(), 5u);

  // A refused delete is neither counted nor logged.
  sim.deleteError = 5;
  tcp(42, 3004);
  monitor.firewall();
  EXPECT_EQ(monitor.TcpBlocked, 0);
  EXPECT_EQ(logLines().size(), 5u);
}

TEST_F(Monitor, KnownProgramsAreAllowedDeniedOrKilledWithoutAQuestion) {
  std::string dialer = sim.writeProgramFile("dialer", "abc");
  std::string worm = sim.writeProgramFile("worm", "The quick brown fox jumps over the lazy dog");
  program(44, dialer);
  program(45, worm);
  rules.knownPrograms.KnownPrograms = {
      {}, {kAppCrc, 1, ""}, {kDialerCrc, 2, ""}, {kWormCrc, 3, "Worm.Example"}, {kChatCrc, 3, ""}};
  rules.knownPrograms.KnownProgramCount = 4;
  rule(chatPath, std::to_string(kChatCrc), "allow");  // a destructive checksum overrides it
  rules.closePorts.Check4[12].Value = 1;              // port 80 closed
  rules.closePorts.RefreshClosedPorts();
  tcp(42, 80);     // verdict 1: the closed-port check still runs
  tcp(44, 3001);   // verdict 2
  tcp(45, 80);     // verdict 3: no closed-port check
  tcp(0, 80, 81);  // no owner: only the closed-port check
  tcp(0, 3005);
  tcp(43, 3003);  // verdict 3 under an "allow" rule, at first sight
  monitor.firewall();

  // Walked from the last row: the chat's rule, then the worm, the dialer, the app.
  for (int16_t i : {1, 2, 3}) EXPECT_EQ(ruleCells(i)[2], "deny") << i;
  EXPECT_EQ(ruleCells(4)[2], "allow");
  EXPECT_EQ(sim.killedPids, (std::vector<int32_t>{43, 45}));
  EXPECT_EQ(deletedOnPort(80), 2);  // the ownerless row and the allowed program's
  EXPECT_EQ(monitor.TcpBlocked, 3);
  EXPECT_TRUE(ui.alertsShown.empty());
  ASSERT_EQ(ui.rulesCreated.size(), 2u);  // for the dialer and the app, not for the worm
  EXPECT_EQ(ui.rulesCreated[0].Label1, "Application Rules created");
  EXPECT_EQ(ui.rulesCreated[0].Label2, "dialer");
  ASSERT_EQ(ui.virusNotices.size(), 2u);
  EXPECT_EQ(ui.virusNotices[1].caption, "Destructive program detected!");
  EXPECT_EQ(ui.virusNotices[1].txtInfo, "Program: " + worm +
                                            "\r\nChecksum: " + std::to_string(kWormCrc) +
                                            "\r\nDescription: Worm.Example");
  EXPECT_TRUE(logLines().at(0).starts_with("|-|0|")) << "the row without owner, logged first";
}

TEST_F(Monitor, AClosedPortIsBrokenWithItsNoticeAndRating) {
  rule(appPath, " " + kApp + ".0", "allow");  // checksums compare as numbers
  rules.closePorts.Check4[0].Value = 1;       // 139 NetBIOS, rated high
  rules.closePorts.RefreshClosedPorts();
  tcp(42, 139, 3000, 5, "10.0.0.2");
  monitor.firewall();
  EXPECT_EQ(deletedOnPort(139), 1);
  EXPECT_TRUE(ui.alertsShown.empty());
  ASSERT_EQ(ui.closedPortNotices.size(), 1u);
  const ClosedPortView& notice = ui.closedPortNotices[0];
  EXPECT_EQ(notice.Label2, "Tessmark Personal Firewall closed port 139 for safety reasons.");
  EXPECT_EQ(notice.Label3, "Service NetBIOS");
  EXPECT_EQ(notice.Label5, "Program: " + appPath);
  EXPECT_EQ(notice.Label7, "10.0.0.2");
  EXPECT_TRUE(logLines().at(0).ends_with("|h"));

  // "Don't show this Dialog again.": the notice is off from now on, stored and sealed.
  monitor.ClosedPortNotice.Check1 = 1;
  monitor.ClosedPortNotice.Command1_Click();
  EXPECT_EQ(sim.readSetting(AppTitle, "Options", "AlertDialogs"), "hide");
  EXPECT_EQ(rules.secureConfig.GetConfig(), rules.secureConfig.ComputeConfigCheck());
  tcp(42, 139, 3001, 5, "10.0.0.3");
  monitor.firewall();
  EXPECT_EQ(ui.closedPortNotices.size(), 1u);  // broken and logged, silently
  EXPECT_EQ(logLines().size(), 2u);
}

TEST_F(Monitor, TheListShowsOneRowPerProgramAndUnderTheLockEachTickBreaksEveryRow) {
  tcp(42, 3000, 80, 5, "10.0.0.1");
  tcp(42, 3001, 80, 2, "0.0.0.0");
  tcp(42, 3002, 80, 5, "10.0.0.3");
  udp(42, 40000, "127.0.0.1");
  udp(42, 5354);
  tcp(0, 3009);  // no owner: not listed
  monitor.NewtcpCon(kTrue, kFalse);
  monitor.NewUdpCon(kTrue, kFalse);
  ASSERT_EQ(ui.connectionList.size(), 1u);
  EXPECT_EQ(ui.connectionList[0].Text, appPath);
  // The last UDP record walked (from the last index down) shows.
  EXPECT_EQ(Cells(ui.connectionList[0].SubItems.begin() + 1, ui.connectionList[0].SubItems.end()),
            (Cells{"127.0.0.1", "0.0.0.0", "40001", "0", "LISTEN", "Tcp | Udp", "5"}));
  monitor.NewtcpCon(kTrue, kTrue);
  monitor.NewUdpCon(kTrue, kTrue);
  ASSERT_EQ(ui.connectionList.size(), 5u);
  EXPECT_EQ(ui.connectionList[0].SubItems[6], "tcp");
  EXPECT_EQ(ui.connectionList[4].SubItems[6], "Udp");
  EXPECT_TRUE(ui.alertsShown.empty() && sim.deletedRows.empty());  // a display pass judges none

  // Locked, every row counts as blocked, nothing is asked, and the list's tick breaks too.
  main.InternetLocked = kTrue;
  sim.deletedRowsLinger = true;
  monitor.firewall();
  EXPECT_EQ(sim.deletedRows.size(), 4u);  // a UDP endpoint cannot be broken
  EXPECT_EQ(logLines().size(), 4u);
  EXPECT_EQ(ui.ilabel.back() + " " + ui.blabel.back(), "6 6");
  EXPECT_TRUE(ui.alertsShown.empty() && monitor.ListView1.Count() == 0);
  monitor.NewtcpCon(kTrue, kFalse);
  EXPECT_EQ(sim.deletedRows.size(), 8u);
  EXPECT_EQ(ui.connectionListUpdates, 4);
}

TEST_F(Monitor, TheSameProgramsOverIpv6AreRefusedAskedListedAndLockedOutAsOverIpv4) {
  rule(appPath, kApp, "deny");
  tcp6(42, 3000, 443);
  // A program new to the firewall that reaches an IPv4 server through an IPv6 socket.
  tcp6(43, 4000, 80, "::ffff:93.184.216.34", "::ffff:192.168.1.20");
  udp(43, 5353, "fe80::1:2");
  monitor.firewall();

  // The refused connection is broken as the IPv6 row it is, and logged in the compressed form.
  ASSERT_EQ(sim.deletedRows.size(), 1u);
  EXPECT_TRUE(sim.deletedRows[0].ipv6);
  EXPECT_EQ(sim.deletedRows[0].ucRemoteAddr, platform::sim::RawIpv6Address("2001:db8::80"));
  EXPECT_EQ(logLines(),
            Cells{"|" + appPath + "|42|12:00:01|2001:db8::20|2001:db8::80|3000|443|ESTAB|n"});
  // The new program stands frozen, asked with the IPv4 addresses its socket carries.
  ASSERT_EQ(ui.alertsShown.size(), 1u);
  const AlertView view = ui.alertsShown[0].view;
  EXPECT_EQ(std::tie(view.raddr, view.rport, view.Label2, view.localport),
            std::tuple("93.184.216.34", "80", "192.168.1.20", "4000"));
  EXPECT_EQ(sim.suspensionDepth(43), 2);  // its TCP row and its UDP endpoint

  // Listed one per connection with both forms; the UDP endpoint has the unspecified peer.
  monitor.NewtcpCon(kTrue, kTrue);
  monitor.NewUdpCon(kTrue, kTrue);
  std::vector<Cells> listed;
  for (const ConnectionListRow& r : ui.connectionList)
    listed.push_back({r.SubItems[1], r.SubItems[2], r.SubItems[6]});
  EXPECT_EQ(listed, (std::vector<Cells>{{"192.168.1.20", "93.184.216.34", "tcp"},
                                        {"fe80::1:2", "::", "Udp"}}));
  // One row per program shows the last record walked with a peer: a link-local one counts.
  sim.tcpRows.insert(sim.tcpRows.begin(),
                     platform::sim::MakeTcpRow(5, "fe80::1:2", 4001, "fe80::9", 22, 43));
  monitor.NewtcpCon(kTrue, kFalse);
  ASSERT_EQ(ui.connectionList.size(), 1u);
  EXPECT_EQ(ui.connectionList[0].SubItems[2], "fe80::9");

  // The lock breaks every IPv6 TCP row; the UDP endpoint stays unbreakable.
  monitor.AlertForm(1).Command1_Click();
  main.InternetLocked = kTrue;
  sim.deletedRows.clear();
  tcp6(42, 3001, 443);
  monitor.firewall();
  EXPECT_EQ(sim.deletedRows.size(), 3u);
  EXPECT_TRUE(std::ranges::all_of(sim.deletedRows, &platform::TcpRow::ipv6));
}

TEST_F(Monitor, ARowThatMovesFromOneFamilyToTheOtherIsAChangeThoughTheSumStays) {
  udp(43, 5353);
  ASSERT_EQ(main.GetUDPConnections(kTrue, kFalse), kTrue);
  // One IPv4 endpoint closed as an IPv6 one opened: the count of rows is still 1.
  sim.udpRows = {platform::sim::MakeUdpRow("::", 5353, 43)};
  EXPECT_EQ(main.GetUDPConnections(kTrue, kFalse), kTrue);
  EXPECT_EQ(main.UdpConnections[0].LocalAddress, "::");
  EXPECT_EQ(main.GetUDPConnections(kTrue, kFalse), kFalse);
  // A broken IPv6 row lowers its family's count with the sum, so the next poll stays quiet.
  tcp6(43, 4000);
  ASSERT_EQ(poll(), kTrue);
  int32_t pid = 43, port = 0;
  std::string name;
  ASSERT_EQ(main.CloseConnection(main.TcpConnections[0].Row, pid, port, name), kTrue);
  sim.calls = {};
  EXPECT_EQ(poll(), kFalse);
  EXPECT_EQ(sim.calls.tcpTableReads, 0);
}

TEST_F(Monitor, UdpEndpointsAreJudgedByTheOwnersOfTheLastTcpSnapshot) {
  rule(appPath, kApp, "deny");
  udp(43, 5353);  // no TCP snapshot has named pid 43 yet: the endpoint waits
  monitor.firewall();
  EXPECT_TRUE(ui.alertsShown.empty());

  tcp(0, 3000);  // a TCP change rebuilds the process table
  udp(42, 5354);
  udp(42, 5355);
  monitor.firewall();
  ASSERT_EQ(ui.alertsShown.size(), 1u);
  const AlertView& view = ui.alertsShown[0].view;
  EXPECT_EQ(view.lblDESC, chatPath +
                              " is trying to connect to [Unknown] using port 5353 . Do you want "
                              "to allow this program to access the network?");  // no peer
  EXPECT_EQ(std::tie(view.raddr, view.rport), std::tuple("[Unknown]", "0"));
  // A refused endpoint counts though none can be broken, and nothing is logged.
  EXPECT_EQ(ui.blabel.back(), "2");
  EXPECT_TRUE(sim.deletedRows.empty() && logLines().empty());
}

TEST_F(Monitor, AFullAlertTableFreezesNothingMoreAndStillEnds) {
  // 32766 ids held by an answered alert: room for one more.
  main.AlertCount = 32766;
  main.AlertRows.resize(32767);
  main.AlertPids.resize(32767);
  tcp(42, 3000);
  tcp(42, 3001);
  monitor.firewall();
  EXPECT_EQ(sim.suspensionDepth(42), 1);  // the second row found the table full
  EXPECT_EQ(ui.alertsShown.at(0).slot, 32767);

  tcp(43, 3002);
  monitor.firewall();  // a sweep over the whole table, with the alert open
  EXPECT_FALSE(sim.isFrozen(43));
  monitor.UnloadAllAlerts();
  EXPECT_FALSE(sim.isFrozen(42));
}

TEST_F(Monitor, APollReadsWhatChangedAndTheAlertTableIsSweptOnceEveryAlertIsAnswered) {
  tcp(42, 50000);
  tcp(42, 50001);
  tcp(43, 50002);
  udp(42, 5353);
  udp(43, 5354);
  monitor.firewall();
  // The first label, before the UDP pass, counts one UDP row never seen (UdpLastIndex 0).
  EXPECT_EQ(ui.ilabel, (Cells{"4", "5"}));
  EXPECT_EQ(ui.blabel, (Cells{"0", "0"}));

  // Nothing opened or closed: one look at each count, no table, process or thread read.
  sim.calls = {};
  monitor.firewall();
  EXPECT_EQ(std::tuple(sim.calls.tcpProbes, sim.calls.tcpOpenProbes, sim.calls.udpProbes),
            std::tuple(1, 1, 1));
  EXPECT_EQ(sim.calls.tcpTableReads + sim.calls.udpTableReads, 0);
  EXPECT_EQ(sim.calls.processListings + sim.calls.threadSnapshots, 0);
  EXPECT_EQ(ui.ilabel.size(), 2u);

  // The chat is asked in slot 1, the app in slot 2, each for all its rows and endpoints.
  EXPECT_EQ(sim.suspensionDepth(42), 3);
  EXPECT_EQ(sim.suspensionDepth(43), 2);
  std::string shouted = appPath;  // another path to the same rule, or none, changes nothing
  for (char& c : shouted) c = char(std::toupper(c));
  for (const std::string& path : {shouted, std::string()}) monitor.AlertForm(2).SetAlertPath(path);
  monitor.UnloadAllAlerts();
  EXPECT_FALSE(sim.isFrozen(42) || sim.isFrozen(43));
  EXPECT_EQ(sim.resumedThreadLog.size(), sim.suspendedThreadLog.size());
  EXPECT_EQ(main.AlertCount, 5);  // nothing answered, nothing cleared
  EXPECT_EQ(monitor.AlertForm(2).GetAlertPath(), appPath);

  // Allowed from here: answered alerts stay until a change, and one open alert keeps them all.
  monitor.ListView1.Item(1).SubItems[2] = monitor.ListView1.Item(2).SubItems[2] = "allow";
  monitor.AlertForm(1).AlertPath.clear();
  monitor.firewall();
  tcp(42, 50003);
  monitor.firewall();
  EXPECT_EQ(main.AlertCount, 5);
  // The last answer, then a change: the table falls back to 0 and its arrays are erased.
  monitor.AlertForm(2).AlertPath.clear();
  tcp(42, 50004);
  monitor.firewall();
  EXPECT_EQ(main.AlertCount, 0);
  EXPECT_TRUE(main.AlertRows.empty() && main.AlertPids.empty());

  // Standby looks at nothing; a change is seen once the firewall is active again.
  monitor.FirewallActive = kFalse;
  sim.calls = {};
  tcp(43, 50005);
  monitor.firewall();
  EXPECT_EQ(sim.calls.tcpProbes + sim.calls.udpProbes, 0);
  monitor.FirewallActive = kTrue;
  monitor.firewall();
  EXPECT_EQ(ui.ilabel.back(), "8");
}

TEST_F(Monitor, OnlyExactlyTrueEndsTheLoopThatSleepsAndPumpsEachRound) {
  int polls = 0;
  std::function<void()> count = [&] {
    monitor.StopMonitor = ++polls == 6 ? kTrue : polls >= 3;  // from the third, true-ish
    mailbox.post(count);
  };
  mailbox.post(count);
  monitor.startthefirewall();
  EXPECT_EQ(polls, 6);
  EXPECT_EQ(sim.now, 60u);  // Sleep(10) per round
}

TEST_F(Monitor, TablesBeyondTheProbeBufferAreSeenByTheirOpensOnly) {
  // Above 32767 and the buffer the probe reads 0, as at the start; the first opens are a base.
  sim.tcpRows.assign(40000, platform::sim::MakeTcpRow(2, "0.0.0.0", 8080, "0.0.0.0", 0, 7));
  EXPECT_EQ(poll(), kFalse);
  EXPECT_EQ(sim.calls.tcpTableReads, 0);
  tcp(7, 3000);
  EXPECT_EQ(poll(), kTrue);
  EXPECT_EQ(LastTableIndex(main.TcpConnections), 40000);
  // Exactly 1001 rows fit and count; one more reads as 0 again.
  sim.tcpRows.resize(1001);
  EXPECT_EQ(poll(), kTrue);
  tcp(7, 60000);
  EXPECT_EQ(poll(), kTrue);
  EXPECT_EQ(main.LastTcpCount, 0);
}

TEST_F(Monitor, ATableIsPutInPlaceWholeAndAFailedReadLeavesItAndIsNotRetried) {
  tcp(7, 50000);
  ASSERT_EQ(poll(), kTrue);
  tcp(7, 50001);
  tcp(7, 50002);
  int32_t seen = -2;  // what a handler run during the walk of the new snapshot sees
  mailbox.post([&] { seen = LastTableIndex(main.TcpConnections); });
  ASSERT_EQ(poll(), kTrue);
  EXPECT_EQ(seen, 0);
  EXPECT_EQ(LastTableIndex(main.TcpConnections), 2);

  tcp(7, 50003);
  sim.tcpTableFails = true;
  EXPECT_EQ(poll(), kFalse);
  sim.tcpTableFails = false;
  EXPECT_EQ(poll(), kFalse);  // the counts were stored before the read failed
  EXPECT_EQ(LastTableIndex(main.TcpConnections), 2);
  sim.tcpRows.clear();
  EXPECT_EQ(poll(), kTrue);
  EXPECT_EQ(LastTableIndex(main.TcpConnections), -1);
  sim.udpTableFails = true;
  udp(7, 53);
  EXPECT_EQ(main.GetUDPConnections(kTrue, kFalse), kFalse);
  EXPECT_EQ(LastTableIndex(main.UdpConnections), -1);
}

TEST_F(Monitor, TheListsForcedReadStoresNoCountAndAnUnreadableCountOfOpensChangesNothing) {
  tcp(43, 3000);
  tcp(43, 3001);
  ASSERT_EQ(poll(), kTrue);
  // The forced read stores no count: the next poll still sees a closed row, and a replaced one.
  sim.tcpRows.pop_back();
  sim.calls = {};
  EXPECT_EQ(main.GetTCPConnections(kTrue, kTrue), kTrue);
  EXPECT_EQ(sim.calls.tcpProbes + sim.calls.tcpOpenProbes, 0);
  EXPECT_EQ(poll(), kTrue);
  sim.tcpRows[0].row.dwLocalPort = platform::sim::RawPort(3002);  // a new connection
  EXPECT_EQ(main.GetTCPConnections(kTrue, kTrue), kTrue);
  EXPECT_EQ(poll(), kTrue);
  EXPECT_EQ(poll(), kFalse);
  // An unreadable count of opens leaves the stored one: what opened meanwhile is seen later.
  sim.tcpOpenCountUnknown = true;
  sim.tcpRows[0].row.dwLocalPort = platform::sim::RawPort(3003);
  EXPECT_EQ(poll(), kFalse);
  sim.tcpOpenCountUnknown = false;
  EXPECT_EQ(poll(), kTrue);
  EXPECT_EQ(main.TcpConnections[0].LocalPort, 3003);
}

}  // namespace
}  // namespace tessmark
