#include "monitor/frmThread.h"

#include "monitor/booleans.h"

namespace tessmark {

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

void frmThread::sweepAlerts() {
  // Every alert is asked, without stopping at the first open one.
  bool anyOpen = false;
  for (int16_t i = 1; i <= main_.AlertCount; ++i) {
    CooperativeYield(pump_);
    if (!AlertForm(i).GetAlertPath().empty()) anyOpen = true;
  }
  if (!anyOpen) {
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
  for (int16_t i = 1; i <= main_.AlertCount; ++i) AlertForm(i).UnloadAlertForm();
}

frmAlert& frmThread::AlertForm(int32_t index) {
  if (AlertForms.size() <= static_cast<size_t>(index)) AlertForms.resize(index + 1);
  auto& form = AlertForms[index];
  if (!form) form = std::make_unique<frmAlert>(main_, pause_);
  return *form;
}

// The passes judge rows with a later piece of the monitor; until then they keep their entry
// steps, so the counts and the labels are right. The locked sweep and the decision pass both
// store the last index; the display pass does not.
void frmThread::NewtcpCon(int16_t displayMode, int16_t) {
  TcpBlocked = 0;
  if (main_.InternetLocked != kFalse || displayMode == kFalse)
    TcpLastIndex = static_cast<int16_t>(LastTableIndex(main_.TcpConnections));
}

void frmThread::NewUdpCon(int16_t displayMode, int16_t) {
  UdpBlocked = 0;
  if (main_.InternetLocked != kFalse || displayMode == kFalse)
    UdpLastIndex = static_cast<int16_t>(LastTableIndex(main_.UdpConnections));
}

}  // namespace tessmark
