#pragma once
// modSecureConfig: one digest over every option and the rule file, so that a change made
// behind the firewall's back is found at the next start. Every legitimate write of a setting
// or of the rule file reseals; the start compares, and on a difference the rules and options
// go back to their defaults. When even that fails, the Internet is locked.

#include <cstdint>
#include <string>

#include "monitor/ui_port.h"
#include "platform/platform.h"
#include "rules/app_settings.h"
#include "rules/modChecksum.h"

namespace tessmark {

class modSecureConfig {
 public:
  // The key of NamCode.
  static inline const std::string ConfigKey = "qwpr7tz5m1bxc83lurwkkyu96ds185n6m7v358914c#lk";

  // InternetLocked: the run state that the failed recovery sets.
  modSecureConfig(platform::SettingsStore& store, modChecksum& checksum, UiPort& ui,
                  const AppFolders& folders, int16_t& InternetLocked)
      : store_(store), checksum_(checksum), ui_(ui), folders_(folders), locked_(InternetLocked) {}

  // Each character of the text combined by exclusive-or with the key's character at the same
  // place; the key is lengthened by repeating itself when the text is longer.
  static std::string NamCode(const std::string& text, std::string& key);
  // CRC-16/UMTS of the bytes (polynomial 8005, initial value 0, no reflection, no final
  // exclusive-or), in 0 to 65535.
  static int32_t GetCRC32(const std::string& text);

  // The digest of the store and the rule file as they are now.
  std::string ComputeConfigCheck();
  // Stores a fresh digest, unless the failed recovery locked the settings.
  void SaveConfigCheck();
  // The stored digest, "" when none.
  std::string GetConfig();
  // The check at start, with the recovery on a difference.
  void VerifyConfig();

  // Set by the failed recovery only, and never cleared: the broken state is not sealed.
  int16_t ConfigSaveLocked = 0;

 private:
  platform::SettingsStore& store_;
  modChecksum& checksum_;
  UiPort& ui_;
  const AppFolders& folders_;
  int16_t& locked_;
};

}  // namespace tessmark
