// The headless firewall binary as a user runs it, a child of the test with HOME in a folder of
// the test's: ended in every way a desktop ends programs, and started twice over a disk that
// refuses it in between.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "linux/netns.h"
#include "linux/peer_child.h"
#include "linux/temporary_home.h"

namespace tessmark::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// The firewall with `answers` as its script, its output (every message box, a line each) read
// back by the test. `launcher` runs it (the binary becomes its last arguments). It gets
// SIGKILL when the test process ends, so that a firewall holding programs never outlives a
// crashed test.
class HeadlessFirewall {
 public:
  HeadlessFirewall(const fs::path& home, const std::string& answers,
                   std::vector<std::string> args = {}) {
    std::ofstream(home / "answers") << answers;
    args.insert(args.end(), {TESSMARK_FIREWALL, "--answers", (home / "answers").string()});
    std::string variable = "HOME=" + home.string();
    // Built before the fork: the child makes only async-signal-safe calls until exec.
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    char* envp[] = {variable.data(), nullptr};
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return;
    pid_t parent = getpid();
    if ((pid_ = fork()) == 0) {
      dup2(out[1], STDOUT_FILENO);
      dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(126);
      execve(argv[0], argv.data(), envp);
      _exit(127);
    }
    close(out[1]);
    output_ = out[0];
  }
  ~HeadlessFirewall() {
    closeOutput();
    if (pid_ > 0 && !ended_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  // Reads its output until `text` shows, for up to 10 s.
  bool waitFor(const std::string& text) {
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (seen_.find(text) == std::string::npos) {
      auto left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      pollfd p{output_, POLLIN, 0};
      char buf[512];
      ssize_t n = 0;
      if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) != 1 ||
          (n = read(output_, buf, sizeof buf)) <= 0)
        return false;
      seen_.append(buf, static_cast<size_t>(n));
    }
    return true;
  }
  void closeOutput() {
    if (output_ >= 0) close(output_);
    output_ = -1;
  }
  // Ends it with `signal`, as a session does, and reads the rest of what it printed.
  void endInOrder(int signal = SIGTERM) {
    kill(pid_, signal);
    int status = 0;
    for (auto deadline = std::chrono::steady_clock::now() + 10s;
         waitpid(pid_, &status, WNOHANG) != pid_; std::this_thread::sleep_for(1ms)) {
      if (std::chrono::steady_clock::now() > deadline) return ADD_FAILURE() << "it runs on";
    }
    ended_ = true;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
    if (output_ >= 0) {
      EXPECT_TRUE(waitFor("every held program was resumed")) << seen_;
    }
  }
  const std::string& output() const { return seen_; }

 private:
  pid_t pid_ = -1;
  int output_ = -1;
  bool ended_ = false;
  std::string seen_;
};

// Each way of ending lets the program it held run again. With its output closed under it (what
// `tessmark-firewall | head` does once it has its lines) it writes on as before. The test
// itself holds no socket: the firewall has no reason to freeze it.
class HeadlessEnd : public ::testing::TestWithParam<int> {};

TEST_P(HeadlessEnd, EverySignalThatWouldEndItEndsItInOrder) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  TemporaryHome home;
  ASSERT_FALSE(home.path().empty()) << std::strerror(errno);
  HeadlessFirewall firewall(home.path(), "* none\n");
  PeerChild client("client_peer", {});
  ASSERT_EQ(client.error(), "");
  ASSERT_TRUE(firewall.waitFor("is watching")) << firewall.output();
  if (GetParam() == SIGTERM) firewall.closeOutput();
  ASSERT_TRUE(client.send("listen 24501\nconnect 24501\n"));
  ASSERT_TRUE(client.waitUntilHeld(true, 10s)) << "state " << client.state();
  firewall.endInOrder(GetParam());
  EXPECT_TRUE(client.waitUntilHeld(false)) << "state " << client.state();
}

INSTANTIATE_TEST_SUITE_P(Signals, HeadlessEnd,
                         ::testing::Values(SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGRTMIN),
                         [](const auto& info) { return "Signal" + std::to_string(info.param); });

std::optional<std::string> ReadBytes(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

// Whether `output` names `told` and, further on that line, says why.
bool Tells(const std::string& output, const std::string& told) {
  size_t at = output.find(told);
  return at != std::string::npos &&
         output.substr(at, output.find('\n', at) - at).find("Permission denied") !=
             std::string::npos;
}

// A disk that refuses the firewall: a path in HOME, the mode that makes the fault, and what
// the firewall tells (at start, or at the first save it cannot make).
struct Fault {
  const char* name;
  std::string path;
  fs::perms mode;
  const char* told[2];  // the words before the path and after it
  bool toldAtStart;
  int rulesUsed;  // the rules read in spite of it
  friend void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }
};

const std::string kSettingsFolder = ".config/Tessmark Personal Firewall";
const std::string kSettingsFile = kSettingsFolder + "/Tessmark Personal Firewall.conf";
// With no user-dirs.dirs in HOME, the firewall keeps its data under $HOME/Documents.
const std::string kDataFolder = "Documents/Tessmark Personal Firewall_Files";
const std::string kRuleFile = kDataFolder + "/Tessmark Personal Firewall.dat";
constexpr fs::perms kReadOnly = fs::perms::owner_read | fs::perms::owner_exec;
const Fault kFaults[] = {
    {"UnreadableSettingsFile", kSettingsFile, fs::perms::none, {"cannot be read (", ": "}, true, 1},
    {"ReadOnlySettingsFolder", kSettingsFolder, kReadOnly, {"cannot be written (", ""}, false, 1},
    {"UnsearchableDataFolder", kDataFolder, fs::perms::none, {"cannot be read (", "/"}, true, 0}};

