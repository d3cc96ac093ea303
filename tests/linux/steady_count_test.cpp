// The whole firewall on the real kernel against a refused program that keeps the TCP row
// count steady: it holds two listeners (which the firewall judges and leaves, as it never
// destroys a listener), then closes both as it connects. Two rows go as two come, so the
// count the monitor probes does not move; the connection must still be broken.

#include <arpa/inet.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "linux/loopback.h"
#include "linux/netns.h"
#include "linux/peer_child.h"
#include "linux/temporary_home.h"
#include "monitor/engine.h"
#include "platform/linux/linux_platform.h"
#include "platform/linux/linux_tables.h"

namespace tessmark {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

using testing::ConnectTo;
using testing::Fd;
using testing::ListenOn;
using testing::LocalPortOf;

// Empty when this process may break a TCP connection (SOCK_DESTROY with CAP_NET_ADMIN),
// otherwise why not; tried on a connection of its own before any engine runs.
std::string BreakingUnavailableReason() {
  Fd listener = ListenOn(0);
  if (!listener.valid()) return std::string("cannot listen: ") + std::strerror(errno);
  Fd client = ConnectTo(LocalPortOf(listener));
  if (!client.valid()) return std::string("cannot connect: ") + std::strerror(errno);
  const uint32_t rawPort = htons(LocalPortOf(client));
  platform::linux_backend::LinuxConnectionTables tables;
  auto table = tables.tcpTable();
  if (!table) return "the TCP table cannot be read";
  for (const auto& row : *table) {
    if (row.row.dwLocalPort != rawPort) continue;
    uint32_t result = tables.deleteTcpRow(row.row);
    if (result == 0) return {};
    return std::string("SOCK_DESTROY failed: ") + std::strerror(static_cast<int>(result));
  }
  return "the probe connection is not in the TCP table";
}

class SteadyCountEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    TESSMARK_REQUIRE_PRIVATE_NETNS();
    std::string why = BreakingUnavailableReason();
    if (!why.empty()) GTEST_SKIP() << "cannot break connections: " << why;
    home_ = std::make_unique<testing::TemporaryHome>();
    ASSERT_FALSE(home_->path().empty()) << std::strerror(errno);
    system_ = std::make_unique<platform::linux_backend::LinuxPlatform>();
    engine_ = std::make_unique<Engine>(*system_, ui_);
    ASSERT_TRUE(fs::create_directories(engine_->rules.folders.AppDataDir));
  }

  void TearDown() override {
    if (engine_) engine_->stop();
    engine_.reset();
    system_.reset();
    home_.reset();
  }

  // A rule row, before the engine starts; an empty checksum compares as equal.
  void rule(const std::string& path, const std::string& access) {
    RuleList& list = engine_->monitor.ListView1;
    ASSERT_TRUE(list.Add("", path));
    RuleRow& row = list.Item(list.Count());
    row.SubItems[2] = access;
    row.SubItems[3] = std::to_string(list.Count());
  }

  // How many rows of the engine's last TCP snapshot `pid` owns, read on the engine thread at
  // its next pump, which comes after a poll; nullopt when the engine ran nothing for 10 s.
  std::optional<int> rowsOwnedBy(pid_t pid) {
    auto promise = std::make_shared<std::promise<int>>();
    std::future<int> future = promise->get_future();
    Engine* engine = engine_.get();
    engine->post([promise, engine, pid] {
      const ConnectionTable& table = engine->main.TcpConnections;
      int owned = 0;
      for (int32_t i = 0; i <= LastTableIndex(table); ++i) owned += table[i].ProcessId == pid;
      promise->set_value(owned);
    });
    if (future.wait_for(10s) != std::future_status::ready) return std::nullopt;
    return future.get();
  }

  SilentUi ui_;
  std::unique_ptr<platform::linux_backend::LinuxPlatform> system_;
  std::unique_ptr<Engine> engine_;
  std::unique_ptr<testing::TemporaryHome> home_;
};

TEST_F(SteadyCountEndToEnd, ARefusedConnectionMadeAsTwoListenersCloseIsBroken) {
  Fd server = ListenOn(0);
  ASSERT_GE(server.get(), 0) << std::strerror(errno);
  const std::string peerPath = fs::canonical(testing::PeerPath("steady_peer")).string();
  testing::PeerChild peer("steady_peer", {std::to_string(LocalPortOf(server))});
  ASSERT_EQ(peer.error(), "");
  rule(fs::read_symlink("/proc/self/exe").string(), AccessAllow);  // the server's side
  rule(peerPath, AccessDeny);
  engine_->start();

  // A poll has judged the two listeners and left them standing.
  std::optional<int> listeners;
  for (auto deadline = std::chrono::steady_clock::now() + 10s;;) {
    listeners = rowsOwnedBy(peer.pid());
    if (listeners == 2 || std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(5ms);
  }
  ASSERT_EQ(listeners, 2);

  ASSERT_EQ(::kill(peer.pid(), SIGUSR1), 0) << std::strerror(errno);
  // The peer ends by itself once its connection is aborted under it.
  auto status = peer.reap(10s);
  ASSERT_TRUE(status.has_value()) << "the refused connection still stands";
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << "wait status " << *status;
}

}  // namespace
}  // namespace tessmark
