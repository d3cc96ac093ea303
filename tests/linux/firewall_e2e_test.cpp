// The whole firewall on the real kernel: the Linux backend, an Engine running on its own
// thread, and real programs (client_peer) connecting over loopback inside the test binary's
// private network namespace. Each test states what a user of the machine would see happen to
// a program and its connections: a refused connection aborted and logged, a new program
// frozen until the user answers, a "No" that breaks what was held, a destructive program
// killed, and a closed service port broken with its rating.
//
// After Engine::start() the test touches the engine's state only through engine.post(); the
// UI port below is called on the engine thread and keeps what it was shown under a lock.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
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
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "linux/loopback.h"
#include "linux/netns.h"
#include "linux/temporary_home.h"
#include "monitor/engine.h"
#include "platform/linux/linux_platform.h"
#include "platform/linux/linux_tables.h"
#include "platform/linux/process_stat.h"

namespace tessmark {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Every port the tests choose lies below 32768: the firewall rounds ports from there up in
// its records, and the log lines are compared with the ports as the sockets have them.
constexpr uint16_t kProbePort = 24000;

// ---------------------------------------------------------------------------------------
// Sockets of the test process itself. The test binary has an "allow" rule, so these are
// never judged against it.

using testing::ConnectTo;
using testing::Fd;
using testing::ListenOn;
using testing::LocalPortOf;

// One connection taken from a listener, waiting up to `limit`.
Fd AcceptOne(const Fd& listener, std::chrono::milliseconds limit = 10s) {
  pollfd p{listener.get(), POLLIN, 0};
  if (::poll(&p, 1, static_cast<int>(limit.count())) != 1) return Fd();
  return Fd(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

// What the next read of a connection gives, waiting up to `limit`: the bytes, or the error
// of a failed read ("" with error 0 for an orderly end; error ETIMEDOUT when nothing came).
struct ReadResult {
  std::string bytes;
  int error = 0;
};
ReadResult ReadSome(const Fd& fd, std::chrono::milliseconds limit = 10s) {
  pollfd p{fd.get(), POLLIN, 0};
  if (::poll(&p, 1, static_cast<int>(limit.count())) != 1) return {"", ETIMEDOUT};
  char buffer[256];
  ssize_t n = ::recv(fd.get(), buffer, sizeof buffer, MSG_DONTWAIT);
  if (n < 0) return {"", errno};
  return {std::string(buffer, static_cast<size_t>(n)), 0};
}

// Empty when this process may break a TCP connection (SOCK_DESTROY with CAP_NET_ADMIN),
// otherwise why not. Tried on a connection of its own, before any engine runs.
std::string BreakingUnavailableReason() {
  using platform::linux_backend::LinuxConnectionTables;
  Fd listener = ListenOn(kProbePort);
  if (!listener.valid()) return std::string("cannot listen for the probe: ") + std::strerror(errno);
  Fd client = ConnectTo(kProbePort);
  Fd server = AcceptOne(listener);
  if (!client.valid() || !server.valid()) return "cannot make the probe connection";
  const uint32_t rawPort = htons(LocalPortOf(client));
  LinuxConnectionTables tables;
  auto table = tables.tcpTable();
  if (!table) return "the TCP table cannot be read";
  for (const auto& row : *table) {
    if (row.row.dwLocalPort != rawPort) continue;
    uint32_t result = tables.deleteTcpRow(row.row);
    if (result == 0) return {};
    if (result == EOPNOTSUPP) return "the kernel has no SOCK_DESTROY (CONFIG_INET_DIAG_DESTROY)";
    if (result == EPERM) return "SOCK_DESTROY needs CAP_NET_ADMIN, which this process lacks";
    return std::string("SOCK_DESTROY failed: ") + std::strerror(static_cast<int>(result));
  }
  return "the probe connection is not in the TCP table";
}

#define REQUIRE_CONNECTION_BREAKING()                                      \
  do {                                                                     \
    std::string why = BreakingUnavailableReason();                         \
    if (!why.empty()) GTEST_SKIP() << "cannot break connections: " << why; \
  } while (0)

// ---------------------------------------------------------------------------------------
// Known answers from outside the firewall's code.

// CRC-32 bit by bit, as a signed decimal the way the rule file and the list hold it.
int32_t ReferenceCrc(const std::string& bytes) {
  uint32_t reg = 0xFFFFFFFFu;
  for (unsigned char byte : bytes) {
    reg ^= byte;
    for (int bit = 0; bit < 8; ++bit) reg = (reg >> 1) ^ (0xEDB88320u & (0u - (reg & 1u)));
  }
  return static_cast<int32_t>(~reg);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

// A known-program list: the lines, "END", and the CRC-32 of all that, little-endian.
std::string SealedList(const std::string& body) {
  auto crc = static_cast<uint32_t>(ReferenceCrc(body));
  std::string trailer;
  for (int i = 0; i < 4; ++i) trailer.push_back(static_cast<char>((crc >> (8 * i)) & 0xFF));
  return body + trailer;
}

std::vector<std::string> Fields(const std::string& line) {
  std::vector<std::string> fields;
  std::stringstream in(line);
  for (std::string field; std::getline(in, field, '|');) fields.push_back(field);
  if (!line.empty() && line.back() == '|') fields.push_back("");
  return fields;
}

// ---------------------------------------------------------------------------------------
// client_peer as a child of the test: commands go to its standard input, its reports come
// back line by line. It gets SIGKILL when the test process ends, and is killed and reaped
// when this object goes unless the test reaped it.
//
// The tests start their peers before they open any socket of their own. Between fork and
// exec the child holds every descriptor of the test, and a table read in that window takes
// a shared socket for the newest holder's, while the program path is read a moment later,
// after the exec: the test's listener would then be judged as the peer's.

class ClientPeer {
 public:
  explicit ClientPeer(const std::string& program) : program_(program) {
    std::vector<char*> argv{program_.data(), nullptr};
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0) {
      error_ = "pipe failed";
      return;
    }
    if (::pipe2(out, O_CLOEXEC) != 0) {
      ::close(in[0]);
      ::close(in[1]);
      error_ = "pipe failed";
      return;
    }
    pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
      // Only async-signal-safe calls until exec: the engine thread runs beside us.
      ::dup2(in[0], STDIN_FILENO);
      ::dup2(out[1], STDOUT_FILENO);
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (::getppid() != parent) ::_exit(126);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    stdin_ = in[1];
    stdout_ = out[0];
    if (pid_ < 0) {
      error_ = "fork failed";
      return;
    }
    auto ready = waitForLine("ready ");
    if (!ready || *ready != "ready " + std::to_string(pid_))
      error_ = "the peer did not report ready: " + transcript_;
  }

  ~ClientPeer() {
    if (stdin_ >= 0) ::close(stdin_);
    if (stdout_ >= 0) ::close(stdout_);
    if (pid_ > 0 && !reaped_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  ClientPeer(const ClientPeer&) = delete;
  ClientPeer& operator=(const ClientPeer&) = delete;

  pid_t pid() const { return pid_; }
  const std::string& error() const { return error_; }
  // Every line the peer wrote so far, for failure messages.
  const std::string& transcript() const { return transcript_; }

  // One line of commands.
  void send(const std::string& line) {
    std::string text = line + "\n";
    ASSERT_EQ(::write(stdin_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  // The first report not taken yet that begins with `prefix`, waiting up to `limit`; the
  // reports before it stay for later calls.
  std::optional<std::string> waitForLine(const std::string& prefix,
                                         std::chrono::milliseconds limit = 10s) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      for (auto it = lines_.begin(); it != lines_.end(); ++it) {
        if (it->compare(0, prefix.size(), prefix) == 0) {
          std::string line = *it;
          lines_.erase(it);
          return line;
        }
      }
      if (!readMore(deadline)) return std::nullopt;
    }
  }

  char state() const {
    auto stat = platform::linux_backend::ReadProcessStat(pid_);
    return stat ? stat->state : '?';
  }

  // Stopped or in a trace stop: held by the firewall.
  bool held() const { return state() == 'T' || state() == 't'; }

  // Waits (bounded) until the client is held (want true) or runs (want false).
  bool waitUntilHeld(bool want, std::chrono::milliseconds limit = 10s) const {
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      if (held() == want) return true;
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(1ms);
    }
  }

  // Reaps the peer (bounded wait); its wait status, nullopt if it did not end in time.
  std::optional<int> reap(std::chrono::milliseconds limit = 10s) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      int status = 0;
      pid_t got = ::waitpid(pid_, &status, WNOHANG);
      // A trace stop of the firewall's shows here too (its tracer shares this process): only
      // the end counts.
      if (got == pid_ && (WIFEXITED(status) || WIFSIGNALED(status))) {
        reaped_ = true;
        return status;
      }
      if (got < 0 || std::chrono::steady_clock::now() >= deadline) return std::nullopt;
      std::this_thread::sleep_for(1ms);
    }
  }

 private:
  // Reads what the peer wrote, until the deadline at the latest; false when nothing came.
  bool readMore(std::chrono::steady_clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd p{stdout_, POLLIN, 0};
    if (left.count() < 0 || ::poll(&p, 1, static_cast<int>(left.count())) != 1) return false;
    char buffer[512];
    ssize_t n = ::read(stdout_, buffer, sizeof buffer);
    if (n <= 0) return false;
    partial_.append(buffer, static_cast<size_t>(n));
    transcript_.append(buffer, static_cast<size_t>(n));
    for (size_t end; (end = partial_.find('\n')) != std::string::npos;) {
      lines_.push_back(partial_.substr(0, end));
      partial_.erase(0, end + 1);
    }
    return true;
  }

  std::string program_;
  pid_t pid_ = -1;
  int stdin_ = -1;
  int stdout_ = -1;
  bool reaped_ = false;
  std::string error_;
  std::string partial_;
  std::deque<std::string> lines_;
  std::string transcript_;
};

// ---------------------------------------------------------------------------------------
// The user: keeps what the engine shows, from the engine thread, under a lock. Answers are
// posted by the test when it chooses, as a dialog's click would post them.

class WatchingUi final : public SilentUi {
 public:
  struct Alert {
    int16_t slot = 0;
    AlertView view;
  };

  void showAlert(int16_t slot, const AlertView& view) override {
    record([&] { alerts_.push_back({slot, view}); });
  }
  void showVirusNotice(const VirusView& view) override {
    record([&] { virusNotices_.push_back(view); });
  }
  void showClosedPortNotice(const ClosedPortView& view) override {
    record([&] { closedPortNotices_.push_back(view); });
  }

  // The first alert about `path`, waiting up to `limit`.
  std::optional<Alert> waitForAlert(const std::string& path,
                                    std::chrono::milliseconds limit = 10s) {
    std::unique_lock lock(mutex_);
    std::optional<Alert> found;
    changed_.wait_for(lock, limit, [&] {
      for (const Alert& alert : alerts_)
        if (alert.view.path == path) found = alert;
      return found.has_value();
    });
    return found;
  }
  // The notices, once at least `count` have come, waiting up to `limit`.
  std::vector<VirusView> waitForVirusNotices(size_t count, std::chrono::milliseconds limit = 10s) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, limit, [&] { return virusNotices_.size() >= count; });
    return virusNotices_;
  }
  std::vector<ClosedPortView> waitForClosedPortNotices(size_t count,
                                                       std::chrono::milliseconds limit = 10s) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, limit, [&] { return closedPortNotices_.size() >= count; });
    return closedPortNotices_;
  }
  std::vector<Alert> alerts() {
    std::lock_guard lock(mutex_);
    return alerts_;
  }

 private:
  void record(const std::function<void()>& change) {
    {
      std::lock_guard lock(mutex_);
      change();
    }
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Alert> alerts_;
  std::vector<VirusView> virusNotices_;
  std::vector<ClosedPortView> closedPortNotices_;
};

