#include "monitor/frmThread.h"

#include <cstdint>

#include "base/booleans.h"
#include "rules/modSetting.h"

namespace tessmark {

frmThread::frmThread(modmain& main, modPauseProcess& pause, MessagePump& pump, UiPort& ui,
                     platform::Clock& clock, RuleStore& rules, platform::SettingsStore& store)
    : Log(main.TcpConnections, main.UdpConnections, rules.folders, clock, pump, Check3,
          [this](int32_t& all, int32_t& high) { ChangeBlockValue(all, high); }),
      ClosedPortNotice(ui, store, rules.secureConfig, Check2),
      VirusNotice(ui),
      InfoNotice(ui),
      main_(main),
      pause_(pause),
      pump_(pump),
      ui_(ui),
      clock_(clock),
      rules_(rules),
      alertServices_{rules, ListView1, ui} {
  main_.closedPortListener = this;
}

frmThread::~frmThread() {
  if (main_.closedPortListener == this) main_.closedPortListener = nullptr;
}

void frmThread::startthefirewall() {
  do {
    firewall();
    clock_.sleep(10);
    // Unconditional: this pump gives life to the alerts and notices the walks opened.
    pump_.pumpOnce();
  } while (!isExactlyTrue(StopMonitor));
}

void frmThread::firewall() {
  if (FirewallActive == kFalse) return;
  pause_.Settle();
  bool changed = false;
  if (main_.GetTCPConnections(kTrue, kFalse) == kTrue) {
    changed = true;
    TcpBlocked = 0;
    NewtcpCon(0, 0);
    updateLabels();
  }
  if (main_.GetUDPConnections(kTrue, kFalse) == kTrue) {
    UdpBlocked = 0;
    changed = true;
    NewUdpCon(0, 0);
    updateLabels();
  }
  if (changed) sweepAlerts();
}

void frmThread::updateLabels() {
  // 16-bit arithmetic: each index is its row count minus 1, so + 2 counts all rows.
  auto all = static_cast<int16_t>(TcpLastIndex + UdpLastIndex + 2);
  ui_.setIlabel(std::to_string(all));
  auto blocked =
      main_.InternetLocked != kFalse ? all : static_cast<int16_t>(TcpBlocked + UdpBlocked);
  ui_.setBLabel(std::to_string(blocked));
}

bool frmThread::anyAlertOpen() {
  for (int32_t i = 1; i <= main_.AlertCount; ++i)
    if (!AlertForm(i).GetAlertPath().empty()) return true;
  return false;
}

void frmThread::sweepAlerts() {
  // Every alert is asked, without stopping at the first open one. The counter is wider than
  // AlertCount, so a full table of 32767 ids ends the loop.
  bool anyOpen = false;
  for (int32_t i = 1; i <= main_.AlertCount; ++i) {
    CooperativeYield(pump_);
    if (!AlertForm(i).GetAlertPath().empty()) anyOpen = true;
  }
  // A command run during a yield may have swept the table and opened a new alert in it:
  // the table is cleared only if, at this moment too, no alert is open.
  if (!anyOpen && !anyAlertOpen()) {
    main_.AlertCount = 0;
    main_.AlertRows.clear();
    main_.AlertPids.clear();
  }
}

void frmThread::Timer1_Timer() {
  firewall();
  if (StopMonitor != kFalse) Timer1Enabled = false;
}

void frmThread::UnloadAllAlerts() {
  for (int32_t i = 1; i <= main_.AlertCount; ++i) AlertForm(i).UnloadAlertForm();
}

frmAlert& frmThread::AlertForm(int32_t index) {
  // Ids run from 1 to at most 32767; anything else names the unused element 0.
  if (index < 0 || index > INT16_MAX) index = 0;
  if (AlertForms.size() <= static_cast<size_t>(index)) AlertForms.resize(index + 1);
  auto& form = AlertForms[index];
  if (!form)
    form = std::make_unique<frmAlert>(HeldConnections{main_.AlertRows, main_.AlertPids, main_},
                                      pause_, alertServices_, static_cast<int16_t>(index));
  return *form;
}

void frmThread::SaveApplicationRules() {
  SaveRuleFile(ListView1, rules_.folders.RuleFilePath(), rules_.secureConfig);
  NewtcpCon(0, 0);
  NewUdpCon(0, 0);
}

void frmThread::ChangeBlockValue(int32_t& all, int32_t& high) {
  ui_.setBlockedDetails("All: " + std::to_string(all) + "\r\nHigh Rated: " + std::to_string(high));
}

void frmThread::portClosed(int32_t& port, std::string& name, const std::string& remoteAddress) {
  if (Check2 == 1) ClosedPortNotice.ShowPortAlert(port, name, remoteAddress);
}

}  // namespace tessmark
