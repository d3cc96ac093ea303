// The whole firewall on the real kernel: the Linux backend, an Engine on its own thread, and
// client_peer programs connecting over loopback inside the test binary's private network
// namespace. Each test follows what a user of the machine sees happen to a program and its
// connections. After Engine::start() the test reaches the engine's state only through
// engine.post(); the UI below is called on the engine thread and keeps what it was shown.

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "base/booleans.h"
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
using namespace testing;
using Shown = std::vector<std::string>;

// One connection taken from a listener, waiting up to `limit`.
Fd AcceptOne(const Fd& listener, std::chrono::milliseconds limit = 10s) {
  pollfd p{listener.get(), POLLIN, 0};
  if (::poll(&p, 1, static_cast<int>(limit.count())) != 1) return Fd();
  return Fd(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

// The next read of a connection, waiting up to `limit`: the bytes, or the error's text.
std::string ReadSome(const Fd& fd, std::chrono::milliseconds limit = 10s) {
  pollfd p{fd.get(), POLLIN, 0};
  if (::poll(&p, 1, static_cast<int>(limit.count())) != 1) return "nothing came";
  char buffer[256];
  ssize_t n = ::recv(fd.get(), buffer, sizeof buffer, MSG_DONTWAIT);
  return n < 0 ? std::strerror(errno) : std::string(buffer, static_cast<size_t>(n));
}

// Empty when this process may break a TCP connection (SOCK_DESTROY needs the kernel's
// CONFIG_INET_DIAG_DESTROY and CAP_NET_ADMIN), otherwise why not. Tried on a connection of
// its own, before any engine runs.
std::string CannotBreak() {
  Fd listener = ListenOn(24000);
  Fd client = ConnectTo(24000);
  Fd server = AcceptOne(listener);
  platform::linux_backend::LinuxConnectionTables tables;
  auto table = tables.tcpTable();
  if (!server.valid() || !table) return "cannot make or read the probe connection";
  for (const auto& row : *table) {
    if (row.row.dwLocalPort != htons(LocalPortOf(client))) continue;
    uint32_t error = tables.deleteTcpRow(row.row);
    return error == 0 ? "" : std::string("SOCK_DESTROY: ") + std::strerror(static_cast<int>(error));
  }
  return "no probe connection in the TCP table";
}

#define REQUIRE_CONNECTION_BREAKING()                                 \
  if (std::string why = CannotBreak(); !why.empty()) {                \
    GTEST_SKIP() << "this process cannot break connections: " << why; \
  }

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

// CRC-32 bit by bit, the known answer for the checksums of programs.
uint32_t ReferenceCrc(const std::string& bytes) {
  uint32_t reg = 0xFFFFFFFFu;
  for (unsigned char byte : bytes) {
    reg ^= byte;
    for (int bit = 0; bit < 8; ++bit) reg = (reg >> 1) ^ (0xEDB88320u & (0u - (reg & 1u)));
  }
  return ~reg;
}

// A program's checksum as the rule list holds it: a signed decimal.
std::string CrcText(const std::string& path) {
  return std::to_string(static_cast<int32_t>(ReferenceCrc(ReadFile(path))));
}

// A log record with its time, which is the desktop's clock, shown as "T".
std::string Untimed(const std::string& record) {
  return std::regex_replace(record, std::regex(R"(^(\|[^|]*\|[^|]*\|)[^|]+)"), "$1T");
}

// What the engine showed, one line per window, in order.
class Ui final : public SilentUi {
 public:
  void showAlert(int16_t slot, const AlertView& v) override {
    add("alert " + std::to_string(slot) + " " + v.Label1 + " " + v.path + " " + v.raddr + ":" +
        v.rport);
  }
  void showVirusNotice(const VirusView& v) override { add("virus " + v.path + " " + v.txtInfo); }
  void showClosedPortNotice(const ClosedPortView& v) override {
    add("closed " + v.Label2 + "|" + v.Label3 + "|" + v.Label5);
  }
  // Everything shown, once at least `count` things were (waiting up to 10 s).
  Shown shown(size_t count = 0) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, 10s, [&] { return shown_.size() >= count; });
    return shown_;
  }

 private:
  void add(const std::string& line) {
    std::lock_guard lock(mutex_);
    shown_.push_back(line);
    changed_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  Shown shown_;
};

class FirewallEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    TESSMARK_REQUIRE_PRIVATE_NETNS();
    ASSERT_FALSE(home_.path().empty()) << std::strerror(errno);
    engine_ = std::make_unique<Engine>(system_, ui_);
    // Every file the engine writes goes to the test's own home.
    ASSERT_EQ(engine_->rules.folders.AppDataDir.rfind(home_.path() + "/", 0), 0u);
    ASSERT_TRUE(fs::create_directories(engine_->rules.folders.AppDataDir));
    // The test's own sockets (listeners, the far ends) are allowed.
    RuleList& rules = engine_->monitor.ListView1;
    ASSERT_TRUE(rules.Add("", fs::read_symlink("/proc/self/exe").string()));
    rules.Item(1).SubItems[2] = AccessAllow;
    rules.Item(1).SubItems[3] = "1";
    engine_->monitor.Check2 = 1;  // the closed-port notice
    engine_->monitor.Check3 = 1;  // the log
  }
  void TearDown() override {
    if (engine_) engine_->stop();
  }

  // Runs `f` on the engine thread at its next pump and gives its result.
  template <class F>
  auto onEngine(F f) {
    auto promise = std::make_shared<std::promise<decltype(f())>>();
    auto future = promise->get_future();
    engine_->post([promise, f] { promise->set_value(f()); });
    if (future.wait_for(60s) != std::future_status::ready) {
      std::fprintf(stderr, "the engine ran no posted command for 60 s\n");
      std::abort();  // nothing sensible can follow
    }
    return future.get();
  }

  // The answer to the alert of `slot`, remembered, as the dialog posts it.
  void answer(int16_t slot, bool yes) {
    engine_->post([engine = engine_.get(), slot, yes] {
      frmAlert& alert = engine->monitor.AlertForm(slot);
      alert.chkRemember = 1;
      if (yes) {
        alert.Command1_Click();
      } else {
        alert.command2_Click();
      }
    });
  }

  // "CHECKSUM ACCESS" of the rule for `path`, "" when there is none.
  std::string ruleFor(const std::string& path) {
    return onEngine([this, path] {
      const RuleList& list = engine_->monitor.ListView1;
      int16_t i = list.FindPath(path);
      return i < 1 ? std::string() : list.Item(i).SubItems[1] + " " + list.Item(i).SubItems[2];
    });
  }

  // The records ("|"-lines) of today's log, once at least `count` are there (up to 10 s).
  Shown logRecords(size_t count = 0) {
    auto deadline = std::chrono::steady_clock::now() + 10s;
    for (;;) {
      std::string path = onEngine([this] {
        engine_->monitor.Log.FlushLogBuffer();
        return engine_->rules.folders.AppDataDir + "/Logs/" + engine_->monitor.Log.TodayLogName() +
               ".txt";
      });
      Shown records;
      std::istringstream in(ReadFile(path));
      for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty() && line[0] == '|') records.push_back(line);
      }
      if (records.size() >= count || std::chrono::steady_clock::now() >= deadline) return records;
      std::this_thread::sleep_for(5ms);
    }
  }

  void refusalRoad(Family family, int port);

  TemporaryHome home_;
  platform::linux_backend::LinuxPlatform system_;
  Ui ui_;
  std::unique_ptr<Engine> engine_;
  const std::string client_ = fs::weakly_canonical(PeerPath("client_peer")).string();
};