// ---------------------------------------------------------------------------------------

class FirewallEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    TESSMARK_REQUIRE_PRIVATE_NETNS();
    home_ = std::make_unique<testing::TemporaryHome>();
    ASSERT_FALSE(home_->path().empty()) << std::strerror(errno);

    system_ = std::make_unique<platform::linux_backend::LinuxPlatform>();
    engine_ = std::make_unique<Engine>(*system_, ui_);
    ASSERT_TRUE(fs::create_directories(engine().rules.folders.AppDataDir));
    ASSERT_EQ(engine().rules.folders.AppDataDir.rfind(home_->path() + "/", 0), 0u)
        << engine().rules.folders.AppDataDir;

    clientPath_ = fs::canonical(testing::PeerPath("client_peer")).string();
    // The test's own sockets (listeners, the far ends) are allowed.
    rule(fs::read_symlink("/proc/self/exe").string(), "", AccessAllow);
    engine().monitor.Check2 = 1;  // the closed-port notice
    engine().monitor.Check3 = 1;  // the log
  }

  void TearDown() override {
    if (engine_) engine_->stop();
    engine_.reset();
    system_.reset();
    home_.reset();
  }

  Engine& engine() { return *engine_; }

  // A rule row, before the engine starts.
  void rule(const std::string& path, const std::string& crc, const std::string& access) {
    RuleList& list = engine().monitor.ListView1;
    ASSERT_TRUE(list.Add("", path));
    RuleRow& row = list.Item(list.Count());
    row.SubItems[1] = crc;
    row.SubItems[2] = access;
    row.SubItems[3] = std::to_string(list.Count());
  }

  // Runs `f` on the engine thread at its next pump and gives its result.
  template <class F>
  std::invoke_result_t<F> onEngine(F f) {
    using Result = std::invoke_result_t<F>;
    auto promise = std::make_shared<std::promise<Result>>();
    std::future<Result> future = promise->get_future();
    engine().post([promise, f]() mutable { promise->set_value(f()); });
    if (future.wait_for(60s) != std::future_status::ready) {
      // The engine thread is stuck: nothing sensible can follow.
      std::fprintf(stderr, "the engine ran no posted command for 60 s\n");
      std::abort();
    }
    return future.get();
  }

  // The answer to the alert of `slot`, as the dialog posts it.
  void answer(int16_t slot, bool yes, bool remember) {
    engine().post([engine = engine_.get(), slot, yes, remember] {
      frmAlert& alert = engine->monitor.AlertForm(slot);
      alert.chkRemember = remember ? 1 : 0;
      if (yes)
        alert.Command1_Click();
      else
        alert.command2_Click();
    });
  }

  // Waits (bounded) until the alert of `slot` holds `count` distinct connections.
  bool waitUntilHeld(int16_t slot, size_t count) {
    auto deadline = std::chrono::steady_clock::now() + 10s;
    for (;;) {
      size_t held = onEngine([this, slot] {
        const frmAlert& alert = engine().monitor.AlertForm(slot);
        const std::vector<MIB_TCPROW>& rows = engine().main.AlertRows;
        std::vector<uint32_t> ports;
        for (int16_t k = 1; k <= alert.AlertIdCount; ++k) {
          int16_t id = alert.AlertIds[static_cast<size_t>(k)];
          if (id > 0 && static_cast<size_t>(id) < rows.size())
            ports.push_back(rows[id].dwLocalPort);
        }
        std::sort(ports.begin(), ports.end());
        return static_cast<size_t>(std::unique(ports.begin(), ports.end()) - ports.begin());
      });
      if (held >= count) return true;
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(5ms);
    }
  }

  // The checksum and access cells of the first rule for `path`.
  std::optional<std::pair<std::string, std::string>> ruleFor(const std::string& path) {
    return onEngine([this, path]() -> std::optional<std::pair<std::string, std::string>> {
      const RuleList& list = engine().monitor.ListView1;
      int16_t index = list.FindPath(path);
      if (index < 1) return std::nullopt;
      return std::make_pair(list.Item(index).SubItems[1], list.Item(index).SubItems[2]);
    });
  }

  // The records of today's log ("|"-lines), everything buffered written out first.
  std::vector<std::string> logRecords() {
    std::string path = onEngine([this] {
      frmThread& monitor = engine().monitor;
      monitor.Log.FlushLogBuffer();
      return engine().rules.folders.AppDataDir + "/Logs/" + monitor.Log.TodayLogName() + ".txt";
    });
    std::vector<std::string> records;
    std::istringstream in(ReadFile(path));
    for (std::string line; std::getline(in, line);) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (!line.empty() && line[0] == '|') records.push_back(line);
    }
    return records;
  }

  // The file's checksum as the rule file holds it.
  std::string crcText(const std::string& path) {
    return std::to_string(ReferenceCrc(ReadFile(path)));
  }

  WatchingUi ui_;
  std::unique_ptr<platform::linux_backend::LinuxPlatform> system_;
  std::unique_ptr<Engine> engine_;
  std::unique_ptr<testing::TemporaryHome> home_;
  std::string clientPath_;
};

