#pragma once
// frmThread, the monitor: one poll of both connection tables (firewall), the loop that
// repeats it (startthefirewall), the timer that drives it too, the decision and display
// passes over the snapshots, and the alert table's sweep. It owns the monitor's members, the
// rule list and the option boxes; they live on the engine thread.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "alerts/frmAlert.h"
#include "alerts/notices.h"
#include "base/message_pump.h"
#include "base/ui_port.h"
#include "log/modWriteLog.h"
#include "monitor/modmain.h"
#include "monitor/program_memory.h"
#include "platform/platform.h"
#include "process/modPauseProcess.h"
#include "rules/rule_list.h"
#include "rules/rule_store.h"

namespace tessmark {

class frmThread final : public ClosedPortListener {
 public:
  frmThread(modmain& main, modPauseProcess& pause, MessagePump& pump, UiPort& ui,
            platform::Clock& clock, RuleStore& rules, platform::SettingsStore& store);
  ~frmThread() override;
  frmThread(const frmThread&) = delete;
  frmThread& operator=(const frmThread&) = delete;

  // Polls until StopMonitor is exactly true: firewall, Sleep(10), the pump once.
  void startthefirewall();
  // One poll. Returns at once in standby.
  void firewall();
  // The second driver: a poll, and the timer stops itself once StopMonitor is true.
  void Timer1_Timer();
  // Resumes every program the alerts hold; nothing is answered, the connections stand.
  void UnloadAllAlerts();

  // The passes over a snapshot. Under the Internet lock every row is broken; otherwise
  // displayMode 0 judges the rows and anything else rebuilds the connection list, one row
  // per program (showAll 0) or per connection.
  void NewtcpCon(int16_t displayMode, int16_t showAll);
  void NewUdpCon(int16_t displayMode, int16_t showAll);

  // Rewrites the rule file from ListView1 and judges the live connections again at once, so
  // that a changed rule takes effect on them.
  void SaveApplicationRules();
  // The settings window's display of the log's two counters.
  void ChangeBlockValue(int32_t& all, int32_t& high);

  // AlertForms(index): an element comes into being when it is first touched.
  frmAlert& AlertForm(int32_t index);

  // A connection broken for the closed-port list: the notice, while Check2 is ticked.
  void portClosed(int32_t& port, std::string& name, const std::string& remoteAddress) override;

  // The rule list: the rules themselves, of which the rule file is the serialisation.
  RuleList ListView1;
  // The option boxes, 1 ticked: start with the system, show the closed-port notice, write
  // the firewall log.
  int16_t Check1 = 0;
  int16_t Check2 = 0;
  int16_t Check3 = 0;

  int16_t FirewallActive = 0;
  int16_t StopMonitor = 0;
  std::vector<std::unique_ptr<frmAlert>> AlertForms;
  int16_t TcpLastIndex = 0;
  int16_t UdpLastIndex = 0;
  int16_t TcpBlocked = 0;
  int16_t UdpBlocked = 0;
  // Programs seen at the last walk, per protocol.
  ProgramMemory TcpPrograms;
  ProgramMemory UdpPrograms;

  // The main window's connection list, and the row the user selected there (1-based, 0 for
  // none), which the view posts in. SelectedConnection keeps it across a rebuild.
  std::vector<ConnectionListRow> ConnectionList;
  int32_t ListSelection = 0;
  int32_t SelectedConnection = 0;

  bool Timer1Enabled = false;
  uint32_t Timer1Interval = 500;

  // The firewall log, and the notices the walks raise.
  modWriteLog Log;
  frmClosedPort ClosedPortNotice;
  frmVirus VirusNotice;
  frmInfo InfoNotice;

 private:
  // What differs between the TCP and the UDP pass.
  struct Side {
    bool tcp;
    ConnectionTable& table;
    int16_t& lastIndex;
    int16_t& blocked;
    ProgramMemory& programs;
  };
  enum class Outcome { ClosedPortCheck, NextRecord };

  Side tcpSide();
  Side udpSide();
  void lockedSweep(Side& side);
  void decisionPass(Side& side);
  Outcome judge(Side& side, int32_t i, ConnectionRecord& record, bool seen,
                const std::string& remote);
  Outcome judgeWithRule(Side& side, int32_t i, ConnectionRecord& record, bool seen,
                        int16_t ruleIndex, const std::string& remote);
  Outcome judgeWithoutRule(Side& side, int32_t i, ConnectionRecord& record,
                           const std::string& remote);
  void closedPortCheck(Side& side, int32_t i, ConnectionRecord& record);
  void deny(Side& side, int32_t i, ConnectionRecord& record, bool countFirst, int16_t logAsTcp);
  void holdWithAlert(AlertKind kind, Side& side, ConnectionRecord& record, int16_t ruleIndex,
                     const std::string& remote, int32_t crc);
  void killDestructive(ConnectionRecord& record, int32_t crc);
  int16_t addRuleRow(const std::string& path, int32_t crc, const std::string& access);
  const RuleRow* ruleRowAt(int16_t index) const;
  void saveRules();
  void writeBlocked(int16_t isTcp, int32_t index, std::string rating);
  void displayPass(Side& side, int16_t showAll);
  void updateLabels();
  void sweepAlerts();
  bool anyAlertOpen();

  modmain& main_;
  modPauseProcess& pause_;
  MessagePump& pump_;
  UiPort& ui_;
  platform::Clock& clock_;
  RuleStore& rules_;
  AlertServices alertServices_;
};

}  // namespace tessmark
