// The headless firewall over two starts with a disk that refuses it in between: a settings
// file it may not read, a settings folder it may not write, a data folder it may not enter.
// None of these is a change to the settings: the firewall says which path failed, runs no
// recovery, seals nothing, and overwrites no rule; once the fault is mended the next start
// finds the rules a user gave, sealed as they were.

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "linux/headless_firewall.h"
#include "linux/loopback.h"
#include "linux/netns.h"
#include "linux/peer_child.h"

namespace tessmark::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr uint16_t kPort = 24531;
constexpr const char* kSetpriv = "/usr/bin/setpriv";
// Root passes every permission check through these two; without them in the bounding set an
// exec'd root process has them neither permitted nor effective, and the modes bind.
constexpr const char* kWithoutDacOverride = "--bounding-set=-dac_override,-dac_read_search";

enum class Fault { UnreadableSettingsFile, ReadOnlySettingsFolder, UnsearchableDataFolder };

std::string FaultName(Fault fault) {
  switch (fault) {
    case Fault::UnreadableSettingsFile:
      return "UnreadableSettingsFile";
    case Fault::ReadOnlySettingsFolder:
      return "ReadOnlySettingsFolder";
    case Fault::UnsearchableDataFolder:
      return "UnsearchableDataFolder";
  }
  return "Unknown";
}

std::optional<std::string> ReadBytes(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

// The rule file is replaced by a rename once the rule is saved and sealed; polled, as the
// firewall says nothing when a save succeeds.
bool WaitUntilFileHolds(const fs::path& path, const std::string& text) {
  auto deadline = std::chrono::steady_clock::now() + 10s;
  while (std::chrono::steady_clock::now() < deadline) {
    if (auto bytes = ReadBytes(path); bytes && bytes->find(text) != std::string::npos) return true;
    std::this_thread::sleep_for(10ms);
  }
  return false;
}

// The whole output line that holds `text`, or "" when none does.
std::string LineHolding(const std::string& output, const std::string& text) {
  size_t at = output.find(text);
  if (at == std::string::npos) return {};
  size_t start = output.rfind('\n', at);
  start = start == std::string::npos ? 0 : start + 1;
  return output.substr(start, output.find('\n', at) - start);
}

bool HasLineStarting(const std::string& output, const std::string& head) {
  return output.compare(0, head.size(), head) == 0 || output.find("\n" + head) != std::string::npos;
}

// Whether `launcher` can run a program here at all: a container without CAP_SETPCAP cannot
// shrink the bounding set, and setpriv then ends in an error before any exec.
bool LauncherRuns(const std::vector<std::string>& launcher) {
  std::vector<std::string> args = launcher;
  args.push_back("/bin/true");
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  char* envp[] = {nullptr};
  pid_t pid = 0;
  if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), envp) != 0) return false;
  int status = 0;
  return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class DiskFault : public ::testing::TestWithParam<Fault> {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/tessmark-disk.XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr) << std::strerror(errno);
    home_ = pattern;
    // No user-dirs.dirs: the documents folder is $HOME/Documents.
    settingsFolder_ = home_ / ".config" / "Tessmark Personal Firewall";
    settingsFile_ = settingsFolder_ / "Tessmark Personal Firewall.conf";
    dataFolder_ = home_ / "Documents" / "Tessmark Personal Firewall_Files";
    ruleFile_ = dataFolder_ / "Tessmark Personal Firewall.dat";
  }
  void TearDown() override {
    listener_.close();
    // A folder left without search or write permission cannot be emptied by a user.
    mend();
    std::error_code error;
    if (!home_.empty()) fs::remove_all(home_, error);
  }

  // The path the fault is put on, and the mode that makes it.
  fs::path faultyPath() const {
    switch (GetParam()) {
      case Fault::UnreadableSettingsFile:
        return settingsFile_;
      case Fault::ReadOnlySettingsFolder:
        return settingsFolder_;
      case Fault::UnsearchableDataFolder:
        return dataFolder_;
    }
    return {};
  }
  mode_t faultyMode() const { return GetParam() == Fault::ReadOnlySettingsFolder ? 0500 : 0000; }
  void mend() {
    ::chmod(settingsFile_.c_str(), 0600);
    ::chmod(settingsFolder_.c_str(), 0700);
    ::chmod(dataFolder_.c_str(), 0700);
  }

  // What the firewall tells at start, before it watches; empty when the fault shows only
  // once something is saved.
  std::string toldAtStart() const {
    switch (GetParam()) {
      case Fault::UnreadableSettingsFile:
        return "cannot be read (" + settingsFile_.string() + ": ";
      case Fault::ReadOnlySettingsFolder:
        return {};
      case Fault::UnsearchableDataFolder:
        // The rule file, which cannot be reached through its folder.
        return "cannot be read (" + dataFolder_.string() + "/";
    }
    return {};
  }
  // What it tells when a new rule is to be saved; empty when the fault was told at start,
  // as a fault is told once, however many saves it refuses.
  std::string toldOnSave() const {
    if (GetParam() != Fault::ReadOnlySettingsFolder) return {};
    // The store replaces its file through a new one in the same folder.
    return "cannot be written (" + settingsFolder_.string();
  }

  fs::path home_, settingsFolder_, settingsFile_, dataFolder_, ruleFile_;
  Fd listener_;
};