// A log record: the path, pid and time, then the local side, the remote side, the state (one
// of `states`) and the rating. The time is the desktop's, so only its presence is checked.
void ExpectRecord(const std::string& record, const std::string& path, pid_t pid,
                  const std::string& localAddress, const std::string& remoteAddress,
                  uint16_t localPort, uint16_t remotePort, const std::vector<std::string>& states,
                  const std::string& rating) {
  std::vector<std::string> fields = Fields(record);
  ASSERT_EQ(fields.size(), 10u) << record;
  EXPECT_EQ(fields[0], "") << record;
  EXPECT_EQ(fields[1], path) << record;
  EXPECT_EQ(fields[2], std::to_string(pid)) << record;
  EXPECT_FALSE(fields[3].empty()) << record;
  EXPECT_EQ(fields[4], localAddress) << record;
  EXPECT_EQ(fields[5], remoteAddress) << record;
  EXPECT_EQ(fields[6], std::to_string(localPort)) << record;
  EXPECT_EQ(fields[7], std::to_string(remotePort)) << record;
  EXPECT_NE(std::find(states.begin(), states.end(), fields[8]), states.end()) << record;
  EXPECT_EQ(fields[9], rating) << record;
}

TEST_F(FirewallEndToEnd, ADenyRuleAbortsEachConnectionOfTheProgramAndLogsIt) {
  REQUIRE_CONNECTION_BREAKING();
  constexpr uint16_t kServer = 24101, kClientPort = 24102;
  ClientPeer client(clientPath_);
  ASSERT_EQ(client.error(), "");
  Fd listener = ListenOn(kServer);
  ASSERT_TRUE(listener.valid()) << std::strerror(errno);
  rule(clientPath_, "", AccessDeny);
  engine().start();

  client.send("connect " + std::to_string(kServer) + " " + std::to_string(kClientPort));

  // The program's own socket was destroyed under it; the far end got a reset.
  auto seen = client.waitForLine("aborted 0");
  ASSERT_TRUE(seen.has_value()) << client.transcript();
  // A table read can catch the connection during its handshake; broken that early, the
  // program's connect() itself fails and no far end was ever accepted.
  if (client.waitForLine("connected 0", 0ms)) {
    Fd server = AcceptOne(listener);
    ASSERT_TRUE(server.valid());
    EXPECT_EQ(ReadSome(server).error, ECONNRESET);
  }
  // Refused, not frozen: the program runs on.
  client.send("ping");
  EXPECT_TRUE(client.waitForLine("pong").has_value()) << client.transcript();

  // The rule stands: a second connection goes the same way.
  client.send("connect " + std::to_string(kServer));
  EXPECT_TRUE(client.waitForLine("aborted 1").has_value()) << client.transcript();

  std::vector<std::string> records = logRecords();
  ASSERT_EQ(records.size(), 2u);
  ExpectRecord(records[0], clientPath_, client.pid(), "127.0.0.1", "127.0.0.1", kClientPort,
               kServer, {"ESTAB", "SYN_SENT"}, "n");
  EXPECT_EQ(Fields(records[1])[1], clientPath_);
  EXPECT_TRUE(ui_.alerts().empty());
}

