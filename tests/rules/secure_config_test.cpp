// The settings digest: its two building blocks against known answers, the seal that every
// legitimate write renews, and the check at start with its recovery and its failure path.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "base/booleans.h"
#include "rules/modSetting.h"
#include "support/file_modes_bind.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

namespace fs = std::filesystem;
using testing::FileModesBind;

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
  std::string readBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  // The copies kept beside the rule file under this label.
  std::vector<fs::path> keptCopies(const std::string& label) {
    std::vector<fs::path> found;
    std::string prefix = fs::path(ruleFile()).filename().string() + "." + label + "-";
    for (const auto& entry : fs::directory_iterator(rules.folders.AppDataDir))
      if (entry.path().filename().string().rfind(prefix, 0) == 0) found.push_back(entry.path());
    return found;
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

TEST_F(SecureConfig, AnOptionChangedWhileClosedRenewsTheOptionsAndKeepsTheRulesAside) {
  const std::string rules = "\t/usr/bin/app\t-5\tallow\t1\r\n";
  writeRuleFile(rules);
  store("Options", "LogFile", "true");
  store("Options", "Speed", "5");
  secure().SaveConfigCheck();
  secure().VerifyConfig();
  ASSERT_TRUE(ui.messageBoxes.empty());

  store("Options", "LogFile", "false");  // behind the firewall's back
  secure().VerifyConfig();
  ASSERT_EQ(ui.messageBoxes.size(), 2u);
  EXPECT_FALSE(fs::exists(ruleFile()));
  // The changed rules are not used, but not lost either: the copy beside holds every byte.
  std::vector<fs::path> kept = keptCopies("changed");
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(readBytes(kept[0]), rules);
  EXPECT_NE(ui.messageBoxes[1].text.find(kept[0].string()), std::string::npos)
      << ui.messageBoxes[1].text;
  EXPECT_EQ(stored("Options", "LogFile"), "true");
  EXPECT_EQ(stored("Options", "Speed"), "3");
  EXPECT_EQ(secure().GetConfig(), secure().ComputeConfigCheck());
  EXPECT_EQ(main.InternetLocked, kFalse);

  // The copy is never loaded, and the next start is quiet.
  secure().VerifyConfig();
  EXPECT_EQ(ui.messageBoxes.size(), 2u);
}

TEST_F(SecureConfig, DeletingTheRuleFileWhileClosedIsNoticed) {
  writeRuleFile("\t/usr/bin/app\t-5\tallow\t1\r\n");
  secure().SaveConfigCheck();
  fs::remove(ruleFile());
  secure().VerifyConfig();
  EXPECT_EQ(ui.messageBoxes.size(), 1u);
}

TEST_F(SecureConfig, RulesThatCannotBeMovedAsideLockTheInternetAndTheSeal) {
  writeRuleFile("\t/usr/bin/app\t-5\tallow\t1\r\n");
  store("Options", "Speed", "9");
  // The rule file can be read but its folder takes no change: it can be neither moved aside
  // nor left in use.
  fs::permissions(rules.folders.AppDataDir, fs::perms::owner_read | fs::perms::owner_exec);
  {
    FileModesBind bind;
    secure().VerifyConfig();
  }
  fs::permissions(rules.folders.AppDataDir, fs::perms::owner_all);

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
  // Nothing seals the broken state.
  EXPECT_EQ(stored("Secure", "SecureCheck"), "<none>");
  secure().SaveConfigCheck();
  EXPECT_EQ(stored("Secure", "SecureCheck"), "<none>");
}

// A disk that hides or refuses the files is not a change: the rules stay as they are, with a
// message that names what failed, and the next start (with the disk well again) is quiet.
struct DiskFault {
  const char* name;
  void (*apply)(SecureConfig&);
  void (*undo)(SecureConfig&);
  const char* namedPath;  // "settings" or "rules": what the message must name
};

class SecureConfigDiskFault : public SecureConfig,
                              public ::testing::WithParamInterface<DiskFault> {};

TEST_P(SecureConfigDiskFault, KeepsTheRulesAndTheirBytesOverTwoStarts) {
  const std::string bytes = "\t/usr/bin/app\t-5\tdeny\t1\r\n";
  writeRuleFile(bytes);
  secure().SaveConfigCheck();
  GetParam().apply(*this);
  {
    FileModesBind bind;
    secure().VerifyConfig();
    // A remembered answer in this run does not replace the file it could not seal.
    RuleList list;
    list.Add("", "/usr/bin/other");
    SaveRuleFile(list, ruleFile(), secure());
  }
  ASSERT_EQ(ui.messageBoxes.size(), 1u) << ui.messageBoxes.back().text;
  const std::string& told = ui.messageBoxes[0].text;
  EXPECT_EQ(told.find("were changed"), std::string::npos) << told;
  std::string path = std::string(GetParam().namedPath) == "rules"
                         ? rules.folders.RuleFilePath()
                         : std::string("the settings of ") + AppTitle;
  EXPECT_NE(told.find(path), std::string::npos) << told;
  EXPECT_EQ(main.InternetLocked, kFalse);
  GetParam().undo(*this);
  EXPECT_EQ(readBytes(ruleFile()), bytes);

  secure().VerifyConfig();  // the next start
  EXPECT_EQ(ui.messageBoxes.size(), 1u) << ui.messageBoxes.back().text;
  EXPECT_EQ(readBytes(ruleFile()), bytes);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, SecureConfigDiskFault,
    ::testing::Values(
        DiskFault{"UnreadableSettings", [](SecureConfig& t) { t.sim.settingsReadsFail = true; },
                  [](SecureConfig& t) { t.sim.settingsReadsFail = false; }, "settings"},
        DiskFault{
            "UnsearchableDataFolder",
            [](SecureConfig& t) { fs::permissions(t.rules.folders.AppDataDir, fs::perms::none); },
            [](SecureConfig& t) {
              fs::permissions(t.rules.folders.AppDataDir, fs::perms::owner_all);
            },
            "rules"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(SecureConfig, ASettingsStoreThatTakesNoWriteIsNotRecoveredAtStart) {
  // The first start of a user whose settings folder is read-only: the digest is missing, but
  // nothing can renew it, so nothing is renewed and the rules stay.
  const std::string rules = "\t/usr/bin/app\t-5\tdeny\t1\r\n";
  writeRuleFile(rules);
  sim.settingsWritesFail = true;
  secure().VerifyConfig();
  ASSERT_EQ(ui.messageBoxes.size(), 1u);
  EXPECT_NE(ui.messageBoxes[0].text.find("cannot be written (the settings store"),
            std::string::npos)
      << ui.messageBoxes[0].text;
  EXPECT_EQ(readBytes(ruleFile()), rules);
  EXPECT_EQ(main.InternetLocked, kFalse);
}

TEST_F(SecureConfig, AStoreThatTakesNoWriteShowsTheErrorBox) {
  sim.settingsWritesFail = true;
  secure().SaveConfigCheck();
  ASSERT_EQ(ui.errorBoxes.size(), 1u);
  EXPECT_EQ(ui.errorBoxes[0].rfind("75\rmodSecureConfig.SaveConfigCheck\r", 0), 0u);
}

}  // namespace
}  // namespace tessmark
