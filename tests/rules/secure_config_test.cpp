// The settings digest: its two building blocks against known answers, the seal that every
// legitimate write renews, and the check at start with its recovery and its failure path.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "monitor/booleans.h"
#include "rules/modSetting.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

namespace fs = std::filesystem;

TEST(ConfigChecksum, IsCrc16Umts) {
  // The check value of CRC-16/UMTS (also called CRC-16/BUYPASS).
  EXPECT_EQ(modSecureConfig::GetCRC32("123456789"), 0xFEE8);
  EXPECT_EQ(modSecureConfig::GetCRC32(""), 0);
  EXPECT_EQ(modSecureConfig::GetCRC32(std::string("\x00", 1)), 0);
}

TEST(ConfigCode, CombinesWithTheKeyAndRepeatsIt) {
  std::string key = modSecureConfig::ConfigKey;
  // '1'^'q', '2'^'w', '3'^'p', '4'^'r', '5'^'7'.
  EXPECT_EQ(modSecureConfig::NamCode("12345", key), "@ECF\x02");
  EXPECT_EQ(key, modSecureConfig::ConfigKey);
  // A fifth digit 7 meets the key's 7: the digest holds a NUL.
  EXPECT_EQ(modSecureConfig::NamCode("00007", key), std::string("AG@B\0", 5));

  std::string shortKey = "ab";
  EXPECT_EQ(modSecureConfig::NamCode("aaaaa", shortKey), std::string("\0\x03\0\x03\0", 5));
  EXPECT_EQ(shortKey, "ababa");
  std::string again = "ab";
  EXPECT_EQ(modSecureConfig::NamCode(std::string("\0\x03\0\x03\0", 5), again), "aaaaa");
}

class SecureConfig : public ::testing::Test, public testing::SimMonitor {
 protected:
  void SetUp() override { fs::create_directories(rules.folders.AppDataDir); }
  modSecureConfig& secure() { return rules.secureConfig; }
  std::string stored(const std::string& section, const std::string& key) {
    return sim.readSetting(AppTitle, section, key).value_or("<none>");
  }
  void store(const std::string& section, const std::string& key, const std::string& value) {
    sim.writeSetting(AppTitle, section, key, value);
  }
  std::string ruleFile() { return rules.folders.RuleFilePath(); }
  void writeRuleFile(const std::string& bytes) {
    std::ofstream(ruleFile(), std::ios::binary | std::ios::trunc) << bytes;
  }
  // The digest as an outsider computes it: CRC-16/UMTS of the joined text, in decimal,
  // combined with the key.
  static std::string digestOf(const std::string& joined) {
    std::string key = modSecureConfig::ConfigKey;
    return modSecureConfig::NamCode(std::to_string(modSecureConfig::GetCRC32(joined)), key);
  }
};

TEST_F(SecureConfig, DigestJoinsTheOptionsAndTheRuleFileChecksum) {
  // Nothing stored and no rule file: the digest of "" is "0" combined with 'q'.
  EXPECT_EQ(secure().ComputeConfigCheck(), "A");

  store("Options", "XP FW", "1");
  store("Options", "CheckAuto", "true");
  store("Options", "Speed", "3");
  store("Options", "AlertDialogs", "show");
  store("Options", "LogFile", "false");
  store("Ports", "Ports", "10000000000000000");
  EXPECT_EQ(secure().ComputeConfigCheck(), digestOf("1true3showfalse10000000000000000"));

  // An empty rule file has the checksum 0, which a missing one does not add.
  writeRuleFile("");
  EXPECT_EQ(secure().ComputeConfigCheck(), digestOf("1true3showfalse100000000000000000"));
  // "123456789" has the checksum CBF43926, negative when held signed.
  writeRuleFile("123456789");
  EXPECT_EQ(secure().ComputeConfigCheck(), digestOf("1true3showfalse10000000000000000-873187034"));
}

TEST_F(SecureConfig, ValuesAreJoinedWithoutSeparators) {
  store("Options", "Speed", "31");
  store("Options", "AlertDialogs", "show");
  std::string before = secure().ComputeConfigCheck();
  store("Options", "Speed", "3");
  store("Options", "AlertDialogs", "1show");
  EXPECT_EQ(secure().ComputeConfigCheck(), before);
}