TEST_F(FirewallEndToEnd, ANewProgramStandsFrozenFromItsFirstConnectionUntilYes) {
  constexpr uint16_t kServer = 24201;
  ClientPeer client(clientPath_);
  ASSERT_EQ(client.error(), "");
  Fd listener = ListenOn(kServer);
  ASSERT_TRUE(listener.valid()) << std::strerror(errno);
  engine().start();

  client.send("connect " + std::to_string(kServer));
  auto alert = ui_.waitForAlert(clientPath_);
  ASSERT_TRUE(alert.has_value());
  EXPECT_EQ(alert->view.kind, AlertKind::New);
  EXPECT_EQ(alert->view.Label1, "New program");
  EXPECT_EQ(alert->view.raddr, "127.0.0.1");
  EXPECT_EQ(alert->view.rport, std::to_string(kServer));
  EXPECT_TRUE(client.waitUntilHeld(true)) << "state " << client.state();
  Fd server = AcceptOne(listener);
  ASSERT_TRUE(server.valid());

  // Frozen, the program answers nothing; give a wrongly running one time to show it.
  client.send("ping");
  EXPECT_FALSE(client.waitForLine("pong", 300ms).has_value());
  EXPECT_TRUE(client.held());
  auto asked = ruleFor(clientPath_);
  ASSERT_TRUE(asked.has_value());
  EXPECT_EQ(asked->second, AccessAsk);

  answer(alert->slot, /*yes=*/true, /*remember=*/true);
  EXPECT_TRUE(client.waitUntilHeld(false)) << "state " << client.state();
  EXPECT_TRUE(client.waitForLine("pong").has_value()) << client.transcript();
  // The connection it made while frozen works.
  client.send("write 0 hello");
  EXPECT_EQ(ReadSome(server).bytes, "hello");
  auto allowed = ruleFor(clientPath_);
  ASSERT_TRUE(allowed.has_value());
  EXPECT_EQ(allowed->first, crcText(clientPath_));
  EXPECT_EQ(allowed->second, AccessAllow);
  EXPECT_EQ(ui_.alerts().size(), 1u);
}

