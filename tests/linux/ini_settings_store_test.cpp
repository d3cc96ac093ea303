// The settings store on Linux: its file's text (round trips are the fuzzer's), and real files.

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <tuple>

#include <gtest/gtest.h>

#include "linux/temporary_home.h"
#include "platform/linux/ini_settings_store.h"
#include "support/file_modes_bind.h"

namespace tessmark::platform::linux_backend {
namespace {

using namespace std::string_literals;
namespace fs = std::filesystem;

const std::string kApp = "Tessmark Personal Firewall";
// Shaped like the settings digest: control bytes and a NUL before a digit ("\x35" is "5").
const std::string kDigestLike = "\x03\x00\x1f\x35"s;

std::string ReadBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(IniText, WritesEveryAwkwardByteAsItsEscapeAndReadsHandEditedText) {
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

  // Comments, a key above every section, CR LF line ends, blanks around names and values, a
  // line without "=", escapes that are none, sections that do not read (and their keys with
  // them), a value with "=", an empty section, one section twice, and no last line end.
  const std::string text =
      "; a comment\nOrphan=above every section\n[Empty]\n[Options]\r\n  Alert = yes\\x4  \r\n"
      "Sound=1\n# a=comment\n;another=one\nno equals sign\n\nPath=C:\\q\\x4\\xzz\\x41\\x6a\\\n"
      "[Broken\nLost=1\n[Ports] trailing text\nLost=2\n[ Ports ]\nOpen=80=http\n"
      "[Options]\nSound=2\n[Ports]\nLast=no line end";
  const IniContents edited = {
      {"Empty", {}},
      {"Options", {{"Alert", "yes\\x4"}, {"Path", "C:\\q\\x4\\xzzAj\\"}, {"Sound", "2"}}},
      {"Ports", {{"Last", "no line end"}, {"Open", "80=http"}}}};
  EXPECT_EQ(ParseIni(text), edited);
  EXPECT_EQ(ParseIni(FormatIni(edited)), edited);
}

class IniSettingsStoreTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(home_.path().empty()); }

  // A fresh HOME and XDG_CONFIG_HOME, both put back at the end.
  tessmark::testing::TemporaryHome home_;
  const std::string dir_ = home_.path(), folder_ = dir_ + "/" + kApp,
                    conf_ = folder_ + "/" + kApp + ".conf";
};

TEST_F(IniSettingsStoreTest, WritesOnePrivatePlainTextFilePerApplicationWhereTheUserKeepsThem) {
  IniSettingsStore store(dir_);
  EXPECT_EQ(store.readSetting(kApp, "Options", "Check1"), std::nullopt);
  EXPECT_FALSE(fs::exists(folder_)) << "a read must not make the folder";
  ASSERT_TRUE(store.writeSetting(kApp, "Options", "Check1", "1"));
  ASSERT_TRUE(store.writeSetting(kApp, "Ports", "Open", "80;443"));
  ASSERT_TRUE(store.writeSetting(kApp, "Options", "Alert", "on = yes"));
  ASSERT_TRUE(store.writeSetting(kApp, "Options", "Check1", "0"));
  ASSERT_TRUE(store.writeSetting("Other", "Options", "Check1", "other"));
  EXPECT_EQ(ReadBytes(conf_), "[Options]\nAlert=on = yes\nCheck1=0\n\n[Ports]\nOpen=80;443\n");
  EXPECT_EQ(fs::status(conf_).permissions(), fs::perms::owner_read | fs::perms::owner_write)
      << "the settings hold the rule file's digest";
  EXPECT_EQ(ReadBytes(dir_ + "/Other/Other.conf"), "[Options]\nCheck1=other\n");
  EXPECT_EQ(store.readSetting(kApp, "Options", "Check2"), std::nullopt);
  EXPECT_EQ(store.readSetting(kApp, "Secure", "Check1"), std::nullopt);

  // Any bytes come back exactly, also through a second store, as another instance of the
  // program would make.
  std::string allBytes;
  for (int b = 0; b < 256; ++b) allBytes += static_cast<char>(b);
  ASSERT_TRUE(store.writeSetting(kApp, "Secure", "\0 [key]=;"s, allBytes));
  ASSERT_TRUE(store.writeSetting(kApp, "Secure", "Checksum", kDigestLike));
  EXPECT_EQ(store.readSetting(kApp, "Secure", "\0 [key]=;"s), allBytes);
  EXPECT_EQ(IniSettingsStore(dir_).readSetting(kApp, "Secure", "Checksum"), kDigestLike);

  // Without a folder of its own the store follows $XDG_CONFIG_HOME, then $HOME/.config, at each
  // call; an application that is not one folder name has no file.
  IniSettingsStore following;
  for (const std::string& application : {""s, "."s, ".."s, "a/b"s, "../x"s}) {
    EXPECT_EQ(store.filePath(application), "") << application;
    EXPECT_FALSE(store.writeSetting(application, "S", "k", "v")) << application;
  }
  setenv("XDG_CONFIG_HOME", (dir_ + "/first").c_str(), 1);
  ASSERT_TRUE(following.writeSetting(kApp, "Options", "Where", "first"));
  EXPECT_TRUE(fs::is_regular_file(dir_ + "/first/" + kApp + "/" + kApp + ".conf"));
  setenv("XDG_CONFIG_HOME", (dir_ + "/second").c_str(), 1);
  EXPECT_EQ(following.readSetting(kApp, "Options", "Where"), std::nullopt);
  unsetenv("XDG_CONFIG_HOME");
  setenv("HOME", dir_.c_str(), 1);
  ASSERT_TRUE(following.writeSetting(kApp, "Options", "Where", "home"));
  EXPECT_EQ(ReadBytes(dir_ + "/.config/" + kApp + "/" + kApp + ".conf"), "[Options]\nWhere=home\n");
  setenv("XDG_CONFIG_HOME", "", 1);  // set but empty counts as unset
  EXPECT_EQ(following.readSetting(kApp, "Options", "Where"), "home");
  unsetenv("HOME");
  unsetenv("XDG_CONFIG_HOME");
  EXPECT_EQ(following.filePath(kApp), "");
  EXPECT_FALSE(following.writeSetting(kApp, "Options", "Where", "nowhere"));
}

