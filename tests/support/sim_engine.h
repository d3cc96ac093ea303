#pragma once
// A monitor wired on the simulated system, driven by the test on its own thread.

#include <map>
#include <string>
#include <vector>

#include "base/ui_port.h"
#include "monitor/frmThread.h"
#include "monitor/mailbox.h"
#include "monitor/modmain.h"
#include "platform/sim/sim_system.h"
#include "process/modPauseProcess.h"
#include "process/modprocs.h"
#include "rules/rule_store.h"

namespace tessmark::testing {

// Keeps every label text, box, window and notice in the order the engine sent them.
class RecordingUi final : public UiPort {
 public:
  void setIlabel(const std::string& text) override { ilabel.push_back(text); }
  void setBLabel(const std::string& text) override { blabel.push_back(text); }
  void showErrorBox(const std::string& text) override { errorBoxes.push_back(text); }
  void showMessageBox(const std::string& text, MessageIcon icon) override {
    messageBoxes.push_back({text, icon});
  }
  void setToolbarButtonEnabled(int16_t index, bool enabled) override { toolbar[index] = enabled; }
  void setStatusText(int16_t panel, const std::string& text) override { status[panel] = text; }
  void showAlert(int16_t slot, const AlertView& view) override {
    alertsShown.push_back({slot, view});
    openAlerts[slot] = view;
  }
  void closeAlert(int16_t slot) override { openAlerts.erase(slot); }
  void showClosedPortNotice(const ClosedPortView& view) override {
    closedPortNotices.push_back(view);
  }
  void closeClosedPortNotice() override { ++closedPortNoticeCloses; }
  void showVirusNotice(const VirusView& view) override { virusNotices.push_back(view); }
  void showRulesCreated(const RulesCreatedView& view) override { rulesCreated.push_back(view); }
  void setBlockedDetails(const std::string& text) override { blockedDetails.push_back(text); }
  void setConnectionList(const std::vector<ConnectionListRow>& rows, int32_t selected) override {
    connectionList = rows;
    connectionListSelected = selected;
    ++connectionListUpdates;
  }

  struct MessageBox {
    std::string text;
    MessageIcon icon;
  };
  struct ShownAlert {
    int16_t slot;
    AlertView view;
  };
  std::vector<std::string> ilabel;
  std::vector<std::string> blabel;
  std::vector<std::string> errorBoxes;
  std::vector<MessageBox> messageBoxes;
  std::map<int16_t, bool> toolbar;
  std::map<int16_t, std::string> status;
  std::vector<ShownAlert> alertsShown;
  std::map<int16_t, AlertView> openAlerts;
  std::vector<ClosedPortView> closedPortNotices;
  int closedPortNoticeCloses = 0;
  std::vector<VirusView> virusNotices;
  std::vector<RulesCreatedView> rulesCreated;
  std::vector<std::string> blockedDetails;
  std::vector<ConnectionListRow> connectionList;
  int32_t connectionListSelected = 0;
  int connectionListUpdates = 0;
};

struct SimMonitor {
  platform::sim::SimSystem sim;
  RecordingUi ui;
  Mailbox mailbox;
  modprocs procs{sim, mailbox};
  modPauseProcess pause{sim, procs};
  modmain main{sim, procs, mailbox};
  RuleStore rules{sim, pause, mailbox, ui, main.InternetLocked};
  frmThread monitor{main, pause, mailbox, ui, sim, rules, sim};

  // A program with one thread, ids pid*10+1 upward.
  void program(int32_t pid, const std::string& path, int threads = 1) {
    sim.addProcess(pid, path, threads);
  }
  void tcp(int32_t pid, uint16_t localPort, uint16_t remotePort = 80, uint32_t state = 5,
           const std::string& remote = "93.184.216.34") {
    sim.tcpRows.push_back(platform::sim::MakeTcpRow(state, "192.168.1.20", localPort, remote,
                                                    remotePort, static_cast<uint32_t>(pid)));
  }
  // The same over IPv6; an address written ::ffff:a.b.c.d is an IPv4 peer of an IPv6 socket.
  void tcp6(int32_t pid, uint16_t localPort, uint16_t remotePort = 80,
            const std::string& remote = "2001:db8::80", const std::string& local = "2001:db8::20",
            uint32_t state = 5) {
    sim.tcpRows.push_back(platform::sim::MakeTcpRow(state, local, localPort, remote, remotePort,
                                                    static_cast<uint32_t>(pid)));
  }
  void udp(int32_t pid, uint16_t localPort, const std::string& local = "0.0.0.0") {
    sim.udpRows.push_back(platform::sim::MakeUdpRow(local, localPort, static_cast<uint32_t>(pid)));
  }
};

}  // namespace tessmark::testing