TEST_F(FirewallEndToEnd, NoAbortsEveryHeldConnectionAndTheProgramRunsAgain) {
  REQUIRE_CONNECTION_BREAKING();
  constexpr uint16_t kServer = 24301;
  ClientPeer client(clientPath_);
  ASSERT_EQ(client.error(), "");
  Fd listener = ListenOn(kServer);
  ASSERT_TRUE(listener.valid()) << std::strerror(errno);
  engine().start();

  const std::string connect = "connect " + std::to_string(kServer);
  client.send(connect + ";" + connect);
  auto alert = ui_.waitForAlert(clientPath_);
  ASSERT_TRUE(alert.has_value());
  EXPECT_TRUE(client.waitUntilHeld(true)) << "state " << client.state();
  // The program made both connections before it was frozen, but a poll may have come between
  // them: the second then joins the open alert at the next poll.
  ASSERT_TRUE(waitUntilHeld(alert->slot, 2));

  answer(alert->slot, /*yes=*/false, /*remember=*/true);
  EXPECT_TRUE(client.waitUntilHeld(false)) << "state " << client.state();
  EXPECT_TRUE(client.waitForLine("aborted 0").has_value()) << client.transcript();
  EXPECT_TRUE(client.waitForLine("aborted 1").has_value()) << client.transcript();
  // The far ends, reset while they waited to be taken.
  Fd first = AcceptOne(listener);
  Fd second = AcceptOne(listener);
  ASSERT_TRUE(first.valid() && second.valid());
  EXPECT_EQ(ReadSome(first).error, ECONNRESET);
  EXPECT_EQ(ReadSome(second).error, ECONNRESET);
  client.send("ping");
  EXPECT_TRUE(client.waitForLine("pong").has_value()) << client.transcript();
  EXPECT_FALSE(client.held());

  auto denied = ruleFor(clientPath_);
  ASSERT_TRUE(denied.has_value());
  EXPECT_EQ(denied->first, crcText(clientPath_));
  EXPECT_EQ(denied->second, AccessDeny);
  // An answered refusal is the user's, not the firewall's: nothing is logged.
  std::vector<std::string> records = logRecords();
  EXPECT_TRUE(records.empty()) << records.front();
}