// The peers are started before the test opens any socket: between fork and exec a child
// holds every descriptor of the test, and a table read in that window would take the test's
// listener for the peer's.

TEST_F(FirewallEndToEnd, ANewProgramStandsFrozenFromItsFirstConnectionUntilYes) {
  PeerChild client("client_peer", {});
  ASSERT_EQ(client.error(), "");
  Fd listener = ListenOn(24201);
  ASSERT_TRUE(listener.valid()) << std::strerror(errno);
  engine_->start();

  ASSERT_TRUE(client.send("connect 24201\n"));
  EXPECT_EQ(ui_.shown(1), Shown{"alert 1 New program " + client_ + " 127.0.0.1:24201"});
  EXPECT_TRUE(client.waitUntilHeld(true, 10s)) << "state " << client.state();
  Fd server = AcceptOne(listener);
  ASSERT_TRUE(server.valid());
  // Frozen, it sends nothing; a wrongly running one has the time to show it.
  ASSERT_TRUE(client.send("write 0 hello\n"));
  EXPECT_EQ(ReadSome(server, 300ms), "nothing came");
  EXPECT_EQ(ruleFor(client_), CrcText(client_) + " ask");

  answer(1, /*yes=*/true);
  EXPECT_TRUE(client.waitUntilHeld(false, 10s)) << "state " << client.state();
  // The connection it made while frozen works.
  EXPECT_EQ(ReadSome(server), "hello");
  EXPECT_EQ(ruleFor(client_), CrcText(client_) + " allow");
  EXPECT_EQ(ui_.shown().size(), 1u);
}

