#pragma once
// What the engine tells the user. The engine never touches a window: it calls this port and
// the shell shows the result on its own thread. Calls come from the engine thread, or from
// the start-up before the engine runs.

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tessmark {

// The icon of a message box; None is a plain box without one.
enum class MessageIcon { Critical, Exclamation, Information, None };

// The access alert as the monitor fills it: the texts of its controls, and which of the three
// backgrounds it shows.
enum class AlertKind { New, Changed, Repeat };
struct AlertView {
  AlertKind kind = AlertKind::New;
  std::string path;        // the program, for its icon
  std::string Label1;      // "New program", "Changed program" or "Repeat program"
  std::string lblProgram;  // the program's display name
  std::string lblDESC;     // the question
  std::string raddr;
  std::string rport;
  std::string Label2;  // the local address
  std::string localport;
};

// The closed-port notice's labels.
struct ClosedPortView {
  std::string Label1, Label2, Label3, Label4, Label5, Label6, Label7;
  std::string Check1Caption;
};

// The destructive-program notice.
struct VirusView {
  std::string caption, lblWarning;
  std::array<std::string, 3> lblRules;
  std::string txtInfo;
  std::string HyperLink1;
  std::string path;  // whose properties the link opens
};

// The rules-created notice: it closes itself after closeAfterMs.
struct RulesCreatedView {
  std::string Label1, Label2;
  uint32_t closeAfterMs = 8000;
};

// A row of the main window's connection list: the program, then SubItems 1 to 7 (local and
// remote address and port, state, protocol text, number of connections).
struct ConnectionListRow {
  std::string Text;
  std::array<std::string, 8> SubItems;  // 1..7 used
};

class UiPort {
 public:
  virtual ~UiPort() = default;
  // The main window's two numbers: connections seen and connections blocked.
  virtual void setIlabel(const std::string& text) = 0;
  virtual void setBLabel(const std::string& text) = 0;
  // The standard error box: a system-modal warning titled with the program's name.
  virtual void showErrorBox(const std::string& text) = 0;
  // A message box with one OK button, titled with the program's name. Returns once the user
  // has answered it.
  virtual void showMessageBox(const std::string& text, MessageIcon icon) = 0;
  // A button of the main window's toolbar, by its 1-based index.
  virtual void setToolbarButtonEnabled(int16_t index, bool enabled) = 0;
  // A panel of the main window's status bar, by its 1-based index.
  virtual void setStatusText(int16_t panel, const std::string& text) = 0;

  // The alert of slot `slot` of the alert table: shown without modality, or closed after
  // its answer. Its answer comes back as a command posted to the engine.
  virtual void showAlert(int16_t slot, const AlertView& view) = 0;
  virtual void closeAlert(int16_t slot) = 0;
  // The three notices; each has one window, which a second notice rewrites.
  virtual void showClosedPortNotice(const ClosedPortView& view) = 0;
  virtual void closeClosedPortNotice() = 0;
  virtual void showVirusNotice(const VirusView& view) = 0;
  virtual void showRulesCreated(const RulesCreatedView& view) = 0;
  // The settings window's "Blocked Connections" details: "All: n" CR LF "High Rated: m".
  virtual void setBlockedDetails(const std::string& text) = 0;
  // The main window's connection list, rebuilt whole; `selected` is the 1-based row to
  // select, where there is one.
  virtual void setConnectionList(const std::vector<ConnectionListRow>& rows, int32_t selected) = 0;
};

// A UI that shows nothing: for tools and benchmarks, and as a base that overrides what it
// needs.
class SilentUi : public UiPort {
 public:
  void setIlabel(const std::string&) override {}
  void setBLabel(const std::string&) override {}
  void showErrorBox(const std::string&) override {}
  void showMessageBox(const std::string&, MessageIcon) override {}
  void setToolbarButtonEnabled(int16_t, bool) override {}
  void setStatusText(int16_t, const std::string&) override {}
  void showAlert(int16_t, const AlertView&) override {}
  void closeAlert(int16_t) override {}
  void showClosedPortNotice(const ClosedPortView&) override {}
  void closeClosedPortNotice() override {}
  void showVirusNotice(const VirusView&) override {}
  void showRulesCreated(const RulesCreatedView&) override {}
  void setBlockedDetails(const std::string&) override {}
  void setConnectionList(const std::vector<ConnectionListRow>&, int32_t) override {}
};

// The classic run-time error numbers that the error box shows.
enum class ErrorNumber : int32_t {
  SubscriptOutOfRange = 9,
  DivisionByZero = 11,
  TypeMismatch = 13,
  FileNotFound = 53,
  PathFileAccessError = 75,
};

// The text of the standard error box: the error number, CR, module + "." + procedure, CR,
// and the step of the procedure that failed.
std::string ErrorBoxText(ErrorNumber number, const std::string& module,
                         const std::string& procedure, int32_t step);

}  // namespace tessmark