TEST_F(FirewallEndToEnd, AProgramListedAsDestructiveIsKilledAtItsFirstConnection) {
  const std::string list = home_->path() + "/ProgramCheck.dat";
  std::ofstream(list, std::ios::binary)
      << SealedList(crcText(clientPath_) + "|3|Test.Destructive\r\nEND\r\n");
  engine().rules.knownPrograms.LoadKnownPrograms(list);
  ASSERT_EQ(engine().rules.knownPrograms.KnownProgramCount, 1);
  constexpr uint16_t kServer = 24401;
  ClientPeer client(clientPath_);
  ASSERT_EQ(client.error(), "");
  Fd listener = ListenOn(kServer);
  ASSERT_TRUE(listener.valid()) << std::strerror(errno);
  engine().start();

  client.send("connect " + std::to_string(kServer));
  auto status = client.reap();
  ASSERT_TRUE(status.has_value()) << "the destructive program still runs, state " << client.state();
  EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGKILL) << "wait status " << *status;

  std::vector<VirusView> notices = ui_.waitForVirusNotices(1);
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_EQ(notices[0].path, clientPath_);
  EXPECT_NE(notices[0].txtInfo.find("Description: Test.Destructive"), std::string::npos)
      << notices[0].txtInfo;
  auto denied = ruleFor(clientPath_);
  ASSERT_TRUE(denied.has_value());
  EXPECT_EQ(denied->second, AccessDeny);
  EXPECT_TRUE(ui_.alerts().empty());
}