// Ends the firewall as a session does and reads the rest of what it printed.
void EndInOrder(HeadlessFirewall& firewall) {
  int status = firewall.endWith(SIGTERM);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
  EXPECT_TRUE(firewall.waitFor("every held program was resumed")) << firewall.output();
}

TEST_P(DiskFault, TheRulesOutliveTheFaultUnsealedAndUnchanged) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  std::vector<std::string> launcher;
  if (geteuid() == 0) {
    if (::access(kSetpriv, X_OK) != 0)
      GTEST_SKIP() << "running as root, and without " << kSetpriv
                   << " no file mode would bind the firewall";
    launcher = {kSetpriv, kWithoutDacOverride};
    if (!LauncherRuns(launcher))
      GTEST_SKIP() << "running as root, and " << kSetpriv << " " << kWithoutDacOverride
                   << " cannot run here, so no file mode would bind the firewall";
  }

  // A clean first road: the test's own listener is asked about, allowed and remembered.
  listener_ = ListenOn(kPort);
  ASSERT_TRUE(listener_.valid()) << std::strerror(errno);
  {
    HeadlessFirewall firewall(home_);
    ASSERT_TRUE(firewall.waitFor("is watching")) << firewall.output();
    ASSERT_TRUE(WaitUntilFileHolds(ruleFile_, "linux_tests")) << firewall.output();
    EndInOrder(firewall);
  }
  const std::optional<std::string> rules = ReadBytes(ruleFile_);
  const std::optional<std::string> settings = ReadBytes(settingsFile_);
  ASSERT_TRUE(rules && settings);

  // The faulty start. A program it has never seen is refused and remembered, so the firewall
  // tries to save a rule while the fault holds.
  ASSERT_EQ(::chmod(faultyPath().c_str(), faultyMode()), 0) << std::strerror(errno);
  {
    HeadlessFirewall firewall(
        home_, "*/linux_tests yes remember\n*/client_peer no remember\n* none\n", {}, launcher);
    ASSERT_TRUE(firewall.waitFor("is watching")) << firewall.output();
    if (std::string told = toldAtStart(); !told.empty()) {
      EXPECT_NE(LineHolding(firewall.output(), told).find("Permission denied"), std::string::npos)
          << "no line names " << told << "...\n"
          << firewall.output();
    }
    // The rules that could be read are used as they are.
    if (GetParam() != Fault::UnsearchableDataFolder) {
      EXPECT_TRUE(HasLineStarting(firewall.output(), "1 rules,")) << firewall.output();
    }

    PeerChild client("client_peer", {});
    ASSERT_EQ(client.error(), "");
    ASSERT_TRUE(client.send("connect " + std::to_string(kPort) + "\n"));
    // The answer's save runs on the engine before the end it is sent afterwards.
    ASSERT_TRUE(firewall.waitFor("answered No, remembered")) << firewall.output();
    if (std::string told = toldOnSave(); !told.empty()) {
      EXPECT_TRUE(firewall.waitFor(told)) << firewall.output();
      EXPECT_NE(LineHolding(firewall.output(), told).find("Permission denied"), std::string::npos)
          << firewall.output();
    }
    EndInOrder(firewall);
    EXPECT_EQ(firewall.output().find("were changed"), std::string::npos) << firewall.output();
    EXPECT_EQ(firewall.output().find("Deletion"), std::string::npos) << firewall.output();
  }
  mend();
  EXPECT_EQ(ReadBytes(ruleFile_), rules) << "the rule file was written during the fault";
  EXPECT_EQ(ReadBytes(settingsFile_), settings) << "the settings were resealed during the fault";

  // Mended: the same rules, sealed as they were, and nothing to tell.
  {
    HeadlessFirewall firewall(home_);
    ASSERT_TRUE(firewall.waitFor("is watching")) << firewall.output();
    EXPECT_EQ(firewall.output().find("were changed"), std::string::npos) << firewall.output();
    EXPECT_EQ(firewall.output().find("cannot"), std::string::npos) << firewall.output();
    EXPECT_TRUE(HasLineStarting(firewall.output(), "1 rules,")) << firewall.output();
    EXPECT_EQ(ReadBytes(ruleFile_), rules);
    EndInOrder(firewall);
  }
}

// No prefix: the instances are named DiskFault.*/<fault>, as a filter on the suite expects.
INSTANTIATE_TEST_SUITE_P(, DiskFault,
                         ::testing::Values(Fault::UnreadableSettingsFile,
                                           Fault::ReadOnlySettingsFolder,
                                           Fault::UnsearchableDataFolder),
                         [](const auto& info) { return FaultName(info.param); });

}  // namespace
}  // namespace tessmark::testing
