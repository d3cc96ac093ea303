#include "rules/modSecureConfig.h"

#include <filesystem>
#include <system_error>

#include "monitor/booleans.h"
#include "rules/modSetting.h"

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
  std::string joined;
  for (const auto& sealed : kSealedKeys)
    joined += GetSetting(store_, sealed.section, sealed.key, "");
  std::string ruleFile = folders_.RuleFilePath();
  std::error_code error;
  if (std::filesystem::exists(ruleFile, error)) {
    ClearFileAttributes(ruleFile);
    joined += std::to_string(checksum_.CRC32File(ruleFile, kFalse, kFalse));
  }
  std::string key = ConfigKey;
  return NamCode(std::to_string(GetCRC32(joined)), key);
}

void modSecureConfig::SaveConfigCheck() {
  if (ConfigSaveLocked != kFalse) return;
  if (!SaveSetting(store_, "Secure", "SecureCheck", ComputeConfigCheck()))
    ui_.showErrorBox(
        ErrorBoxText(ErrorNumber::PathFileAccessError, "modSecureConfig", "SaveConfigCheck", 1));
}

std::string modSecureConfig::GetConfig() {
  return GetSetting(store_, "Secure", "SecureCheck", "");
}

void modSecureConfig::VerifyConfig() {
  if (GetConfig() == ComputeConfigCheck()) return;
  ui_.showMessageBox("The settings of " + AppTitle +
                         " were changed! For security purposes the settings will now renewed.",
                     MessageIcon::Critical);
  bool failed = false;
  std::string ruleFile = folders_.RuleFilePath();
  std::error_code error;
  if (std::filesystem::exists(ruleFile, error))
    failed = !std::filesystem::remove(ruleFile, error) || error;
  for (size_t i = 0; !failed && i < std::size(kSealedKeys); ++i)
    failed = !SaveSetting(store_, kSealedKeys[i].section, kSealedKeys[i].key,
                          kSealedKeys[i].recoveryValue);
  if (!failed) {
    SaveConfigCheck();
    return;
  }
  // The recovery failed, most likely because the rule file could not be deleted. Nothing
  // may seal this state, and the user must not be able to unlock the Internet.
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
