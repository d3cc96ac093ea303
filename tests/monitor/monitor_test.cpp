// The monitor: one poll, the loop, standby, the labels and the alert table's sweep.

#include <gtest/gtest.h>

#include "base/booleans.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

class Monitor : public ::testing::Test, public testing::SimMonitor {
 protected:
  void SetUp() override {
    program(42, "/usr/bin/app", 2);
    program(43, "/usr/bin/chat", 1);
    monitor.FirewallActive = kTrue;
  }
  // Puts a connection of pid on hold in alert slot `id`, as a decision pass does.
  void hold(int16_t id, int32_t pid, const std::string& path) {
    main.AlertCount = id;
    main.AlertRows.resize(id + 1);
    main.AlertPids.resize(id + 1);
    main.AlertPids[id] = pid;
    pause.SuspendThreads(pid);
    monitor.AlertForm(id).SetAlertPath(path);
    monitor.AlertForm(id).SetAlertId(id);
  }
};

TEST_F(Monitor, AQuietPollReadsNoTableAndWalksNoProcess) {
  tcp(42, 50000);
  udp(42, 5353);
  monitor.firewall();
  sim.calls = {};
  ui.ilabel.clear();
  monitor.firewall();
  EXPECT_EQ(sim.calls.tcpProbes, 1);
  EXPECT_EQ(sim.calls.udpProbes, 1);
  EXPECT_EQ(sim.calls.tcpTableReads + sim.calls.udpTableReads, 0);
  EXPECT_EQ(sim.calls.processListings, 0);
  EXPECT_EQ(sim.calls.threadSnapshots, 0);
  EXPECT_TRUE(ui.ilabel.empty());
}

TEST_F(Monitor, BothTablesChangingWriteTheLabelsTwice) {
  tcp(42, 50000);
  tcp(43, 50001);
  udp(42, 5353);
  udp(43, 5354);
  monitor.firewall();
  // The first label is written before the UDP pass, with UdpLastIndex still at its start
  // value 0: one UDP row counted that was never seen.
  EXPECT_EQ(ui.ilabel, (std::vector<std::string>{"3", "4"}));
  EXPECT_EQ(ui.blabel, (std::vector<std::string>{"0", "0"}));
  EXPECT_EQ(monitor.TcpLastIndex, 1);
  EXPECT_EQ(monitor.UdpLastIndex, 1);
}

TEST_F(Monitor, StandbyReadsNothingAndTheChangeIsSeenAfterwards) {
  tcp(42, 50000);
  udp(42, 5353);
  monitor.firewall();
  monitor.FirewallActive = kFalse;
  tcp(43, 50001);
  sim.calls = {};
  ui.ilabel.clear();
  monitor.firewall();
  EXPECT_EQ(sim.calls.tcpProbes + sim.calls.udpProbes, 0);
  EXPECT_TRUE(ui.ilabel.empty());
  monitor.FirewallActive = kTrue;
  monitor.firewall();
  EXPECT_EQ(ui.ilabel, (std::vector<std::string>{"3"}));
}

TEST_F(Monitor, TheLockCountsEveryRowAsBlocked) {
  main.InternetLocked = kTrue;
  tcp(42, 50000);
  tcp(43, 50001);
  udp(42, 5353);
  monitor.firewall();
  EXPECT_EQ(ui.blabel.back(), ui.ilabel.back());
  EXPECT_EQ(ui.blabel.back(), "3");
}

TEST_F(Monitor, TheSweepClearsTheAlertTableOnlyWhenNoAlertIsOpen) {
  // Rules that let the programs' rows stand, so the walks raise no alerts of their own.
  for (const char* path : {"/usr/bin/app", "/usr/bin/chat"}) {
    monitor.ListView1.Add("", path);
    monitor.ListView1.Item(monitor.ListView1.Count()).SubItems[2] = AccessAllow;
  }
  tcp(42, 50000);
  monitor.firewall();
  hold(1, 42, "/usr/bin/app");
  hold(2, 43, "/usr/bin/chat");

  // Answered alerts stay while no table changes.
  monitor.AlertForm(1).AlertPath.clear();
  monitor.firewall();
  EXPECT_EQ(main.AlertCount, 2);

  // A change with one alert still open: every slot is asked and nothing is cleared.
  tcp(42, 50001);
  monitor.firewall();
  EXPECT_EQ(main.AlertCount, 2);
  EXPECT_EQ(main.AlertPids.size(), 3u);

  // The last answer, then a change: the table falls back to 0 and its arrays are erased.
  monitor.AlertForm(2).AlertPath.clear();
  tcp(42, 50002);
  monitor.firewall();
  EXPECT_EQ(main.AlertCount, 0);
  EXPECT_TRUE(main.AlertRows.empty());
  EXPECT_TRUE(main.AlertPids.empty());
  EXPECT_EQ(monitor.AlertForms.size(), 3u);  // keeps its size until the next growth

  // A sweep with nothing held does no harm.
  tcp(42, 50003);
  monitor.firewall();
  EXPECT_EQ(main.AlertCount, 0);
}

TEST_F(Monitor, UnloadAllAlertsResumesEachProgramOncePerHeldConnection) {
  hold(1, 42, "/usr/bin/app");
  hold(2, 42, "/usr/bin/app");
  monitor.AlertForm(1).SetAlertId(2);  // one alert holding both connections of the program
  monitor.AlertForm(2).AlertIdCount = 0;
  hold(3, 43, "/usr/bin/chat");
  EXPECT_EQ(sim.suspensionDepth(42), 2);
  monitor.UnloadAllAlerts();
  EXPECT_FALSE(sim.isFrozen(42));
  EXPECT_FALSE(sim.isFrozen(43));
  EXPECT_EQ(main.AlertCount, 3);  // nothing answered, nothing cleared
  EXPECT_EQ(monitor.AlertForm(1).GetAlertPath(), "/usr/bin/app");
}

TEST_F(Monitor, OnlyExactlyTrueEndsTheLoop) {
  int polls = 0;
  std::function<void()> count = [&] {
    ++polls;
    if (polls == 3) monitor.StopMonitor = 1;  // true-ish, but not -1
    if (polls == 6) monitor.StopMonitor = kTrue;
    if (polls < 6) mailbox.post(count);
  };
  mailbox.post(count);
  monitor.startthefirewall();
  EXPECT_EQ(polls, 6);
  EXPECT_EQ(sim.now, 60u);  // Sleep(10) per round
}

TEST_F(Monitor, TheTimerStopsItselfOnceTheMonitorEnds) {
  monitor.Timer1Enabled = true;
  monitor.Timer1_Timer();
  EXPECT_TRUE(monitor.Timer1Enabled);
  monitor.StopMonitor = kTrue;
  monitor.Timer1_Timer();
  EXPECT_FALSE(monitor.Timer1Enabled);
}

TEST_F(Monitor, AnAlertTakesOnlyANewPathAndCountsItsIds) {
  frmAlert& alert = monitor.AlertForm(1);
  EXPECT_EQ(alert.GetAlertPath(), "");  // a fresh element
  alert.SetAlertPath("/usr/bin/App");
  alert.SetAlertPath("/USR/BIN/APP");  // the same path: nothing happens
  alert.SetAlertPath("");
  EXPECT_EQ(alert.GetAlertPath(), "/usr/bin/App");
  alert.SetAlertId(4);
  alert.SetAlertId(7);
  EXPECT_EQ(alert.AlertIdCount, 2);
  EXPECT_EQ(alert.AlertIds, (std::vector<int16_t>{0, 4, 7}));
}

}  // namespace
}  // namespace tessmark
