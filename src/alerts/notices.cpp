#include "alerts/notices.h"

#include "base/booleans.h"
#include "rules/app_settings.h"
#include "rules/modClosePorts.h"

namespace tessmark {

std::string FileNameOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

void frmClosedPort::ShowPortAlert(int32_t& port, const std::string& path,
                                  const std::string& remoteAddress) {
  view.Label1 = "Protected";
  view.Label2 = AppTitle + " closed port " + std::to_string(port) + " for safety reasons.";
  view.Label3 = modClosePorts::GetPortName(port);
  view.Label4 = "Information";
  // An empty path leaves the label as it was.
  if (!path.empty()) view.Label5 = "Program: " + path;
  view.Label6 = "Remote Ip:";
  view.Label7 = remoteAddress;
  view.Check1Caption = "Don't show this Dialog again.";
  ui_.showClosedPortNotice(view);
}

void frmClosedPort::Command1_Click() {
  if (Check1 == 1) {
    Check2_ = 0;
    secure_.SaveSealedSetting("Options", "AlertDialogs", "hide");
  }
  ui_.closeClosedPortNotice();
}

void frmVirus::frmVirusShow(const std::string& path, int32_t& crc, const std::string& description,
                            int32_t&) {
  Path = path;
  view.path = path;
  view.caption = "Destructive program detected!";
  view.lblWarning =
      AppTitle + " has found a destructive program, which has tried to access the Internet!";
  view.lblRules = {
      "- A new rule was automatically created for this program. The program will not able to "
      "access the internet!",
      "- The program has been ended",
      "Please check your system with the latest \"Anti-Virus\" software!"};
  view.txtInfo = "Program: " + path + "\r\nChecksum: " + std::to_string(crc) +
                 "\r\nDescription: " + description;
  view.HyperLink1 = "File Info (Click here)";
}

void frmInfo::RulesCreated(const std::string& path) {
  view.Label1 = "Application Rules created";
  view.Label2 = FileNameOf(path);
  view.closeAfterMs = 8000;
  ui_.showRulesCreated(view);
}

}  // namespace tessmark
