#pragma once
// frmThread, the monitor: one poll of both connection tables (firewall), the loop that
// repeats it (startthefirewall), the timer that drives it too, and the alert table's sweep.
// It owns the monitor's members; they live on the engine thread.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "alerts/frmAlert.h"
#include "monitor/message_pump.h"
#include "monitor/modmain.h"
#include "monitor/ui_port.h"
#include "platform/platform.h"
#include "process/modPauseProcess.h"

namespace tessmark {

class frmThread {
 public:
  frmThread(modmain& main, modPauseProcess& pause, MessagePump& pump, UiPort& ui,
            platform::Clock& clock)
      : main_(main), pause_(pause), pump_(pump), ui_(ui), clock_(clock) {}

  // Polls until StopMonitor is exactly true: firewall, Sleep(10), the pump once.
  void startthefirewall();
  // One poll. Returns at once in standby.
  void firewall();
  // The second driver: a poll, and the timer stops itself once StopMonitor is true.
  void Timer1_Timer();
  // Resumes every program the alerts hold; nothing is answered, the connections stand.
  void UnloadAllAlerts();

  // The decision passes. displayMode 0 judges the table.
  void NewtcpCon(int16_t displayMode, int16_t showAll);
  void NewUdpCon(int16_t displayMode, int16_t showAll);

  // AlertForms(index): an element comes into being when it is first touched.
  frmAlert& AlertForm(int32_t index);

  int16_t FirewallActive = 0;
  int16_t StopMonitor = 0;
  std::vector<std::unique_ptr<frmAlert>> AlertForms;
  int16_t TcpLastIndex = 0;
  int16_t UdpLastIndex = 0;
  int16_t TcpBlocked = 0;
  int16_t UdpBlocked = 0;
  int32_t SelectedConnection = 0;
  // Programs seen at the last walk; "-1" marks a free element.
  std::vector<std::string> TcpPrograms{"-1", "-1"};
  int32_t TcpProgramsTop = 1;
  std::vector<std::string> UdpPrograms{"-1", "-1"};
  int32_t UdpProgramsTop = 1;

  bool Timer1Enabled = false;
  uint32_t Timer1Interval = 500;

 private:
  void updateLabels();
  void sweepAlerts();

  modmain& main_;
  modPauseProcess& pause_;
  MessagePump& pump_;
  UiPort& ui_;
  platform::Clock& clock_;
};

}  // namespace tessmark
