#pragma once
// frmAlert, the state and behaviour of the access alert: which program it asks about, which
// held connections (alert ids) it stands for, and the two answers. An instance outlives its
// window; it stays in the monitor's AlertForms until the alert table is rebuilt.

#include <cstdint>
#include <string>
#include <vector>

#include "base/connection_record.h"
#include "base/ui_port.h"
#include "process/modPauseProcess.h"
#include "rules/rule_list.h"
#include "rules/rule_store.h"

namespace tessmark {

// The alert table an answer works on: the held connections and their owners by alert id
// (from 1), and the way to break one. The monitor keeps the table.
struct HeldConnections {
  std::vector<MIB_TCPROW>& AlertRows;
  std::vector<int32_t>& AlertPids;
  ConnectionBreaker& breaker;
};

// What an answer works on besides the alert table: the rules and the rule list.
struct AlertServices {
  RuleStore& rules;
  RuleList& ListView1;
  UiPort& ui;
};

class frmAlert {
 public:
  // slot: the alert's index in AlertForms, by which its window is known.
  frmAlert(HeldConnections held, modPauseProcess& pause, AlertServices& services, int16_t slot)
      : main_(held), pause_(pause), services_(services), slot_(slot) {}

  // Takes the program's path, unless empty or the same path (ignoring case), and names the
  // program for the dialog.
  void SetAlertPath(const std::string& path);
  // Adds one held connection.
  void SetAlertId(int16_t id);
  void SetListViewId(int16_t index) { ListViewId = index; }
  // Not empty while the question is open; the monitor's sweep goes by it.
  const std::string& GetAlertPath() const { return AlertPath; }
  // The host name of an address for raddr; the monitor writes raddr itself instead.
  void SetRemoteAddress(uint32_t& address);
  // Resumes the program once per held connection. Despite the name it closes nothing and
  // changes no member: it serves the exit path.
  void UnloadAlertForm();

  // "Yes": the file's checksum is accepted, the program resumed once per held connection,
  // and with Remember the rule says "allow".
  void Command1_Click();
  // "No": the held connections are broken, the program resumed, and with Remember the rule
  // says "deny". The program itself runs on.
  void command2_Click();

  // Ids from index 1; index 0 is never written and stays 0.
  std::vector<int16_t> AlertIds{0};
  int16_t AlertIdCount = 0;
  std::string AlertPath;
  int16_t ListViewId = 0;
  // The program's display name, shown in lblProgram(1).
  std::string DisplayName;
  // The dialog's texts as the monitor filled them.
  AlertView view;
  // "Remember my answer, and do not ask me again for this application.": 1 ticked.
  int16_t chkRemember = 0;

 private:
  // Step 1 of both answers: the checksum of the file as it is now goes into the rule row.
  void storeChecksum();
  void resumeHeld(int16_t from);
  RuleRow* ruleRow();

  HeldConnections main_;
  modPauseProcess& pause_;
  AlertServices& services_;
  int16_t slot_;
};

}  // namespace tessmark
