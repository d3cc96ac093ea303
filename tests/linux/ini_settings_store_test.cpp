// The settings store on Linux: the text of its INI file, and the store over real files in a
// temporary configuration folder (nothing here touches the user's own settings).

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/linux/ini_settings_store.h"
#include "support/file_modes_bind.h"

namespace tessmark::platform::linux_backend {
namespace {

using namespace std::string_literals;
namespace fs = std::filesystem;
using tessmark::testing::FileModesBind;

const std::string kApp = "Tessmark Personal Firewall";
// Shaped like the settings digest: control bytes and a NUL before a digit ("\x35" is "5").
const std::string kDigestLike = "\x03\x00\x1f\x35"s;

std::string AllBytes() {
  std::string bytes;
  for (int b = 0; b < 256; ++b) bytes += static_cast<char>(b);
  return bytes;
}

// Strings that each break a naive INI writer somewhere: as a section name, a key or a value.
std::vector<std::string> HostileStrings() {
  return {""s,      " "s,       "  "s,      "   "s,    "\t"s,    " x "s,      "\\"s,   "\\\\"s,
          "a\\"s,   "\\s"s,     "\\x"s,     "\\x4"s,   "\\x41"s, "\\0"s,      "="s,    "=="s,
          "a=b"s,   "["s,       "]"s,       "[a]"s,    "\\]"s,   ";"s,        "#"s,    " ;x"s,
          "\r\n"s,  "\n[x]\n"s, "\r"s,      "\0"s,     "\0\0"s,  kDigestLike, "\x7f"s, "\xff\xfe"s,
          "\xc3("s, "\x85"s,    " \t \r "s, AllBytes()};
}

std::string ReadBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteBytes(const fs::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

// ---------------------------------------------------------------------------------------------
// The file's text

TEST(IniText, WritesEveryAwkwardByteAsItsEscape) {
  IniContents contents;
  contents["Secure"]["Checksum"] = kDigestLike;
  contents["Secure"][" key=1 "] = " a\tb\\ ";
  contents["Secure"]["[k"] = "x=y;z[]#";
  contents["Secure"][""] = "";
  contents["Secure"][";c"] = "\r\n";
  contents["Secure"]["#d"] = "\x7f\xff";
  contents["Sec]tion "]["k"] = "v";
  const std::string expected = R"([Sec\]tion\s]
k=v

[Secure]
=
\skey\=1\s=\sa\tb\\\s
\#d=\x7F)"
                               "\xff"
                               R"(
\;c=\r\n
Checksum=\x03\0\x1F5
\[k=x=y;z[]#
)";
  EXPECT_EQ(FormatIni(contents), expected);
  EXPECT_EQ(ParseIni(expected), contents);
}

TEST(IniText, ReadsHandEditedTextAndPassesOverWhatItCannotRead) {
  const std::string text =
      "; a comment\n"
      "Orphan=above every section\n"
      "[Options]\r\n"
      "  Alert = yes  \r\n"
      "Sound=1\n"
      "Sound=2\n"
      "# another comment\n"
      "no equals sign here\n"
      "\n"
      "Path=C:\\q\\x4\\xzz\\x41\\x6a\\\n"
      "[Broken\n"
      "Lost=1\n"
      "[Ports] trailing text\n"
      "Lost=2\n"
      "[ Ports ]\n"
      "Open=80=http\n"
      "Last=no line end";
  IniContents expected;
  expected["Options"]["Alert"] = "yes";
  expected["Options"]["Sound"] = "2";
  expected["Options"]["Path"] = "C:\\q\\x4\\xzzAj\\";
  expected["Ports"]["Open"] = "80=http";
  expected["Ports"]["Last"] = "no line end";
  EXPECT_EQ(ParseIni(text), expected);
}

TEST(IniText, KeepsEmptySectionsAndMergesRepeatedOnes) {
  IniContents parsed = ParseIni("[Empty]\n[A]\nx=1\n[B]\n[A]\ny=2\nx=3\n");
  IniContents expected;
  expected["Empty"];
  expected["B"];
  expected["A"]["x"] = "3";
  expected["A"]["y"] = "2";
  EXPECT_EQ(parsed, expected);
  EXPECT_EQ(ParseIni(FormatIni(expected)), expected);
}

TEST(IniText, RoundTripsHostileNamesKeysAndValues) {
  IniContents all;
  for (const std::string& s : HostileStrings()) {
    IniContents one;
    one[s][s] = s;
    EXPECT_EQ(ParseIni(FormatIni(one)), one) << "text: " << FormatIni(one);
    all[s][s] = s;
    all["Values"][std::to_string(all["Values"].size())] = s;
    all["Keys"][s] = "k";
  }
  EXPECT_EQ(ParseIni(FormatIni(all)), all);
}

TEST(IniText, GarbageParsesAndItsReadingRoundTrips) {
  // Random texts, half of their bytes drawn from the format's own syntax so that they reach
  // sections, escapes and keys, not only passed-over lines.
  const std::string syntax = "[]=\\;#\n\r\t x0snrt41";
  std::mt19937 random(20240611);
  size_t sectionsSeen = 0;
  for (int round = 0; round < 3000; ++round) {
    std::string text(random() % 300, '\0');
    for (char& c : text)
      c = random() % 2 ? syntax[random() % syntax.size()] : static_cast<char>(random());
    IniContents parsed = ParseIni(text);
    sectionsSeen += parsed.size();
    ASSERT_EQ(ParseIni(FormatIni(parsed)), parsed) << "round " << round;
  }
  EXPECT_GT(sectionsSeen, 0u) << "the random texts never reached a section";
}

// ---------------------------------------------------------------------------------------------
// The store on disk

class IniSettingsStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "tessmark-settings-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    home_ = pattern;
    for (const char* name : {"XDG_CONFIG_HOME", "HOME"}) {
      const char* value = getenv(name);
      savedEnvironment_.emplace_back(name,
                                     value ? std::optional<std::string>(value) : std::nullopt);
    }
  }
  void TearDown() override {
    for (const auto& [name, value] : savedEnvironment_) {
      if (value)
        setenv(name.c_str(), value->c_str(), 1);
      else
        unsetenv(name.c_str());
    }
    std::error_code ignored;
    fs::permissions(home_ / kApp, fs::perms::owner_all, ignored);
    fs::remove_all(home_, ignored);
  }