class DiskFault : public ::testing::TestWithParam<Fault> {};

// None of these faults is a change to the settings: the firewall says which path failed, runs
// no recovery, seals nothing and overwrites no rule; once the fault is mended the next start
// finds the rules a user gave, sealed as they were.
TEST_P(DiskFault, TheRulesOutliveTheFaultUnsealedAndUnchanged) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  if (access("/bin/bash", X_OK) != 0) GTEST_SKIP() << "no /bin/bash to be a new program";
  const Fault& fault = GetParam();
  std::vector<std::string> launcher;
  if (geteuid() == 0) {
    // Root passes every permission check through these two; without them in the bounding set
    // an exec'd root process has them neither permitted nor effective, and the modes bind.
    launcher = {"/usr/bin/setpriv", "--bounding-set=-dac_override,-dac_read_search"};
    if (std::system((launcher[0] + " " + launcher[1] + " /bin/true 2>/dev/null").c_str()) != 0)
      GTEST_SKIP() << "running as root, and " << launcher[0] << " " << launcher[1]
                   << " cannot run here, so no file mode would bind the firewall";
  }
  TemporaryHome home;
  ASSERT_FALSE(home.path().empty()) << std::strerror(errno);
  const fs::path faulty = fs::path(home.path()) / fault.path;
  const fs::path ruleFile = fs::path(home.path()) / kRuleFile;
  const fs::path settingsFile = fs::path(home.path()) / kSettingsFile;
  PeerChild service("client_peer", {});
  ASSERT_TRUE(service.send("listen 24531\n")) << service.error();
  const std::string answers = "*/client_peer yes remember\n*/bash no remember\n";

  // A clean first start: the service is asked about, allowed and remembered; the save runs on
  // the engine before the end, which is sent afterwards.
  {
    HeadlessFirewall firewall(home.path(), answers);
    ASSERT_TRUE(firewall.waitFor("answered Yes, remembered")) << firewall.output();
    firewall.endInOrder();
  }
  const std::optional<std::string> rules = ReadBytes(ruleFile), settings = ReadBytes(settingsFile);
  ASSERT_TRUE(rules && settings && rules->find("client_peer") != std::string::npos);

  // The faulty start. A program it has never seen is refused and remembered, so the firewall
  // tries to save a rule while the fault holds. Nothing returns early until the mode is mended:
  // a folder left without search or write permission cannot be emptied.
  const fs::perms mended = fs::status(faulty).permissions();
  fs::permissions(faulty, fault.mode);
  {
    HeadlessFirewall firewall(home.path(), answers, launcher);
    EXPECT_TRUE(firewall.waitFor("is watching")) << firewall.output();
    // bash's own read keeps it one program: a last command of `bash -c` may replace it.
    char bash[] = "/bin/bash", c[] = "-c", env[] = "PATH=/bin";
    char script[] = "exec 2>/dev/null 3<>/dev/tcp/127.0.0.1/24531 && read -t 10 -u 3";
    char* argv[] = {bash, c, script, nullptr};
    char* envp[] = {env, nullptr};
    pid_t refused = 0;
    EXPECT_EQ(posix_spawn(&refused, bash, nullptr, nullptr, argv, envp), 0);
    EXPECT_TRUE(firewall.waitFor("answered No, remembered")) << firewall.output();
    firewall.endInOrder();
    if (refused > 0 && kill(refused, SIGKILL) == 0) waitpid(refused, nullptr, 0);
    std::string told = fault.told[0] + faulty.string() + fault.told[1], seen = firewall.output();
    if (fault.toldAtStart) seen.resize(std::min(seen.size(), seen.find("is watching")));
    EXPECT_TRUE(Tells(seen, told)) << "no line names " << told << "\n" << firewall.output();
    // The rules that could be read are used as they are.
    EXPECT_NE(("\n" + seen).find("\n" + std::to_string(fault.rulesUsed) + " rules,"),
              std::string::npos)
        << firewall.output();
    EXPECT_EQ(firewall.output().find("were changed"), std::string::npos) << firewall.output();
    EXPECT_EQ(firewall.output().find("Deletion"), std::string::npos) << firewall.output();
  }
  fs::permissions(faulty, mended);
  EXPECT_EQ(ReadBytes(ruleFile), rules) << "the rule file was written during the fault";
  EXPECT_EQ(ReadBytes(settingsFile), settings) << "the settings were resealed during the fault";

  // Mended: the same rules, sealed as they were, and nothing to tell.
  HeadlessFirewall firewall(home.path(), answers);
  ASSERT_TRUE(firewall.waitFor("is watching")) << firewall.output();
  firewall.endInOrder();
  EXPECT_EQ(firewall.output().find("were changed"), std::string::npos) << firewall.output();
  EXPECT_EQ(firewall.output().find("cannot"), std::string::npos) << firewall.output();
  EXPECT_NE(("\n" + firewall.output()).find("\n1 rules,"), std::string::npos) << firewall.output();
  EXPECT_EQ(ReadBytes(ruleFile), rules);
}

// No prefix: the instances are named DiskFault.*/<fault>, as a filter on the suite expects.
INSTANTIATE_TEST_SUITE_P(, DiskFault, ::testing::ValuesIn(kFaults),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tessmark::testing
