#pragma once
// frmAlert, the state side of the access alert: which program it asks about and which held
// connections (alert ids) it stands for. An instance outlives its window; it stays in the
// monitor's AlertForms until the alert table is rebuilt.

#include <cstdint>
#include <string>
#include <vector>

#include "monitor/modmain.h"
#include "process/modPauseProcess.h"

namespace tessmark {

class frmAlert {
 public:
  frmAlert(modmain& main, modPauseProcess& pause) : main_(main), pause_(pause) {}

  // Takes the program's path, unless empty or the same path (ignoring case).
  void SetAlertPath(const std::string& path);
  // Adds one held connection.
  void SetAlertId(int16_t id);
  void SetListViewId(int16_t index) { ListViewId = index; }
  // Not empty while the question is open; the monitor's sweep goes by it.
  const std::string& GetAlertPath() const { return AlertPath; }
  // Resumes the program once per held connection. Despite the name it closes nothing and
  // changes no member: it serves the exit path.
  void UnloadAlertForm();

  // Ids from index 1; index 0 is never written and stays 0.
  std::vector<int16_t> AlertIds{0};
  int16_t AlertIdCount = 0;
  std::string AlertPath;
  int16_t ListViewId = 0;

 private:
  modmain& main_;
  modPauseProcess& pause_;
};

}  // namespace tessmark
