#include "rules/modSecureConfig.h"

#include <filesystem>
#include <system_error>

#include "base/booleans.h"
#include "rules/durable_file.h"
#include "rules/modSetting.h"
#include "rules/rule_file_commit.h"

namespace tessmark {

namespace {

// The keys the digest covers, in the order their values are joined.
struct SealedKey {
  const char* section;
  const char* key;
  const char* recoveryValue;
};
constexpr SealedKey kSealedKeys[] = {
    {"Options", "XP FW", ""},       {"Options", "CheckAuto", "true"},
    {"Options", "Speed", "3"},      {"Options", "AlertDialogs", "show"},
    {"Options", "LogFile", "true"}, {"Ports", "Ports", ""},
};

}  // namespace

std::string modSecureConfig::NamCode(const std::string& text, std::string& key) {
  if (key.empty()) return text;  // nothing to combine with; the system's key is never empty
  const size_t length = key.size();
  for (size_t i = length; i < text.size(); ++i) key.push_back(key[i % length]);
  std::string result(text.size(), '\0');
  for (size_t i = 0; i < text.size(); ++i) result[i] = static_cast<char>(text[i] ^ key[i]);
  return result;
}

int32_t modSecureConfig::GetCRC32(const std::string& text) {
  uint32_t reg = 0;
  for (unsigned char byte : text) {
    for (int bit = 7; bit >= 0; --bit) {
      bool dataBit = (byte >> bit) & 1;
      bool topBit = (reg >> 15) & 1;
      reg = (reg & 0x7FFF) << 1;
      if (dataBit != topBit) reg ^= 0x8005;
    }
  }
  return static_cast<int32_t>(reg);
}

std::string modSecureConfig::ComputeConfigCheck() {
  return ComputeConfigCheckWith(folders_.RuleFilePath());
}

std::string modSecureConfig::ComputeConfigCheckWith(
    const std::string& ruleFile, const platform::SettingsStore::Setting* pending) {
  std::string joined;
  for (const auto& sealed : kSealedKeys) {
    bool replaced = pending && pending->section == sealed.section && pending->key == sealed.key;
    joined += replaced ? pending->value : GetSetting(store_, sealed.section, sealed.key, "");
  }
  std::error_code error;
  if (std::filesystem::exists(ruleFile, error)) {
    ClearFileAttributes(ruleFile);
    joined += std::to_string(checksum_.CRC32File(ruleFile, kFalse, kFalse));
  }
  std::string key = ConfigKey;
  return NamCode(std::to_string(GetCRC32(joined)), key);
}

void modSecureConfig::SaveConfigCheck() {
  if (ConfigSaveLocked != kFalse || !SealFault.empty()) return;
  if (!SaveSetting(store_, "Secure", "SecureCheck", ComputeConfigCheck()))
    ui_.showErrorBox(
        ErrorBoxText(ErrorNumber::PathFileAccessError, "modSecureConfig", "SaveConfigCheck", 1));
}

bool modSecureConfig::StoreDigest(const std::string& digest) {
  if (SaveSetting(store_, "Secure", "SecureCheck", digest)) return true;
  const std::string fault = store_.lastWriteFault();
  TellFault(fault, "The settings of " + AppTitle + " cannot be written (" + fault +
                       "). Changes to the rules hold until the firewall ends.");
  return false;
}

bool modSecureConfig::SaveSealedSetting(const std::string& section, const std::string& key,
                                        const std::string& value) {
  // The broken state after a failed recovery is never sealed, but its options still count.
  if (ConfigSaveLocked != kFalse) return SaveSetting(store_, section, key, value);
  if (!SealFault.empty()) return false;  // told at start
  platform::SettingsStore::Setting setting{section, key, value};
  std::string digest = ComputeConfigCheckWith(folders_.RuleFilePath(), &setting);
  if (store_.writeSettings(AppTitle, {setting, {"Secure", "SecureCheck", digest}})) return true;
  const std::string fault = store_.lastWriteFault();
  TellFault(fault, "The settings of " + AppTitle + " cannot be written (" + fault +
                       "). The change holds until the firewall ends.");
  return false;
}

std::string modSecureConfig::GetConfig() {
  return GetSetting(store_, "Secure", "SecureCheck", "");
}

void modSecureConfig::TellFault(const std::string& fault, const std::string& text) {
  if (fault == lastFaultTold_) return;
  lastFaultTold_ = fault;
  ui_.showMessageBox(text, MessageIcon::Exclamation);
}

void modSecureConfig::VerifyConfig() {
  const std::string ruleFile = folders_.RuleFilePath();
  // Settings that cannot be read hold a digest nobody can see, and a rule file that cannot
  // be read has a checksum nobody can take: neither is a change, and the recovery would
  // destroy rules the disk merely hides.
  if (std::string fault = store_.readFault(AppTitle); !fault.empty()) {
    SealFault = fault;
    TellFault(fault,
              "The settings of " + AppTitle + " cannot be read (" + fault +
                  "). The rules are used as they are, and no change is saved until the settings "
                  "can be read.");
    return;
  }
  ClearFileAttributes(ruleFile);
  if (std::string fault = ReadFault(ruleFile); !fault.empty()) {
    SealFault = fault;
    TellFault(fault,
              "The rules of " + AppTitle + " cannot be read (" + fault +
                  "). No rule is loaded, and no change is saved until the file can be read.");
    return;
  }
  FinishRuleFileCommit(ruleFile, *this);
  if (GetConfig() == ComputeConfigCheck()) return;

  // The options go back first: a store that takes no write at all is a fault of the disk,
  // found before anything is changed.
  if (!SaveSetting(store_, kSealedKeys[0].section, kSealedKeys[0].key,
                   kSealedKeys[0].recoveryValue)) {
    SealFault = store_.lastWriteFault();
    TellFault(SealFault,
              "The settings of " + AppTitle + " cannot be written (" + SealFault +
                  "). The rules are used as they are, and no change is saved until the settings "
                  "can be written.");
    return;
  }
  ui_.showMessageBox("The settings of " + AppTitle +
                         " were changed! For security purposes the settings will now renewed.",
                     MessageIcon::Critical);
  if (!RestoreOptions()) return LockAfterFailedRecovery();
  // The changed rules are not used again, but kept beside, so that no rule a user gave is
  // ever lost.
  std::error_code error;
  if (std::filesystem::exists(std::filesystem::symlink_status(ruleFile, error))) {
    std::string kept;
    if (!KeepAside(ruleFile, "changed", false, kept).empty()) return LockAfterFailedRecovery();
    ui_.showMessageBox(
        "The rules that were changed are kept in \"" + kept + "\" and are not used again.",
        MessageIcon::Information);
  }
  SaveConfigCheck();
}

bool modSecureConfig::RestoreOptions() {
  for (const auto& sealed : kSealedKeys)
    if (!SaveSetting(store_, sealed.section, sealed.key, sealed.recoveryValue)) return false;
  return true;
}

void modSecureConfig::LockAfterFailedRecovery() {
  // Nothing may seal this state, and the user must not be able to unlock the Internet.
  ConfigSaveLocked = kTrue;
  ui_.showMessageBox("Deletion of \"" + AppTitle +
                         ".dat\" failed. Please reboot your computer.\r\n\r\nThe internet "
                         "connections will be closed for safety reasons.",
                     MessageIcon::Critical);
  locked_ = kTrue;
  ui_.setToolbarButtonEnabled(3, false);
  ui_.setToolbarButtonEnabled(6, false);
  ui_.setStatusText(1,
                    "internet connections are closed for safety reasons. Please reboot your PC!");
}

}  // namespace tessmark
