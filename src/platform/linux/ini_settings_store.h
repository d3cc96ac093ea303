#pragma once
// The settings store on Linux: one INI file per user and application,
// $XDG_CONFIG_HOME/<application>/<application>.conf ($XDG_CONFIG_HOME defaults to ~/.config),
// with sections and keys as the firewall names them.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/platform.h"

namespace tessmark::platform::linux_backend {

// The parsed contents of one settings file: section -> key -> value, all byte strings.
using IniContents = std::map<std::string, std::map<std::string, std::string>>;

// Reads the text of a settings file. Never fails: a line it cannot read is passed over.
IniContents ParseIni(std::string_view text);
// The text of a settings file that ParseIni gives back exactly.
std::string FormatIni(const IniContents& contents);

class IniSettingsStore final : public SettingsStore {
 public:
  // configHome: the folder that holds one sub-folder per application; empty means
  // $XDG_CONFIG_HOME, else $HOME/.config, looked up at each call.
  explicit IniSettingsStore(std::string configHome = {}) : configHome_(std::move(configHome)) {}

  std::optional<std::string> readSetting(const std::string& application, const std::string& section,
                                         const std::string& key) override;
  bool writeSetting(const std::string& application, const std::string& section,
                    const std::string& key, const std::string& value) override;

  bool writeSettings(const std::string& application, const std::vector<Setting>& settings) override;
  std::string readFault(const std::string& application) override;
  std::string lastWriteFault() override { return lastWriteFault_; }

  // The file that holds the application's settings; "" when no folder can be named.
  std::string filePath(const std::string& application) const;

 private:
  std::string configHome_;
  std::string lastWriteFault_;
};

}  // namespace tessmark::platform::linux_backend