TEST_F(SecureConfig, FirstStartRecoversOnceAndThenStaysQuiet) {
  secure().VerifyConfig();
  ASSERT_EQ(ui.messageBoxes.size(), 1u);
  EXPECT_EQ(ui.messageBoxes[0].text,
            "The settings of Tessmark Personal Firewall were changed! For security purposes the "
            "settings will now renewed.");
  EXPECT_EQ(ui.messageBoxes[0].icon, MessageIcon::Critical);
  EXPECT_EQ(stored("Options", "XP FW"), "");
  EXPECT_EQ(stored("Options", "CheckAuto"), "true");
  EXPECT_EQ(stored("Options", "Speed"), "3");
  EXPECT_EQ(stored("Options", "AlertDialogs"), "show");
  EXPECT_EQ(stored("Options", "LogFile"), "true");
  EXPECT_EQ(stored("Ports", "Ports"), "");
  EXPECT_EQ(stored("Secure", "SecureCheck"), digestOf("true3showtrue"));

  secure().VerifyConfig();
  EXPECT_EQ(ui.messageBoxes.size(), 1u);
  EXPECT_EQ(main.InternetLocked, kFalse);
}

TEST_F(SecureConfig, AnOptionChangedWhileClosedCostsTheRulesAndTheOptions) {
  writeRuleFile("\t/usr/bin/app\t-5\tallow\t1\r\n");
  store("Options", "LogFile", "true");
  store("Options", "Speed", "5");
  secure().SaveConfigCheck();
  secure().VerifyConfig();
  ASSERT_TRUE(ui.messageBoxes.empty());

  store("Options", "LogFile", "false");  // behind the firewall's back
  secure().VerifyConfig();
  ASSERT_EQ(ui.messageBoxes.size(), 1u);
  EXPECT_FALSE(fs::exists(ruleFile()));
  EXPECT_EQ(stored("Options", "LogFile"), "true");
  EXPECT_EQ(stored("Options", "Speed"), "3");
  EXPECT_EQ(secure().GetConfig(), secure().ComputeConfigCheck());
  EXPECT_EQ(main.InternetLocked, kFalse);
}

TEST_F(SecureConfig, DeletingTheRuleFileWhileClosedIsNoticed) {
  writeRuleFile("\t/usr/bin/app\t-5\tallow\t1\r\n");
  secure().SaveConfigCheck();
  fs::remove(ruleFile());
  secure().VerifyConfig();
  EXPECT_EQ(ui.messageBoxes.size(), 1u);
}

TEST_F(SecureConfig, AFailedDeletionLocksTheInternetAndTheSeal) {
  // A rule file that cannot be deleted: its name is taken by a folder that is not empty.
  fs::create_directories(ruleFile() + "/held");
  store("Options", "Speed", "9");
  secure().VerifyConfig();

  ASSERT_EQ(ui.messageBoxes.size(), 2u);
  EXPECT_EQ(ui.messageBoxes[1].text,
            "Deletion of \"Tessmark Personal Firewall.dat\" failed. Please reboot your "
            "computer.\r\n\r\nThe internet connections will be closed for safety reasons.");
  EXPECT_EQ(ui.messageBoxes[1].icon, MessageIcon::Critical);
  EXPECT_EQ(secure().ConfigSaveLocked, kTrue);
  EXPECT_EQ(main.InternetLocked, kTrue);
  EXPECT_EQ(ui.toolbar, (std::map<int16_t, bool>{{3, false}, {6, false}}));
  EXPECT_EQ(ui.status[1],
            "internet connections are closed for safety reasons. Please reboot your PC!");
  // The options were not restored, and nothing seals the broken state.
  EXPECT_EQ(stored("Options", "Speed"), "9");
  EXPECT_EQ(stored("Secure", "SecureCheck"), "<none>");
  secure().SaveConfigCheck();
  EXPECT_EQ(stored("Secure", "SecureCheck"), "<none>");
}

TEST_F(SecureConfig, AStoreThatTakesNoWriteShowsTheErrorBox) {
  sim.settingsWritesFail = true;
  secure().SaveConfigCheck();
  ASSERT_EQ(ui.errorBoxes.size(), 1u);
  EXPECT_EQ(ui.errorBoxes[0].rfind("75\rmodSecureConfig.SaveConfigCheck\r", 0), 0u);
}

}  // namespace
}  // namespace tessmark