// A new program answered "No" with Remember: the held connection broken, the rule "deny"
// written, and the program's next connection broken and logged without a question. The same
// road whichever family the program speaks: the rules judge programs, not addresses.
void FirewallEndToEnd::refusalRoad(Family family, int port) {
  PeerChild client("client_peer", {});
  ASSERT_EQ(client.error(), "");
  Fd listener = ListenOn(port, family);
  ASSERT_TRUE(listener.valid()) << std::strerror(errno);
  engine_->start();

  const std::string connect = family == Family::kIpv6 ? "connect6 " : "connect ";
  const std::string loopback = family == Family::kIpv6 ? "::1" : "127.0.0.1";
  const std::string server = std::to_string(port), next = std::to_string(port + 1);
  ASSERT_TRUE(client.send(connect + server + "\n"));
  EXPECT_EQ(ui_.shown(1), Shown{"alert 1 New program " + client_ + " " + loopback + ":" + server});
  ASSERT_TRUE(client.waitUntilHeld(true, 10s)) << "state " << client.state();
  Fd held = AcceptOne(listener);
  ASSERT_TRUE(held.valid());
  answer(1, /*yes=*/false);
  EXPECT_TRUE(client.waitUntilHeld(false, 10s)) << "state " << client.state();
  // The program's own end was destroyed: the far end got a reset.
  EXPECT_EQ(ReadSome(held), std::strerror(ECONNRESET));
  EXPECT_EQ(ruleFor(client_), CrcText(client_) + " deny");
  EXPECT_EQ(logRecords(), Shown{}) << "an answered refusal is the user's: nothing is logged";

  // The rule breaks the next connection without a question, and the program runs on.
  ASSERT_TRUE(client.send(connect + server + " " + next + "\n"));
  Shown records = logRecords(1);
  ASSERT_EQ(records.size(), 1u);
  // A table read can catch the connection in its handshake: no far end is made then.
  auto logged = [&](const std::string& state) {
    return "|" + client_ + "|" + std::to_string(client.pid()) + "|T|" + loopback + "|" + loopback +
           "|" + next + "|" + server + "|" + state + "|n";
  };
  EXPECT_TRUE(Untimed(records[0]) == logged("ESTAB") || Untimed(records[0]) == logged("SYN_SENT"))
      << records[0];
  if (Fd again = AcceptOne(listener, 1s); again.valid()) {
    EXPECT_EQ(ReadSome(again), std::strerror(ECONNRESET));
  }
  EXPECT_FALSE(client.held());
  EXPECT_EQ(ui_.shown().size(), 1u);
}

TEST_F(FirewallEndToEnd, NoBreaksTheHeldConnectionAndTheRememberedRefusalBreaksAndLogsTheNext) {
  REQUIRE_CONNECTION_BREAKING();
  refusalRoad(Family::kIpv4, 24301);
}

