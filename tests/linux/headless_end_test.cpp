// The headless firewall as a user runs it, ended in the ways a desktop ends programs: its
// output closed under it (`tessmark-firewall | head`), and every signal that would end it. Each
// way must end in order, with the program it held running again.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "linux/loopback.h"
#include "linux/netns.h"
#include "linux/peer_child.h"

namespace tessmark::testing {
namespace {

using namespace std::chrono_literals;

class HeadlessFirewall {
 public:
  explicit HeadlessFirewall(const std::filesystem::path& home) {
    // The test's own listener is allowed; every other question stays open.
    std::ofstream(home / "answers") << "*/linux_tests yes remember\n* none\n";
    std::string answers = (home / "answers").string();
    std::string homeVar = "HOME=" + home.string();
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return;
    pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], STDOUT_FILENO);
      int null = open("/dev/null", O_WRONLY);
      dup2(null, STDERR_FILENO);
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(126);
      char program[] = TESSMARK_FIREWALL, flag[] = "--answers";
      char* argv[] = {program, flag, answers.data(), nullptr};
      char* envp[] = {homeVar.data(), nullptr};
      execve(program, argv, envp);
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
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
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
  bool running() const {
    siginfo_t info{};
    return pid_ > 0 &&
           waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
  }
  // Sends `signal` and waits up to 10 s for the end; its wait status, or -1.
  int endWith(int signal) {
    kill(pid_, signal);
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        ended_ = true;
        return status;
      }
      std::this_thread::sleep_for(1ms);
    }
    return -1;
  }
  const std::string& output() const { return seen_; }

 private:
  pid_t pid_ = -1;
  int output_ = -1;
  bool ended_ = false;
  std::string seen_;
};

class HeadlessEnd : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    home_ = std::filesystem::temp_directory_path() /
            ("tessmark-headless-" + std::to_string(getpid()) + "-" + std::to_string(++runs_));
    std::filesystem::remove_all(home_);
    std::filesystem::create_directories(home_);
  }
  void TearDown() override {
    listener_.close();
    std::filesystem::remove_all(home_);
  }

  // Starts the firewall, then a program it has never seen, which it holds and asks about.
  void startWithAHeldProgram(HeadlessFirewall& firewall, PeerChild& client, bool closeOutput) {
    ASSERT_TRUE(firewall.waitFor("is watching")) << firewall.output();
    if (closeOutput) firewall.closeOutput();  // what `| head` does once it has its lines
    listener_ = ListenOn(24501);
    ASSERT_GE(listener_.get(), 0) << std::strerror(errno);
    ASSERT_EQ(client.error(), "");
    ASSERT_TRUE(client.send("connect 24501\n"));
    ASSERT_TRUE(client.waitUntilHeld(true, 10s))
        << "state " << client.state() << (firewall.waitFor("Frozen"), firewall.output());
  }

  std::filesystem::path home_;
  Fd listener_;
  static inline int runs_ = 0;
};

TEST_F(HeadlessEnd, AClosedOutputDoesNotEndItAndItsEndLetsTheHeldProgramGo) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  HeadlessFirewall firewall(home_);
  PeerChild client("client_peer", {});
  startWithAHeldProgram(firewall, client, /*closeOutput=*/true);
  std::this_thread::sleep_for(100ms);  // the alert's lines have met the closed pipe by now
  EXPECT_TRUE(firewall.running()) << "a write to a closed output ended the firewall";
  int status = firewall.endWith(SIGTERM);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
  EXPECT_TRUE(client.waitUntilHeld(false)) << "state " << client.state();
}

TEST_P(HeadlessEnd, EverySignalThatWouldEndItEndsItInOrder) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  HeadlessFirewall firewall(home_);
  PeerChild client("client_peer", {});
  startWithAHeldProgram(firewall, client, /*closeOutput=*/false);
  int status = firewall.endWith(GetParam());
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
  EXPECT_TRUE(firewall.waitFor("every held program was resumed")) << firewall.output();
  EXPECT_TRUE(client.waitUntilHeld(false)) << "state " << client.state();
}

INSTANTIATE_TEST_SUITE_P(Signals, HeadlessEnd,
                         ::testing::Values(SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGRTMIN),
                         [](const auto& info) { return "Signal" + std::to_string(info.param); });

}  // namespace
}  // namespace tessmark::testing
