// The rule file, the digest that seals it with the options, and the closed ports. Known
// digests: CRC-16/UMTS of the joined values, in decimal, combined with the key "qwpr7...".

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "base/booleans.h"
#include "rules/modSetting.h"
#include "rules/rule_file_commit.h"
#include "support/file_modes_bind.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

namespace fs = std::filesystem;

const std::string kDefaultsDigest = "\x44\x4F\x42\x4B\x06";  // "true3showtrue": 58291
const std::string kRules = "\t/usr/bin/app\t-5\tallow\t1\r\n";

class Rules : public ::testing::Test, public testing::SimMonitor {
 protected:
  void SetUp() override { fs::create_directories(rules.folders.AppDataDir); }
  modSecureConfig& secure() { return rules.secureConfig; }
  std::string path() { return rules.folders.RuleFilePath(); }
  void write(const std::string& text = kRules) { std::ofstream(path(), std::ios::binary) << text; }
  std::string read(const std::string& file = "") {
    std::ifstream in(file.empty() ? path() : file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  std::string stored(const std::string& key, const std::string& section = "Options") {
    return sim.readSetting(AppTitle, section, key).value_or("<none>");
  }
  void store(const std::string& key, const std::string& value, const char* section = "Options") {
    sim.writeSetting(AppTitle, section, key, value);
  }
  static void add(RuleList& list, const std::string& path, const std::string& crc,
                  const std::string& access, const std::string& id = "1") {
    list.Add("", path);
    list.Item(list.Count()).SubItems = {"", crc, access, id};
  }
  void save(const RuleList& rows) { SaveRuleFile(rows, path(), secure()); }
  RuleList list;
};

TEST_F(Rules, TheSealCoversOptionsAndRulesAndAStartThatFindsItBrokenRenewsIt) {
  EXPECT_EQ(modSecureConfig::GetCRC32("123456789"), 0xFEE8);  // the check value
  EXPECT_EQ(secure().ComputeConfigCheck(), "\x41");           // nothing at all: "0"
  store("XP FW", "1");
  store("CheckAuto", "true");
  store("Speed", "3");
  store("AlertDialogs", "show");
  store("LogFile", "false");
  store("Ports", "10000000000000000", "Ports");
  EXPECT_EQ(secure().ComputeConfigCheck(), "\x42\x45\x48\x41\x06");  // "1true3...0000": 32831
  write("123456789");  // CRC-32 CBF43926, held signed: "...0000-873187034" -> 19786
  EXPECT_EQ(secure().ComputeConfigCheck(), "\x40\x4E\x47\x4A\x01");

  secure().VerifyConfig();  // no digest matches: the options go back to their defaults
  ASSERT_EQ(ui.messageBoxes.size(), 2u);
  EXPECT_EQ(ui.messageBoxes[0].text,
            "The settings of Tessmark Personal Firewall were changed! For security purposes the "
            "settings will now renewed.");
  EXPECT_EQ(ui.messageBoxes[0].icon, MessageIcon::Critical);
  EXPECT_EQ(stored("SecureCheck", "Secure"), kDefaultsDigest) << "every option renewed";
  // The changed rules are not used, but not lost either: the copy beside holds every byte.
  std::vector<fs::path> kept(fs::directory_iterator(rules.folders.AppDataDir), {});
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(kept[0].filename().string().rfind(AppTitle + ".dat.changed-", 0), 0u) << kept[0];
  EXPECT_EQ(read(kept[0]), "123456789");
  EXPECT_NE(ui.messageBoxes[1].text.find(kept[0].string()), std::string::npos);

  save(list);  // the empty file's checksum 0 is sealed too: "true3showtrue0" -> 12777
  EXPECT_EQ(secure().GetConfig(), std::string("\x40\x45\x47\x45\x00", 5));
  // Paths are bytes: saved as "deny", this name would read back as two rows, the second an
  // "allow" for another program, if its bytes acted as separators.
  const std::string hostile = "/tmp/a\r\t/home/u/bin/payload\t-123\tallow\t2";
  const std::string odd = "/home/j\xc3\xbcrgen/\xff\x80 bin/new\nline=;#[x]";
  add(list, "/usr/bin/firefox", "-873187034", AccessAllow, "1");
  add(list, hostile, "77", AccessDeny, "2");
  add(list, "/opt/Mail Client/mail", "0", AccessAsk, "3");
  add(list, odd, "-1", AccessAllow, "4");
  save(list);
  const std::string bytes = read();
  EXPECT_EQ(std::count(bytes.begin(), bytes.end(), '\r'), 4) << bytes;
  EXPECT_EQ(bytes.rfind("\t/usr/bin/firefox\t-873187034\tallow\t1\r\n", 0), 0u) << bytes;
  EXPECT_NE(bytes.find("\r\n\t/opt/Mail Client/mail\t0\task\t3\r\n"), std::string::npos);
  secure().VerifyConfig();  // the next start
  RuleList back;
  LoadRuleFile(back, path(), kFalse);
  ASSERT_EQ(back.Count(), 4);
  EXPECT_EQ(back.Item(2).Text + "|" + back.Item(2).SubItems[2], hostile + "|deny");
  EXPECT_EQ(back.Item(4).Text, odd);
  EXPECT_EQ(back.FindPath("/home/u/bin/payload"), 0);
  EXPECT_EQ(FormatRuleFile(back), bytes);
  EXPECT_EQ(ui.messageBoxes.size(), 2u) << "each save sealed what it wrote, the copy is unused";

  const std::string seal = secure().GetConfig();
  fs::remove_all(rules.folders.AppDataDir);  // nowhere to write
  save(list);
  save(list);
  EXPECT_EQ(secure().GetConfig(), seal) << "nothing new was written, so nothing sealed";
  ASSERT_EQ(ui.messageBoxes.size(), 3u) << "a fault that stays is told once";
  EXPECT_NE(ui.messageBoxes[2].text.find(path() + ".new: No such file or directory"),
            std::string::npos);
  fs::create_directories(rules.folders.AppDataDir);
  secure().VerifyConfig();  // the rule file deleted while closed is a change too
  EXPECT_EQ(ui.messageBoxes.size(), 4u);

  // A store that takes no write renews nothing: the fault is told, and the rules stay.
  write();
  store("SecureCheck", "", "Secure");
  sim.settingsWritesFail = true;
  secure().SaveConfigCheck();
  ASSERT_EQ(ui.errorBoxes.size(), 1u);
  EXPECT_EQ(ui.errorBoxes[0].rfind("75\rmodSecureConfig.SaveConfigCheck\r", 0), 0u);
  secure().VerifyConfig();
  ASSERT_EQ(ui.messageBoxes.size(), 5u);
  EXPECT_NE(ui.messageBoxes[4].text.find("cannot be written (the settings store"),
            std::string::npos);
  EXPECT_EQ(read(), kRules);
  EXPECT_EQ(main.InternetLocked, kFalse);
}

TEST_F(Rules, RulesThatCannotBeMovedAsideLockTheInternetAndTheSeal) {
  write();
  // The folder takes no change: the rules can be neither moved aside nor left in use.
  fs::permissions(rules.folders.AppDataDir, fs::perms::owner_read | fs::perms::owner_exec);
  {
    testing::FileModesBind bind;
    secure().VerifyConfig();
  }
  fs::permissions(rules.folders.AppDataDir, fs::perms::owner_all);
  ASSERT_EQ(ui.messageBoxes.size(), 2u);
  EXPECT_EQ(ui.messageBoxes[1].text,
            "Deletion of \"Tessmark Personal Firewall.dat\" failed. Please reboot your "
            "computer.\r\n\r\nThe internet connections will be closed for safety reasons.");
  EXPECT_EQ(ui.messageBoxes[1].icon, MessageIcon::Critical);
  EXPECT_EQ(main.InternetLocked, kTrue);
  EXPECT_EQ(ui.toolbar, (std::map<int16_t, bool>{{3, false}, {6, false}}));
  EXPECT_EQ(ui.status[1],
            "internet connections are closed for safety reasons. Please reboot your PC!");
  secure().SaveConfigCheck();  // nothing seals the broken state
  EXPECT_EQ(stored("SecureCheck", "Secure"), "<none>");
}

// A disk that hides the settings or the data folder is not a change: the rules stay, and the
// message names what failed.
TEST_F(Rules, ADiskThatHidesTheFilesIsToldByPathAndNeverTakenForAChange) {
  write();
  secure().SaveConfigCheck();
  for (bool settings : {true, false}) {
    modSecureConfig start(sim.settings(), rules.checksum, ui, rules.folders, main.InternetLocked);
    ui.messageBoxes.clear();
    sim.settingsReadsFail = settings;
    if (!settings) fs::permissions(rules.folders.AppDataDir, fs::perms::none);
    {
      testing::FileModesBind bind;
      start.VerifyConfig();
      add(list, "/usr/bin/other", "1", AccessAllow);  // an answer remembered in this run
      SaveRuleFile(list, path(), start);
    }
    sim.settingsReadsFail = false;
    fs::permissions(rules.folders.AppDataDir, fs::perms::owner_all);
    ASSERT_EQ(ui.messageBoxes.size(), 1u) << ui.messageBoxes.back().text;
    EXPECT_NE(ui.messageBoxes[0].text.find(settings ? "the settings of " + AppTitle : path()),
              std::string::npos)
        << ui.messageBoxes[0].text;
    start.VerifyConfig();  // the next start
    EXPECT_EQ(ui.messageBoxes.size(), 1u) << ui.messageBoxes.back().text;
    EXPECT_EQ(read(), kRules);
    EXPECT_EQ(main.InternetLocked, kFalse);
  }
}

// A save cut short at any step leaves the old rules or the new ones, sealed: never a recovery.
TEST_F(Rules, ASaveCutShortAtAnyStepLeavesSealedRules) {
  RuleList before, after;
  add(before, "/usr/bin/old", "1", AccessAllow);
  add(after, "/usr/bin/new", "2", AccessDeny);
  for (int stepsDone = 0; stepsDone <= 3; ++stepsDone) {
    SCOPED_TRACE("steps done: " + std::to_string(stepsDone));
    save(before);
    RuleFileCommit commit(path(), secure());
    ASSERT_TRUE(stepsDone < 1 || commit.Write(FormatRuleFile(after)));
    ASSERT_TRUE(stepsDone < 2 || commit.Seal());
    ASSERT_TRUE(stepsDone < 3 || commit.Replace());
    if (stepsDone == 0)  // killed while the new file was half written
      std::ofstream(path() + ".new", std::ios::binary) << "\t/usr/bin/ne";
    secure().VerifyConfig();  // the next start
    EXPECT_TRUE(ui.messageBoxes.empty()) << ui.messageBoxes.front().text;
    EXPECT_EQ(read(), FormatRuleFile(stepsDone >= 2 ? after : before));
    EXPECT_FALSE(fs::exists(path() + ".new"));
  }
}

TEST_F(Rules, ReadsEveryKindOfLineAndFindsTheFirstRowOfAPath) {
  add(list, "/usr/bin/kept", "1", AccessAllow);
  LoadRuleFile(list, path(), kFalse);  // no file: the list stays as it is
  ASSERT_EQ(list.Count(), 1);
  write(
      "\t/usr/bin/app\t-5\tallow\t1\r\n"        // a plain row
      "\t/usr/bin/short\t7\r\n"                 // too few fields: padded
      "k\t/usr/bin/long\t1\tdeny\t4\tx\ty\r\n"  // too many: cut behind the fifth
      "no tab at all\r\n"                       // the whole line is the key
      "\r\n"                                    // an empty line: a row with no path
      "\t/usr/bin/last\t-0\tmaybe\t9");         // no line end at the end of the file
  LoadRuleFile(list, path(), kTrue);            // behind the rows there are
  EXPECT_EQ(
      FormatRuleFile(list),
      "\t/usr/bin/kept\t1\tallow\t1\r\n\t/usr/bin/app\t-5\tallow\t1\r\n\t/usr/bin/short\t7\t\t"
      "\r\nk\t/usr/bin/long\t1\tdeny\t4\r\nno tab at all\t\t\t\t\r\n\t\t\t\t\r\n"
      "\t/usr/bin/last\t-0\tmaybe\t9\r\n");
  // The first row whose path matches wins, case ignored, also after a row was removed or
  // written through Item.
  list.Add("", "/USR/BIN/App");
  EXPECT_EQ(list.FindPath("/usr/bin/APP"), 2);
  EXPECT_EQ(list.FindPath("/usr/bin/app "), 0);
  list.Remove(2);
  EXPECT_EQ(list.FindPath("/usr/bin/app"), 7);
  list.Item(1).Text = "/usr/bin/renamed";
  EXPECT_EQ(list.FindPath("/usr/bin/renamed"), 1);
  EXPECT_EQ(list.ColumnHeaders,
            (std::vector<std::string>{"Program path", "CRC32-Hash", "Access", "ID"}));
  LoadRuleFile(list, path(), kFalse);
  EXPECT_EQ(list.Count(), 6);
}

TEST_F(Rules, RulesBeyondTheListAreKeptAsideWholeAndToldOnce) {
  std::string bytes;
  for (int row = 1; row <= 32770; ++row)
    bytes += "\t/usr/bin/p" + std::to_string(row) + "\t0\tallow\t" + std::to_string(row) + "\r\n";
  write(bytes);
  LoadRuleFileAtStart(list, path(), secure());
  EXPECT_EQ(list.Count(), 32767);
  EXPECT_FALSE(list.Add("", "/usr/bin/one-more"));
  ASSERT_EQ(ui.messageBoxes.size(), 1u);
  const std::string& told = ui.messageBoxes[0].text;
  EXPECT_NE(told.find("holds 3 rules more than the 32767"), std::string::npos) << told;
  save(list);  // the whole list; the copy named in the message keeps the rest
  EXPECT_EQ(read(), bytes.substr(0, bytes.find("\t/usr/bin/p32768\t")));
  const size_t from = told.find("kept whole in \"") + 15;
  const std::string kept = told.substr(from, told.find('"', from) - from);
  EXPECT_EQ(kept.rfind(path() + ".full-", 0), 0u) << kept;
  EXPECT_EQ(read(kept), bytes) << kept;
}

TEST_F(Rules, SavingTheApplicationRulesJudgesTheLiveConnectionsAgain) {
  program(42, "/usr/bin/app");
  tcp(42, 50000);
  tcp(42, 50001);
  main.GetTCPConnections(kTrue, kTrue);
  add(monitor.ListView1, "/usr/bin/app", "1", AccessDeny);
  monitor.SaveApplicationRules();
  EXPECT_EQ(read(), "\t/usr/bin/app\t1\tdeny\t1\r\n");
  EXPECT_EQ(monitor.TcpLastIndex, 1);
}

TEST_F(Rules, TheClosedPortsFollowTheirBoxesAndTheBoxesTheSealedSetting) {
  modClosePorts& ports = rules.closePorts;
  auto ticked = [&] {
    std::string boxes;
    for (const auto& box : ports.Check4) boxes += std::to_string(box.Value);
    return boxes;
  };
  auto closed = [&](std::initializer_list<int32_t> numbers) {
    std::string which;
    for (int32_t port : numbers) which += ports.IsClosedPort(port) == kTrue ? '1' : '0';
    return which;
  };
  secure().VerifyConfig();  // the first start seals the recovery's options
  const std::pair<std::string, std::string> loads[] = {
      {"1", "11111111111111111"},  // a short setting repeats its last character
      {"101", "10111111111111111"},
      {"1x1 121-10000000000", "10101010100000000"},  // anything but "1" leaves a box unticked
      {"", "10101010100000000"},                     // an empty setting: the boxes stay
      {"10000001000000001", "10000001000000001"}};
  for (const auto& [setting, boxes] : loads) {
    store("Ports", setting, "Ports");
    ports.LoadPorts();
    EXPECT_EQ(ticked(), boxes) << setting;
  }
  // An unticked entry holds -1, which no connection's port is: not even a listener's 0.
  EXPECT_EQ(closed({139, 21, 135, 143, 80, 1080, 0}), "1110000");
  ports.Check4[4].Value = 1;  // "1080 SOCKS"
  ports.Check4[0].Value = 2;  // a grey box counts as unticked
  ports.RefreshClosedPorts();
  EXPECT_EQ(closed({139, 21, 135, 143, 80, 1080}), "011001");
  // A click that unticks a box during the check is taken at its first yield.
  mailbox.post([&] {
    ports.Check4[16].Value = 0;
    ports.RefreshClosedPorts();
  });
  EXPECT_EQ(closed({135}), "0");

  const int writes = sim.settingsWrites;
  ports.SavePorts();
  EXPECT_EQ(stored("Ports", "Ports"), "20001001000000000");
  EXPECT_EQ(sim.settingsWrites, writes + 1) << "no crash may leave the option without its seal";
  secure().VerifyConfig();
  EXPECT_EQ(ui.messageBoxes.size(), 1u) << "the next start finds the ports sealed";
  // A store that takes no write keeps the boxes for this run and says why, once.
  sim.settingsWritesFail = true;
  ports.Check4[1].Value = 1;
  ports.SavePorts();
  ports.SavePorts();
  EXPECT_EQ(ticked(), "21001001000000000");
  ASSERT_EQ(ui.messageBoxes.size(), 2u);
  EXPECT_NE(ui.messageBoxes[1].text.find("cannot be written"), std::string::npos);
  EXPECT_EQ(stored("Ports", "Ports"), "20001001000000000");
}

TEST(ClosePorts, ServiceNamesRatingsAndCaptions) {
  std::string names, ratings;
  for (int32_t port : {139, 443, 445, 135, 8080}) names += modClosePorts::GetPortName(port) + "|";
  EXPECT_EQ(names,
            "Service NetBIOS|Service HTTP over TLS/SSL |Service Windows NT / 2000 SMB. |Service "
            "Location service (loc-srv)||");
  for (int32_t port : {21,  22,   23,   25,   79,  80,  110, 113, 119,  143,
                       443, 1080, 1723, 5000, 135, 139, 445, 0,   8080, 65535})
    ratings += modClosePorts::PortRating(port);
  EXPECT_EQ(ratings, "nnnnnnnnnnnnnnhhhhhh");
  EXPECT_EQ(testing::SimMonitor().rules.closePorts.Check4[7].Caption,
            "21  FTP (File Transfer Protocol)");
}

}  // namespace
}  // namespace tessmark