TEST_F(FirewallEndToEnd, AProgramListedAsDestructiveIsKilledAtItsFirstConnection) {
  // A known-program list: its lines, "END", and the CRC-32 of all that, little-endian.
  const std::string list = home_.path() + "/ProgramCheck.dat";
  std::string body = CrcText(client_) + "|3|Test.Destructive\r\nEND\r\n";
  for (uint32_t crc = ReferenceCrc(body), i = 0; i < 4; ++i)
    body += static_cast<char>(crc >> 8 * i);
  std::ofstream(list, std::ios::binary) << body;
  engine_->rules.knownPrograms.LoadKnownPrograms(list);
  PeerChild client("client_peer", {});
  ASSERT_EQ(client.error(), "");
  Fd listener = ListenOn(24401);
  ASSERT_TRUE(listener.valid()) << std::strerror(errno);
  engine_->start();

  ASSERT_TRUE(client.send("connect 24401\n"));
  auto status = client.reap(10s);
  ASSERT_TRUE(status.has_value()) << "the destructive program still runs, state " << client.state();
  EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGKILL) << "wait status " << *status;
  Shown shown = ui_.shown(1);
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(shown[0].rfind("virus " + client_ + " ", 0), 0u) << shown[0];
  EXPECT_NE(shown[0].find("Description: Test.Destructive"), std::string::npos) << shown[0];
  EXPECT_EQ(ruleFor(client_), CrcText(client_) + " deny");
}

#define REQUIRE_IPV6_LOOPBACK()                               \
  if (const char* why = NoIpv6Loopback(); *why != '\0') {     \
    GTEST_SKIP() << "no IPv6 loopback to test with: " << why; \
  }

TEST_F(FirewallEndToEnd, OverIpv6ANewProgramIsFrozenAndAskedAndItsRefusalBreaksAndLogs) {
  REQUIRE_IPV6_LOOPBACK();
  REQUIRE_CONNECTION_BREAKING();
  refusalRoad(Family::kIpv6, 24601);
}

TEST_F(FirewallEndToEnd, AListenerOnAllAddressesIsAskedAboutItsIpv4ClientByItsIpv4Address) {
  REQUIRE_IPV6_LOOPBACK();
  PeerChild server("client_peer", {});
  ASSERT_EQ(server.error(), "");
  engine_->start();
  // Its listener alone makes it known: asked, and let go without a remembered answer.
  ASSERT_TRUE(server.send("listen6 24701\n"));
  ASSERT_EQ(ui_.shown(1), Shown{"alert 1 New program " + client_ + " :::0"});
  ASSERT_TRUE(server.waitUntilHeld(true, 10s)) << "state " << server.state();
  answer(1, /*yes=*/true);
  ASSERT_TRUE(server.waitUntilHeld(false, 10s)) << "state " << server.state();
  onEngine([this] {  // "Yes" without Remember: it is asked again at its next connection
    engine_->monitor.ListView1.Item(engine_->monitor.ListView1.FindPath(client_)).SubItems[2] =
        AccessAsk;
    return 0;
  });

  // An IPv4 client: the server's end is an IPv6 socket holding ::ffff:127.0.0.1.
  Fd client = ConnectTo(24701, 24702);
  ASSERT_TRUE(client.valid()) << std::strerror(errno);
  Shown shown = ui_.shown(2);
  ASSERT_EQ(shown.size(), 2u);
  // The slot is whichever the first alert left free; the question is what matters.
  const size_t question = shown[1].find(" Repeat");
  ASSERT_NE(question, std::string::npos) << shown[1];
  EXPECT_EQ(shown[1].substr(question), " Repeat program " + client_ + " 127.0.0.1:24702");
  const auto slot = static_cast<int16_t>(std::stoi(shown[1].substr(std::string("alert ").size())));
  EXPECT_TRUE(server.waitUntilHeld(true, 10s)) << "state " << server.state();
  // The connection list shows it the same way.
  Shown listed = onEngine([this] {
    engine_->monitor.NewtcpCon(kTrue, kTrue);
    Shown rows;
    for (const ConnectionListRow& row : engine_->monitor.ConnectionList)
      if (row.Text == client_)
        rows.push_back(row.SubItems[1] + " " + row.SubItems[2] + " " + row.SubItems[3] + " " +
                       row.SubItems[4]);
    std::sort(rows.begin(), rows.end());
    return rows;
  });
  EXPECT_EQ(listed, (Shown{"127.0.0.1 127.0.0.1 24701 24702", ":: :: 24701 0"}));
  answer(slot, /*yes=*/true);
  EXPECT_TRUE(server.waitUntilHeld(false, 10s)) << "state " << server.state();
}

