// The rule file: the exact bytes written, what the reader makes of every kind of line, paths
// as bytes, and the reseal that follows every write.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "monitor/booleans.h"
#include "rules/modSetting.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

namespace fs = std::filesystem;

class RuleFile : public ::testing::Test, public testing::SimMonitor {
 protected:
  void SetUp() override { fs::create_directories(rules.folders.AppDataDir); }
  std::string path() { return rules.folders.RuleFilePath(); }
  void write(const std::string& bytes) {
    std::ofstream(path(), std::ios::binary | std::ios::trunc) << bytes;
  }
  std::string read() {
    std::ifstream in(path(), std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
  }
  void add(RuleList& list, const std::string& path, const std::string& crc,
           const std::string& access, const std::string& id) {
    list.Add("", path);
    auto& row = list.Item(list.Count());
    row.SubItems[1] = crc;
    row.SubItems[2] = access;
    row.SubItems[3] = id;
  }
  // Every cell of a row, Key first.
  static std::vector<std::string> cells(const RuleRow& row) {
    return {row.Key, row.Text, row.SubItems[1], row.SubItems[2], row.SubItems[3]};
  }
  RuleList list;
};

TEST_F(RuleFile, WritesOneTabSeparatedLinePerRowWithCrLf) {
  add(list, "/usr/bin/firefox", "-873187034", "allow", "1");
  add(list, "/opt/Mail Client/mail", "12", "deny", "2");
  add(list, "/usr/bin/ssh", "0", "ask", "3");
  SaveRuleFile(list, path(), rules.secureConfig);
  EXPECT_EQ(read(),
            "\t/usr/bin/firefox\t-873187034\tallow\t1\r\n"
            "\t/opt/Mail Client/mail\t12\tdeny\t2\r\n"
            "\t/usr/bin/ssh\t0\task\t3\r\n");
}

TEST_F(RuleFile, AnEmptyListWritesAnEmptyFileThatTheDigestStillCovers) {
  SaveRuleFile(list, path(), rules.secureConfig);
  EXPECT_TRUE(fs::exists(path()));
  EXPECT_EQ(fs::file_size(path()), 0u);
  // The empty file's checksum 0 is part of the sealed text.
  std::string key = modSecureConfig::ConfigKey;
  EXPECT_EQ(rules.secureConfig.GetConfig(),
            modSecureConfig::NamCode(std::to_string(modSecureConfig::GetCRC32("0")), key));
}

TEST_F(RuleFile, EveryWriteReseals) {
  add(list, "/usr/bin/app", "5", "ask", "1");
  SaveRuleFile(list, path(), rules.secureConfig);
  std::string first = rules.secureConfig.GetConfig();
  EXPECT_EQ(first, rules.secureConfig.ComputeConfigCheck());
  list.Item(1).SubItems[2] = AccessAllow;
  SaveRuleFile(list, path(), rules.secureConfig);
  EXPECT_EQ(rules.secureConfig.GetConfig(), rules.secureConfig.ComputeConfigCheck());
  EXPECT_EQ(sim.settingsWrites, 2);
}

TEST_F(RuleFile, AFailedWriteStillReseals) {
  fs::remove_all(rules.folders.AppDataDir);  // nowhere to write
  add(list, "/usr/bin/app", "5", "ask", "1");
  SaveRuleFile(list, path(), rules.secureConfig);
  EXPECT_FALSE(fs::exists(path()));
  EXPECT_EQ(sim.settingsWrites, 1);
}

TEST_F(RuleFile, ReadsEveryKindOfLineWithoutComplaint) {
  write(
      "\t/usr/bin/app\t-5\tallow\t1\r\n"        // a plain row
      "\t/usr/bin/short\t7\r\n"                 // too few fields: padded
      "k\t/usr/bin/long\t1\tdeny\t4\tx\ty\r\n"  // too many: cut behind the fifth
      "no tab at all\r\n"                       // the whole line is the key
      "\r\n"                                    // an empty line: a row with no path
      "\t/usr/bin/last\t-0\tmaybe\t9");         // no line end at the end of the file
  LoadRuleFile(list, path(), kFalse);
  ASSERT_EQ(list.Count(), 6);
  using Cells = std::vector<std::string>;
  EXPECT_EQ(cells(list.Item(1)), (Cells{"", "/usr/bin/app", "-5", "allow", "1"}));
  EXPECT_EQ(cells(list.Item(2)), (Cells{"", "/usr/bin/short", "7", "", ""}));
  EXPECT_EQ(cells(list.Item(3)), (Cells{"k", "/usr/bin/long", "1", "deny", "4"}));
  EXPECT_EQ(cells(list.Item(4)), (Cells{"no tab at all", "", "", "", ""}));
  EXPECT_EQ(cells(list.Item(5)), (Cells{"", "", "", "", ""}));
  EXPECT_EQ(cells(list.Item(6)), (Cells{"", "/usr/bin/last", "-0", "maybe", "9"}));
}

TEST_F(RuleFile, PathsAreBytesAndComeBackUnchanged) {
  std::string odd = "/home/j\xc3\xbcrgen/\xff\x80 bin/new\nline=;#[x]";
  add(list, odd, "-1", "allow", "1");
  SaveRuleFile(list, path(), rules.secureConfig);
  RuleList back;
  LoadRuleFile(back, path(), kFalse);
  ASSERT_EQ(back.Count(), 1);
  EXPECT_EQ(back.Item(1).Text, odd);
  EXPECT_EQ(FormatRuleFile(back), FormatRuleFile(list));
}

TEST_F(RuleFile, AMissingFileLeavesTheListAsItIs) {
  add(list, "/usr/bin/kept", "1", "allow", "1");
  LoadRuleFile(list, path(), kFalse);
  EXPECT_EQ(list.Count(), 1);
}

TEST_F(RuleFile, TheAppendFlagKeepsTheRowsThereAre) {
  write("\t/usr/bin/b\t2\tdeny\t1\r\n");
  add(list, "/usr/bin/a", "1", "allow", "1");
  LoadRuleFile(list, path(), kTrue);
  ASSERT_EQ(list.Count(), 2);
  EXPECT_EQ(list.Item(2).Text, "/usr/bin/b");
  LoadRuleFile(list, path(), kFalse);
  ASSERT_EQ(list.Count(), 1);
  EXPECT_EQ(list.Item(1).Text, "/usr/bin/b");
}

TEST_F(RuleFile, AReadOnlyFileIsMadeWritableBeforeItIsRewritten) {
  write("\t/usr/bin/a\t1\tallow\t1\r\n");
  fs::permissions(path(), fs::perms::owner_read | fs::perms::group_read);
  add(list, "/usr/bin/b", "2", "deny", "1");
  SaveRuleFile(list, path(), rules.secureConfig);
  EXPECT_EQ(read(), "\t/usr/bin/b\t2\tdeny\t1\r\n");
  auto perms = fs::status(path()).permissions();
  EXPECT_NE(perms & fs::perms::owner_write, fs::perms::none);
}

TEST_F(RuleFile, SavingTheApplicationRulesJudgesTheLiveConnectionsAgain) {
  program(42, "/usr/bin/app");
  tcp(42, 50000);
  tcp(42, 50001);
  main.GetTCPConnections(kTrue, kTrue);
  add(monitor.ListView1, "/usr/bin/app", "1", "deny", "1");
  monitor.SaveApplicationRules();
  EXPECT_EQ(read(), "\t/usr/bin/app\t1\tdeny\t1\r\n");
  EXPECT_EQ(monitor.TcpLastIndex, 1);
}

TEST(RuleListLookup, FirstMatchWinsIgnoringCase) {
  RuleList list;
  list.Add("", "/usr/bin/App");
  list.Add("", "/usr/bin/app");
  list.Add("", "/usr/bin/other");
  EXPECT_EQ(list.FindPath("/USR/BIN/APP"), 1);
  EXPECT_EQ(list.FindPath("/usr/bin/other"), 3);
  EXPECT_EQ(list.FindPath("/usr/bin/app "), 0);
  list.Remove(1);
  EXPECT_EQ(list.FindPath("/usr/bin/app"), 1);
  EXPECT_EQ(list.ColumnHeaders,
            (std::vector<std::string>{"Program path", "CRC32-Hash", "Access", "ID"}));
}

TEST(RuleListLookup, HoldsAtMost32767Rows) {
  RuleList list;
  for (int i = 0; i < 32767; ++i) ASSERT_TRUE(list.Add("", "p"));
  EXPECT_FALSE(list.Add("", "p"));
  EXPECT_EQ(list.Count(), 32767);
  // A full list is written whole: its row counter does not wrap.
  std::string text = FormatRuleFile(list);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 32767);
}

}  // namespace
}  // namespace tessmark
