#pragma once
// modSecureConfig: one digest over every option and the rule file, so that a change made
// behind the firewall's back is found at the next start. Every legitimate write of a setting
// or of the rule file reseals; the start compares, and on a difference the rules and options
// go back to their defaults. When even that fails, the Internet is locked.

#include <cstdint>
#include <string>

#include "base/ui_port.h"
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
  // The same, with the file at `ruleFile` standing in for the rule file, and `pending` (when
  // given) for the stored value it names.
  std::string ComputeConfigCheckWith(const std::string& ruleFile,
                                     const platform::SettingsStore::Setting* pending = nullptr);
  // Stores a sealed option and the digest over it in one write, so that no crash leaves the
  // option without its seal. False, with the fault told, when the store takes no write or the
  // seal cannot be renewed in this run: the option then holds until the firewall ends.
  bool SaveSealedSetting(const std::string& section, const std::string& key,
                         const std::string& value);
  // Stores a fresh digest, unless the failed recovery locked the settings or a fault of the
  // disk keeps the seal from being checked.
  void SaveConfigCheck();
  // Stores this digest; false, with the fault told, when the store takes no write.
  bool StoreDigest(const std::string& digest);
  // The stored digest, "" when none.
  std::string GetConfig();
  // The check at start, with the recovery on a difference. A fault of the disk (settings or
  // rule file that cannot be read, settings that cannot be written) is told and is not a
  // difference: the rules stand as they are, unsealed and unchanged, for this run.
  void VerifyConfig();

  // Shows `text` about the fault of the disk `fault`, unless that fault is the one told last:
  // a fault that stays is told once, not at each remembered answer.
  void TellFault(const std::string& fault, const std::string& text);

  // Set by the failed recovery only, and never cleared: the broken state is not sealed.
  int16_t ConfigSaveLocked = 0;
  // Why the seal can be neither checked nor renewed in this run, "" when it can. While it is
  // set nothing is resealed and the rule file is not replaced, so that a fault of the disk
  // never reads as a change at the next start.
  std::string SealFault;

 private:
  platform::SettingsStore& store_;
  modChecksum& checksum_;
  UiPort& ui_;
  const AppFolders& folders_;
  int16_t& locked_;
  std::string lastFaultTold_;

  bool RestoreOptions();
  void LockAfterFailedRecovery();
};

}  // namespace tessmark
