// The headless firewall as a user runs it, ended in the ways a desktop ends programs: its
// output closed under it (`tessmark-firewall | head`), and every signal that would end it. Each
// way must end in order, with the program it held running again.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "linux/headless_firewall.h"
#include "linux/loopback.h"
#include "linux/netns.h"
#include "linux/peer_child.h"

namespace tessmark::testing {
namespace {

using namespace std::chrono_literals;

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