TEST_F(FirewallEndToEnd, TheInternetLockBreaksIpv6ConnectionsAndThoseOfIpv4ClientsOnIpv6Sockets) {
  REQUIRE_IPV6_LOOPBACK();
  REQUIRE_CONNECTION_BREAKING();
  Fd v6Listener = ListenOn(24801, Family::kIpv6);
  Fd dualListener = ListenOn(24802, Family::kDualStack);
  Fd v6Client = ConnectTo(24801, 0, Family::kIpv6);
  Fd v4Client = ConnectTo(24802);
  Fd v6Served = AcceptOne(v6Listener);
  Fd mappedServed = AcceptOne(dualListener);
  ASSERT_TRUE(v6Client.valid() && v4Client.valid() && v6Served.valid() && mappedServed.valid())
      << std::strerror(errno);
  engine_->start();
  // The lock as the window sets it: every row broken at once, no rule asked.
  onEngine([this] {
    engine_->main.InternetLocked = kTrue;
    engine_->main.GetTCPConnections(kTrue, kTrue);
    engine_->monitor.NewtcpCon(kFalse, kFalse);
    return 0;
  });
  // Each connection lost both its ends; whichever end a read meets first, it ends in error.
  for (const Fd* end : {&v6Client, &v6Served, &v4Client, &mappedServed}) {
    std::string read = ReadSome(*end);
    EXPECT_TRUE(read == std::strerror(ECONNRESET) || read == std::strerror(ECONNABORTED)) << read;
  }
  // Breaking one end takes its loopback peer with it, so each connection leaves one record.
  EXPECT_GE(logRecords(2).size(), 2u);
}

// The service is the test itself: allowed to talk, but not on a port the user closed.
TEST_F(FirewallEndToEnd, AClosedServicePortBreaksItsConnectionAndSparesTheListener) {
  REQUIRE_CONNECTION_BREAKING();
  Fd service = ListenOn(139);  // NetBIOS, rated high
  if (!service.valid()) GTEST_SKIP() << "cannot listen on port 139: " << std::strerror(errno);
  Fd client = ConnectTo(139, 24501);
  Fd served = AcceptOne(service);
  ASSERT_TRUE(client.valid() && served.valid()) << std::strerror(errno);
  engine_->rules.closePorts.Check4[0].Value = 1;
  engine_->rules.closePorts.RefreshClosedPorts();
  engine_->start();

  EXPECT_EQ(ReadSome(served), std::strerror(ECONNABORTED));
  EXPECT_EQ(ReadSome(client), std::strerror(ECONNRESET));
  const std::string self = fs::read_symlink("/proc/self/exe").string();
  EXPECT_EQ(ui_.shown(1), Shown{"closed Tessmark Personal Firewall closed port 139 for safety "
                                "reasons.|Service NetBIOS|Program: " +
                                self});
  Shown records = logRecords(1);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(Untimed(records[0]), "|" + self + "|" + std::to_string(getpid()) +
                                     "|T|127.0.0.1|127.0.0.1|139|24501|ESTAB|h");
  // The listener is no connection: the service still takes new ones.
  EXPECT_TRUE(ConnectTo(139).valid()) << std::strerror(errno);
}

}  // namespace
}  // namespace tessmark