TEST_F(IniSettingsStoreTest, AFileThatCannotBeReadOrWrittenIsLeftAsItWasAndTheFaultNamesIt) {
  const std::string garbage =
      "\x7f\xff[\0]\x01\n[Kept]\r\nk = \x01v\\\n=\n[Options\nLost=1\n[Options]\nCheck1=old\n\\"s;
  const std::string big(1000, 'x'), old = "[Options]\nCheck1=old\n";
  IniContents kept = ParseIni(garbage);  // what can be read of the garbage stays
  kept["Options"]["Big"] = big;
  // The file-size limit stops a write halfway even for root, as a full disk would.
  rlimit savedLimit{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &savedLimit), 0);
  const rlimit small{100, savedLimit.rlim_max};
  const sighandler_t savedHandler = signal(SIGXFSZ, SIG_IGN);
  const std::string notRegular = conf_ + ": not a regular file";
  const tessmark::testing::FileModesBind bind;
  // What is done, then the faults of a read (none: Check1 reads "old") and of a write.
  using Damage = std::tuple<const char*, std::function<void()>, std::string, std::string>;
  const std::vector<Damage> damages = {
      {"a folder that takes no write",
       [&] { fs::permissions(folder_, fs::perms::owner_read | fs::perms::owner_exec); }, "",
       folder_ + ": Permission denied"},
      // Writing over it would lose every other setting of the file.
      {"a file that cannot be read", [&] { fs::permissions(conf_, fs::perms::none); },
       conf_ + ": Permission denied", conf_ + ": Permission denied"},
      {"a write cut short", [&] { setrlimit(RLIMIT_FSIZE, &small); }, "",
       folder_ + "/.settings-XXXXXX: File too large"},
      {"a folder in its place", [&] { fs::remove(conf_) && fs::create_directory(conf_); },
       notRegular, notRegular},
      // Opening or reading it the ordinary way would wait for ever.
      {"a FIFO with no writer", [&] { fs::remove(conf_) && !mkfifo(conf_.c_str(), 0600); },
       notRegular, notRegular},
      {"garbage", [&] { std::ofstream(conf_, std::ios::binary) << garbage; }, "", ""},
  };
  for (const auto& [what, make, expectedReadFault, expectedWriteFault] : damages) {
    SCOPED_TRACE(what);
    IniSettingsStore store(dir_);
    ASSERT_TRUE(store.writeSetting(kApp, "Options", "Check1", "old"));
    make();
    const fs::file_type made = fs::symlink_status(conf_).type();
    const std::optional<std::string> read = store.readSetting(kApp, "Options", "Check1");
    const std::string readFault = store.readFault(kApp);
    const bool written = store.writeSetting(kApp, "Options", "Big", big);
    std::string writeFault = store.lastWriteFault();
    setrlimit(RLIMIT_FSIZE, &savedLimit);
    fs::permissions(folder_, fs::perms::owner_all);
    fs::permissions(conf_, fs::perms::owner_read | fs::perms::owner_write, fs::perm_options::add);
    EXPECT_EQ(read, readFault.empty() ? std::optional<std::string>("old") : std::nullopt);
    EXPECT_EQ(readFault, expectedReadFault);
    const std::string temporary = folder_ + "/.settings-";  // and six random characters
    if (writeFault.starts_with(temporary)) writeFault.replace(temporary.size(), 6, "XXXXXX");
    EXPECT_EQ(writeFault, expectedWriteFault);
    EXPECT_EQ(written, expectedWriteFault.empty());
    EXPECT_EQ(fs::symlink_status(conf_).type(), made);
    if (made == fs::file_type::regular) {
      EXPECT_EQ(ReadBytes(conf_), written ? FormatIni(kept) : old);
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(folder_), {}), 1) << "a temporary file was left";
    fs::remove_all(folder_);
  }
  signal(SIGXFSZ, savedHandler);
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