  fs::path appFolder() const { return home_ / kApp; }
  fs::path confPath() const { return appFolder() / (kApp + ".conf"); }
  // Files in the application's folder other than the settings file: a leftover temporary
  // file would be one.
  std::vector<std::string> strayFiles() const {
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(appFolder(), ignored))
      if (entry.path() != confPath()) names.push_back(entry.path().filename().string());
    return names;
  }

  fs::path home_;
  std::vector<std::pair<std::string, std::optional<std::string>>> savedEnvironment_;
};

TEST_F(IniSettingsStoreTest, WritesTheSettingsFileAsPlainText) {
  IniSettingsStore store(home_.string());
  EXPECT_EQ(store.filePath(kApp), confPath().string());
  ASSERT_TRUE(store.writeSetting(kApp, "Options", "Check1", "1"));
  ASSERT_TRUE(store.writeSetting(kApp, "Ports", "Open", "80;443"));
  ASSERT_TRUE(store.writeSetting(kApp, "Options", "Alert", "on = yes"));
  ASSERT_TRUE(store.writeSetting(kApp, "Options", "Check1", "0"));
  EXPECT_EQ(ReadBytes(confPath()),
            "[Options]\n"
            "Alert=on = yes\n"
            "Check1=0\n"
            "\n"
            "[Ports]\n"
            "Open=80;443\n");
  struct stat st;
  ASSERT_EQ(stat(confPath().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u) << "the settings hold the rule file's digest";
  EXPECT_EQ(strayFiles(), std::vector<std::string>());
}

TEST_F(IniSettingsStoreTest, HostileValuesAndKeysComeBackExactly) {
  IniSettingsStore store(home_.string());
  std::vector<std::pair<std::string, std::string>> settings = {
      {"Checksum", kDigestLike},  {"Every byte", AllBytes()},
      {"Equals", "a=b=c"},        {"Line ends", "one\r\ntwo\nthree\r"},
      {"Blanks", "  padded \t "}, {"Empty", ""},
      {"key=with=equals", "v"},   {" [bracketed key] ", "w"},
      {";not a comment", "x"},    {"\0"s, "NUL key"},
  };
  for (const auto& [key, value] : settings)
    ASSERT_TRUE(store.writeSetting(kApp, "Secure", key, value));
  for (const auto& [key, value] : settings)
    EXPECT_EQ(store.readSetting(kApp, "Secure", key), value) << key;
  // A second store, as another instance of the program would make, reads the same.
  IniSettingsStore second(home_.string());
  for (const auto& [key, value] : settings)
    EXPECT_EQ(second.readSetting(kApp, "Secure", key), value) << key;
}

TEST_F(IniSettingsStoreTest, SectionsAndApplicationsAreKeptApart) {
  IniSettingsStore store(home_.string());
  ASSERT_TRUE(store.writeSetting(kApp, "Options", "Key", "options"));
  ASSERT_TRUE(store.writeSetting(kApp, "Ports", "Key", "ports"));
  ASSERT_TRUE(store.writeSetting("Other", "Options", "Key", "other"));
  EXPECT_EQ(store.readSetting(kApp, "Options", "Key"), "options");
  EXPECT_EQ(store.readSetting(kApp, "Ports", "Key"), "ports");
  EXPECT_EQ(store.readSetting("Other", "Options", "Key"), "other");
  EXPECT_EQ(store.readSetting("Other", "Ports", "Key"), std::nullopt);
  EXPECT_EQ(store.readSetting(kApp, "Secure", "Key"), std::nullopt);
  EXPECT_TRUE(fs::is_regular_file(home_ / "Other" / "Other.conf"));
}

TEST_F(IniSettingsStoreTest, MissingFileSectionOrKeyReadsNothing) {
  IniSettingsStore store(home_.string());
  EXPECT_EQ(store.readSetting(kApp, "Options", "Check1"), std::nullopt);
  EXPECT_FALSE(fs::exists(appFolder())) << "a read must not make the folder";
  ASSERT_TRUE(fs::create_directory(appFolder()));
  EXPECT_EQ(store.readSetting(kApp, "Options", "Check1"), std::nullopt);
  ASSERT_TRUE(store.writeSetting(kApp, "Options", "Check1", "1"));
  EXPECT_EQ(store.readSetting(kApp, "Options", "Check2"), std::nullopt);
  EXPECT_EQ(store.readSetting(kApp, "Ports", "Check1"), std::nullopt);
}

TEST_F(IniSettingsStoreTest, NamesNoFileForAnApplicationThatIsNotOneFolderName) {
  IniSettingsStore store(home_.string());
  for (const std::string& application : {""s, "."s, ".."s, "a/b"s, "../x"s}) {
    EXPECT_EQ(store.filePath(application), "") << application;
    EXPECT_FALSE(store.writeSetting(application, "S", "k", "v")) << application;
    EXPECT_EQ(store.readSetting(application, "S", "k"), std::nullopt) << application;
  }
}

TEST_F(IniSettingsStoreTest, FollowsXdgConfigHomeThenHomeAtEachCall) {
  IniSettingsStore store;
  fs::path first = home_ / "first";
  fs::path second = home_ / "second";
  setenv("XDG_CONFIG_HOME", first.c_str(), 1);
  ASSERT_TRUE(store.writeSetting(kApp, "Options", "Where", "first"));
  EXPECT_TRUE(fs::is_regular_file(first / kApp / (kApp + ".conf")));
  setenv("XDG_CONFIG_HOME", second.c_str(), 1);
  EXPECT_EQ(store.readSetting(kApp, "Options", "Where"), std::nullopt);
  unsetenv("XDG_CONFIG_HOME");
  setenv("HOME", home_.c_str(), 1);
  ASSERT_TRUE(store.writeSetting(kApp, "Options", "Where", "home"));
  EXPECT_EQ(ReadBytes(home_ / ".config" / kApp / (kApp + ".conf")), "[Options]\nWhere=home\n");
  setenv("XDG_CONFIG_HOME", "", 1);  // set but empty counts as unset
  EXPECT_EQ(store.readSetting(kApp, "Options", "Where"), "home");
  unsetenv("HOME");
  unsetenv("XDG_CONFIG_HOME");
  EXPECT_EQ(store.filePath(kApp), "");
  EXPECT_FALSE(store.writeSetting(kApp, "Options", "Where", "nowhere"));
}

TEST_F(IniSettingsStoreTest, AFreshProcessReadsTheBytesOnDisk) {
  setenv("XDG_CONFIG_HOME", home_.c_str(), 1);
  const std::string value = kDigestLike + "\r\n\\=[x] "s + AllBytes();
  {
    IniSettingsStore store;
    ASSERT_TRUE(store.writeSetting(kApp, "Secure", "Checksum", value));
  }
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    IniSettingsStore store;
    std::optional<std::string> read = store.readSetting(kApp, "Secure", "Checksum");
    _exit(read == value ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "the child read other bytes than were written";
}

TEST_F(IniSettingsStoreTest, AWriteIntoAnUnwritableFolderFailsKeepsTheOldFileAndSaysWhere) {
  IniSettingsStore store(home_.string());
  ASSERT_TRUE(store.writeSetting(kApp, "Options", "Check1", "old"));
  std::string before = ReadBytes(confPath());
  fs::permissions(appFolder(), fs::perms::owner_read | fs::perms::owner_exec);
  FileModesBind bind;
  EXPECT_FALSE(store.writeSetting(kApp, "Options", "Check1", "new"));
  EXPECT_EQ(store.lastWriteFault(), appFolder().string() + ": Permission denied");
  EXPECT_EQ(store.readFault(kApp), "") << "a folder that takes no write can still be read";
  EXPECT_EQ(ReadBytes(confPath()), before);
  EXPECT_EQ(store.readSetting(kApp, "Options", "Check1"), "old");
}

TEST_F(IniSettingsStoreTest, ASettingsFileThatCannotBeReadIsNotWrittenOverAndSaysWhere) {
  IniSettingsStore store(home_.string());
  ASSERT_TRUE(store.writeSetting(kApp, "Options", "Check1", "old"));
  EXPECT_EQ(store.lastWriteFault(), "");
  fs::permissions(confPath(), fs::perms::none);
  {
    FileModesBind bind;
    EXPECT_EQ(store.readSetting(kApp, "Options", "Check1"), std::nullopt);
    EXPECT_EQ(store.readFault(kApp), confPath().string() + ": Permission denied");
    // Writing would lose every other setting of the file.
    EXPECT_FALSE(store.writeSetting(kApp, "Options", "Check2", "new"));
    EXPECT_EQ(store.lastWriteFault(), confPath().string() + ": Permission denied");
  }
  fs::permissions(confPath(), fs::perms::owner_read);
  EXPECT_EQ(ReadBytes(confPath()), "[Options]\nCheck1=old\n");
}

TEST_F(IniSettingsStoreTest, AWriteCutShortFailsAndKeepsTheOldFile) {
  // The file-size limit stops a write part way even for root, as a full disk would.
  IniSettingsStore store(home_.string());
  ASSERT_TRUE(store.writeSetting(kApp, "Options", "Check1", "old"));
  std::string before = ReadBytes(confPath());
  rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  rlimit small = saved;
  small.rlim_cur = 100;
  sighandler_t savedHandler = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  bool written = store.writeSetting(kApp, "Options", "Big", std::string(1000, 'x'));
  setrlimit(RLIMIT_FSIZE, &saved);
  signal(SIGXFSZ, savedHandler);
  EXPECT_FALSE(written);
  EXPECT_EQ(ReadBytes(confPath()), before);
  EXPECT_EQ(strayFiles(), std::vector<std::string>()) << "the temporary file was left behind";
}

TEST_F(IniSettingsStoreTest, ASettingsPathThatIsNoRegularFileIsLeftAlone) {
  IniSettingsStore store(home_.string());
  ASSERT_TRUE(fs::create_directories(confPath()));
  EXPECT_EQ(store.readSetting(kApp, "Options", "Check1"), std::nullopt);
  EXPECT_FALSE(store.writeSetting(kApp, "Options", "Check1", "1"));
  EXPECT_TRUE(fs::is_directory(confPath()));
  EXPECT_EQ(strayFiles(), std::vector<std::string>());
  // A FIFO with no writer: opening or reading it the ordinary way would wait for ever.
  ASSERT_TRUE(fs::remove(confPath()));
  ASSERT_EQ(mkfifo(confPath().c_str(), 0600), 0);
  EXPECT_EQ(store.readSetting(kApp, "Options", "Check1"), std::nullopt);
  EXPECT_FALSE(store.writeSetting(kApp, "Options", "Check1", "1"));
  EXPECT_TRUE(fs::is_fifo(confPath()));
}

TEST_F(IniSettingsStoreTest, AGarbageFileReadsWithoutHarmAndCanBeWrittenOver) {
  IniSettingsStore store(home_.string());
  ASSERT_TRUE(fs::create_directory(appFolder()));
  std::mt19937 random(7);
  std::string garbage(64 * 1024, '\0');
  for (char& c : garbage) c = static_cast<char>(random());
  WriteBytes(confPath(), garbage);
  EXPECT_EQ(store.readSetting(kApp, "Options", "Check1"), std::nullopt);
  ASSERT_TRUE(store.writeSetting(kApp, "Options", "Check1", "1"));
  EXPECT_EQ(store.readSetting(kApp, "Options", "Check1"), "1");
  // What could be read of the garbage is kept; the rest is gone.
  IniContents kept = ParseIni(garbage);
  kept["Options"]["Check1"] = "1";
  EXPECT_EQ(ParseIni(ReadBytes(confPath())), kept);
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
