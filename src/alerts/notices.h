#pragma once
// The three notices of what the firewall did without asking: a connection to a closed
// service broken (frmClosedPort), a destructive program ended (frmVirus), rules made from the
// list of known programs (frmInfo). None waits for an answer or changes a decision; each has
// one window, which a second notice rewrites.

#include <cstdint>
#include <string>

#include "base/ui_port.h"
#include "platform/platform.h"
#include "rules/modSecureConfig.h"

namespace tessmark {

// The part of a path behind its last folder separator.
std::string FileNameOf(const std::string& path);

class frmClosedPort {
 public:
  // Check2: the settings window's "Show all Alert Dialogs" box, which "Don't show this
  // Dialog again." unticks.
  frmClosedPort(UiPort& ui, platform::SettingsStore& store, modSecureConfig& secure,
                int16_t& Check2)
      : ui_(ui), store_(store), secure_(secure), Check2_(Check2) {}

  // Fills the labels and shows the window.
  void ShowPortAlert(int32_t& port, const std::string& path, const std::string& remoteAddress);
  // The close button: with Check1 ticked the notice is switched off for good.
  void Command1_Click();

  ClosedPortView view;
  int16_t Check1 = 0;

 private:
  UiPort& ui_;
  platform::SettingsStore& store_;
  modSecureConfig& secure_;
  int16_t& Check2_;
};

class frmVirus {
 public:
  explicit frmVirus(UiPort& ui) : ui_(ui) {}
  // Fills the texts; Show() then shows the window.
  void frmVirusShow(const std::string& path, int32_t& crc, const std::string& description,
                    int32_t& pid);
  void Show() { ui_.showVirusNotice(view); }

  VirusView view;
  std::string Path;  // for the file-properties link

 private:
  UiPort& ui_;
};

class frmInfo {
 public:
  explicit frmInfo(UiPort& ui) : ui_(ui) {}
  // Fills the labels; the window shows itself and closes after 8 seconds.
  void RulesCreated(const std::string& path);

  RulesCreatedView view;

 private:
  UiPort& ui_;
};

}  // namespace tessmark