TEST_F(FirewallEndToEnd, AClosedServicePortBreaksItsConnectionAndSparesTheListener) {
  REQUIRE_CONNECTION_BREAKING();
  constexpr uint16_t kService = 139;  // box 0, NetBIOS, rated high
  constexpr uint16_t kClientPort = 24501;
  {
    Fd trial = ListenOn(kService);
    if (!trial.valid())
      GTEST_SKIP() << "cannot listen on port " << kService << ": " << std::strerror(errno);
  }
  rule(clientPath_, "", AccessAllow);  // the service itself may talk: its port may not
  engine().rules.closePorts.Check4[0].Value = 1;
  engine().rules.closePorts.RefreshClosedPorts();

  // The service and a connection to it stand before the firewall starts.
  ClientPeer service(clientPath_);
  ASSERT_EQ(service.error(), "");
  service.send("listen " + std::to_string(kService));
  ASSERT_TRUE(service.waitForLine("listening 0").has_value()) << service.transcript();
  Fd client = ConnectTo(kService, kClientPort);
  ASSERT_TRUE(client.valid()) << std::strerror(errno);
  service.send("accept 0");
  ASSERT_TRUE(service.waitForLine("accepted 1").has_value()) << service.transcript();

  engine().start();
  EXPECT_TRUE(service.waitForLine("aborted 1").has_value()) << service.transcript();
  EXPECT_EQ(ReadSome(client).error, ECONNRESET);

  std::vector<ClosedPortView> notices = ui_.waitForClosedPortNotices(1);
  ASSERT_FALSE(notices.empty());
  EXPECT_EQ(notices[0].Label2, "Tessmark Personal Firewall closed port 139 for safety reasons.");
  EXPECT_EQ(notices[0].Label3, "Service NetBIOS");
  EXPECT_EQ(notices[0].Label5, "Program: " + clientPath_);

  std::vector<std::string> records = logRecords();
  ASSERT_EQ(records.size(), 1u);
  ExpectRecord(records[0], clientPath_, service.pid(), "127.0.0.1", "127.0.0.1", kService,
               kClientPort, {"ESTAB"}, "h");
  EXPECT_TRUE(ui_.alerts().empty());

  // The listener is no connection: the service still takes new ones, which are broken in
  // their turn.
  Fd again = ConnectTo(kService);
  EXPECT_TRUE(again.valid()) << std::strerror(errno);
}

}  // namespace
}  // namespace tessmark
