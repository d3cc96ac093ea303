// The rule file: the exact bytes written, what the reader makes of every kind of line, paths
// as bytes, and the reseal that follows every write.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "base/booleans.h"
#include "rules/modSetting.h"
#include "rules/rule_file_commit.h"
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

TEST_F(RuleFile, AFailedWriteLeavesTheOldRulesSealedAndSaysWhereOnce) {
  add(list, "/usr/bin/app", "5", "ask", "1");
  SaveRuleFile(list, path(), rules.secureConfig);
  const std::string seal = rules.secureConfig.GetConfig();
  fs::remove_all(rules.folders.AppDataDir);  // nowhere to write
  list.Item(1).SubItems[2] = AccessDeny;
  SaveRuleFile(list, path(), rules.secureConfig);
  SaveRuleFile(list, path(), rules.secureConfig);
  EXPECT_FALSE(fs::exists(path()));
  EXPECT_EQ(rules.secureConfig.GetConfig(), seal) << "nothing new was written, so nothing sealed";
  ASSERT_EQ(ui.messageBoxes.size(), 1u) << "a fault that stays is told once";
  EXPECT_NE(ui.messageBoxes[0].text.find(path() + ".new: No such file or directory"),
            std::string::npos)
      << ui.messageBoxes[0].text;
}

TEST_F(RuleFile, APathWithLineBreaksAndTabsIsOneRuleAndForgesNone) {
  // Saved as "deny", this name would read back as two rows, the second an "allow" for
  // another program, if its bytes acted as separators.
  const std::string hostile = "/tmp/a\r\t/home/u/bin/payload\t-123\tallow\t2";
  add(list, hostile, "77", AccessDeny, "1");
  add(list, "/usr/bin/plain", "-5", AccessAllow, "2");
  SaveRuleFile(list, path(), rules.secureConfig);
  const std::string bytes = read();
  EXPECT_EQ(std::count(bytes.begin(), bytes.end(), '\r'), 2) << bytes;
  EXPECT_NE(bytes.find("\t/usr/bin/plain\t-5\tallow\t2\r\n"), std::string::npos)
      << "a plain path keeps its exact bytes";

  rules.secureConfig.VerifyConfig();
  EXPECT_TRUE(ui.messageBoxes.empty()) << "the seal covers the file as written";
  RuleList back;
  LoadRuleFile(back, path(), kFalse);
  ASSERT_EQ(back.Count(), 2);
  EXPECT_EQ(cells(back.Item(1)), (std::vector<std::string>{"", hostile, "77", "deny", "1"}));
  EXPECT_EQ(back.FindPath("/home/u/bin/payload"), 0);
  EXPECT_EQ(FormatRuleFile(back), bytes);
}

// A save cut short at any step (a kill, a power cut) leaves a start that finds the old rules
// or the new ones, sealed: never the "were changed" recovery.
TEST_F(RuleFile, ASaveCutShortAtAnyStepLeavesSealedRules) {
  const std::string oldBytes = "\t/usr/bin/old\t1\tallow\t1\r\n";
  for (int stepsDone = 0; stepsDone <= 3; ++stepsDone) {
    SCOPED_TRACE("steps done: " + std::to_string(stepsDone));
    RuleList before;
    add(before, "/usr/bin/old", "1", AccessAllow, "1");
    SaveRuleFile(before, path(), rules.secureConfig);
    ASSERT_EQ(read(), oldBytes);

    RuleList after;
    add(after, "/usr/bin/new", "2", AccessDeny, "1");
    RuleFileCommit commit(path(), rules.secureConfig);
    if (stepsDone >= 1) {
      ASSERT_TRUE(commit.Write(FormatRuleFile(after)));
    }
    if (stepsDone >= 2) {
      ASSERT_TRUE(commit.Seal());
    }
    if (stepsDone >= 3) {
      ASSERT_TRUE(commit.Replace());
    }
    if (stepsDone == 0)  // killed while the new file was half written
      std::ofstream(path() + ".new", std::ios::binary) << "\t/usr/bin/ne";

    // The next start.
    rules.secureConfig.VerifyConfig();
    EXPECT_TRUE(ui.messageBoxes.empty()) << ui.messageBoxes.front().text;
    EXPECT_EQ(read(), stepsDone >= 2 ? FormatRuleFile(after) : oldBytes);
    EXPECT_FALSE(fs::exists(path() + ".new"));
    EXPECT_EQ(rules.secureConfig.GetConfig(), rules.secureConfig.ComputeConfigCheck());
  }
}

TEST_F(RuleFile, RulesBeyondTheListAreKeptAsideWholeAndToldOnce) {
  std::string bytes;
  for (int row = 1; row <= 32770; ++row)
    bytes += "\t/usr/bin/p" + std::to_string(row) + "\t0\tallow\t" + std::to_string(row) + "\r\n";
  write(bytes);
  LoadRuleFileAtStart(list, path(), rules.secureConfig);
  EXPECT_EQ(list.Count(), 32767);
  ASSERT_EQ(ui.messageBoxes.size(), 1u);
  const std::string& told = ui.messageBoxes[0].text;
  EXPECT_NE(told.find("holds 3 rules more than the 32767"), std::string::npos) << told;

  // The next save writes the list; the copy named in the message keeps the rest.
  SaveRuleFile(list, path(), rules.secureConfig);
  EXPECT_EQ(read(), bytes.substr(0, bytes.find("\t/usr/bin/p32768\t")));
  size_t quote = told.find('"', told.find("kept whole in \"") + 15);
  std::string kept =
      told.substr(told.find("kept whole in \"") + 15, quote - told.find("kept whole in \"") - 15);
  std::ifstream in(kept, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), bytes) << kept;
  EXPECT_EQ(kept.rfind(path() + ".full-", 0), 0u) << kept;
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
