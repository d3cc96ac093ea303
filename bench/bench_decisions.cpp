// How fast the firewall acts on a connection.
//
// On the real kernel, inside a private network namespace, with the Linux backend and an Engine
// polling on its own thread, against client_peer programs connecting over loopback:
//   - BM_DenyRuleAbortsConnection: from a client's connect() returning to its read failing
//     with ECONNABORTED, the client having a "deny" rule; over IPv4 (127.0.0.1) and over
//     IPv6 (::1);
//   - BM_NewProgramFrozen: from a client's connect() returning to its process standing stopped
//     ('T' in /proc/<pid>/stat), the client being a program without a rule; "alert" counters
//     give the time to the alert, when the program is held for good (the first stop seen may
//     be the short one while the firewall reads the program's file). Each try answers "No".
// Both report the median and the 99th percentile over 100 tries as counters (ms); the time
// column is the mean. Tries start at random moments against the engine's 10 ms poll.
//
// On the simulated machine:
//   - BM_SimDecisionPass: one decision pass, frmThread::NewtcpCon(0, 0), over a snapshot of
//     10,000 TCP rows owned by 1,000 programs that all have a rule and were all seen before:
//     every tenth program denied (its rows broken and, with the log on, logged), the rest
//     allowed. "ask" is left out: each pass would open and grow an alert.
//   - BM_SimSnapshotAndDecisionPass: the same with the snapshot (GetTCPConnections) first.
//
// Goals: deny broken within 8 ms median and 15 ms p99; a new program frozen within 12 ms
// median; one decision pass over 10,000 rows under 10 ms.
//
// The client program is client_peer from the test build (build/tests/client_peer beside
// build/bench/), or the file named by $TESSMARK_CLIENT_PEER.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "base/booleans.h"
#include "monitor/engine.h"
#include "platform/linux/linux_platform.h"
#include "platform/linux/private_netns.h"
#include "platform/linux/process_stat.h"
#include "platform/sim/sim_system.h"

namespace {

using namespace tessmark;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr int kTries = 100;
constexpr int kWarmUpTries = 2;
constexpr uint16_t kServerPort = 25000;

int64_t MonotonicNs() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// The value below which `share` of the sorted samples lie (nearest rank).
double Percentile(std::vector<double> samples, double share) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  size_t rank = static_cast<size_t>(std::ceil(share * static_cast<double>(samples.size())));
  return samples[std::clamp<size_t>(rank, 1, samples.size()) - 1];
}

void ReportMs(benchmark::State& state, const std::string& prefix, const std::vector<double>& ms) {
  state.counters[prefix + "median_ms"] = Percentile(ms, 0.5);
  state.counters[prefix + "p99_ms"] = Percentile(ms, 0.99);
  state.counters[prefix + "max_ms"] = Percentile(ms, 1.0);
}

// The processes of the machine: every table read names the owner among them.
double ProcessCount() {
  double count = 0;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator("/proc", error)) {
    const std::string name = entry.path().filename().string();
    count += !name.empty() && std::all_of(name.begin(), name.end(), ::isdigit);
  }
  return count;
}

// The n-th word of a report line ("connected 0 41234 123456789"), or "".
std::string Word(const std::string& line, size_t n) {
  std::istringstream in(line);
  std::string word;
  for (size_t i = 0; i <= n; ++i)
    if (!(in >> word)) return {};
  return word;
}

// ---------------------------------------------------------------------------------------
// A client_peer child: commands to its stdin, reports from its stdout. It dies with this
// program, and is killed and reaped when this object goes.

class Client {
 public:
  explicit Client(std::string program) : program_(std::move(program)) {
    std::vector<char*> argv{program_.data(), nullptr};
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0) return;
    if (::pipe2(out, O_CLOEXEC) != 0) {
      ::close(in[0]);
      ::close(in[1]);
      return;
    }
    pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
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
    if (pid_ > 0) ready_ = waitForLine("ready ").has_value();
  }
  ~Client() {
    if (stdin_ >= 0) ::close(stdin_);
    if (stdout_ >= 0) ::close(stdout_);
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);  // only this child of ours
      ::waitpid(pid_, nullptr, 0);
    }
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool ready() const { return ready_; }
  pid_t pid() const { return pid_; }

  // Ends the client: its input closed, which ends it, and it is reaped (killed if it lingers),
  // so that no finished client stays listed among the machine's processes.
  void end() {
    if (stdin_ >= 0) ::close(stdin_);
    stdin_ = -1;
    if (pid_ <= 0) return;
    auto deadline = std::chrono::steady_clock::now() + 2s;
    while (::waitpid(pid_, nullptr, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() >= deadline) {
        ::kill(pid_, SIGKILL);  // only this child of ours
        ::waitpid(pid_, nullptr, 0);
        break;
      }
      std::this_thread::sleep_for(1ms);
    }
    pid_ = -1;
  }
  const std::string& path() const { return program_; }

  bool send(const std::string& line) {
    std::string text = line + "\n";
    return ::write(stdin_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }

  // The first report not taken yet that begins with `prefix`, waiting up to `limit`.
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
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd p{stdout_, POLLIN, 0};
      if (left.count() < 0 || ::poll(&p, 1, static_cast<int>(left.count())) != 1)
        return std::nullopt;
      char buffer[512];
      ssize_t n = ::read(stdout_, buffer, sizeof buffer);
      if (n <= 0) return std::nullopt;
      partial_.append(buffer, static_cast<size_t>(n));
      for (size_t end; (end = partial_.find('\n')) != std::string::npos;) {
        lines_.push_back(partial_.substr(0, end));
        partial_.erase(0, end + 1);
      }
    }
  }

 private:
  std::string program_;
  pid_t pid_ = -1;
  int stdin_ = -1;
  int stdout_ = -1;
  bool ready_ = false;
  std::string partial_;
  std::deque<std::string> lines_;
};

// ---------------------------------------------------------------------------------------
// The user: notes each alert with the moment it was shown, on the engine thread.

class TimingUi final : public SilentUi {
 public:
  struct Shown {
    int16_t slot = 0;
    int64_t atNs = 0;
  };
  void showAlert(int16_t slot, const AlertView& view) override {
    int64_t now = MonotonicNs();
    {
      std::lock_guard lock(mutex_);
      alerts_.try_emplace(view.path, Shown{slot, now});
    }
    changed_.notify_all();
  }
  std::optional<Shown> waitForAlert(const std::string& path, std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, limit, [&] { return alerts_.contains(path); }))
      return std::nullopt;
    return alerts_[path];
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, Shown> alerts_;
};

// ---------------------------------------------------------------------------------------
// The firewall on the real kernel. The listener the clients connect to belongs to a client
// program of its own, allowed by its rule, and this program holds no TCP or UDP socket: a
// child holds all of its parent's descriptors between fork and exec, and the firewall may
// take a socket of the parent for the child's in that moment.

class RealFirewall {
 public:
  // Empty when set up, otherwise why not.
  std::string setUp() {
    char pattern[] = "/tmp/tessmark-bench-decisions.XXXXXX";
    if (::mkdtemp(pattern) == nullptr) return "no temporary folder";
    home_ = pattern;
    ::setenv("HOME", home_.c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (home_ + "/.config").c_str(), 1);

    std::string program = ClientProgram();
    std::error_code error;
    if (program.empty() || !fs::is_regular_file(program, error))
      return "client_peer not found (build the target client_peer, or set "
             "TESSMARK_CLIENT_PEER): " +
             program;
    clientBytes_ = fs::file_size(program, error);
    fs::create_directories(home_ + "/clients", error);
    original_ = home_ + "/clients/client";
    fs::copy_file(program, original_, error);
    if (error) return "cannot copy " + program + ": " + error.message();

    // Connections are never taken from the listener: each is broken while it waits there,
    // and the far end of a broken one leaves the tables.
    server_ = std::make_unique<Client>(pathFor("server"));
    if (!server_->ready()) return "the server did not start";
    server_->send("listen " + std::to_string(kServerPort));
    if (!server_->waitForLine("listening 0")) return "the server cannot listen";
    // The same service on [::] a port higher, for the clients that speak IPv6.
    server_->send("listen6 " + std::to_string(kServerPort + 1));
    if (!server_->waitForLine("listening 1")) return "the server cannot listen on [::]";
    denyClient_ = std::make_unique<Client>(pathFor("denied"));
    if (!denyClient_->ready()) return "the denied client did not start";

    system_ = std::make_unique<platform::linux_backend::LinuxPlatform>();
    engine_ = std::make_unique<Engine>(*system_, ui_);
    fs::create_directories(engine_->rules.folders.AppDataDir, error);
    addRule(server_->path(), AccessAllow);
    addRule(denyClient_->path(), AccessDeny);
    engine_->monitor.Check2 = 1;
    engine_->monitor.Check3 = 1;
    engine_->start();
    return {};
  }

  ~RealFirewall() {
    if (engine_) engine_->stop();
    engine_.reset();
    denyClient_.reset();
    server_.reset();
    std::error_code error;
    if (!home_.empty()) fs::remove_all(home_, error);
  }

  // A client program never seen before: a path of its own, a hard link to the same small
  // file (a copy where no link can be made).
  std::unique_ptr<Client> newClient() {
    return std::make_unique<Client>(pathFor("new-" + std::to_string(++newPrograms_)));
  }

  // A pause of 5 to 25 ms, so that tries start at any moment of the engine's 10 ms loop.
  void pauseBetweenTries() {
    std::this_thread::sleep_for(std::chrono::microseconds(pause_(random_)));
  }

  // The answer "No", not remembered, as the alert's dialog posts it.
  void answerNo(int16_t slot) {
    engine_->post([engine = engine_.get(), slot] {
      frmAlert& alert = engine->monitor.AlertForm(slot);
      alert.chkRemember = 0;
      alert.command2_Click();
    });
  }

  Client& denyClient() { return *denyClient_; }
  TimingUi& ui() { return ui_; }
  uintmax_t clientBytes() const { return clientBytes_; }

 private:
  static std::string ClientProgram() {
    if (const char* named = std::getenv("TESSMARK_CLIENT_PEER")) return named;
    std::error_code error;
    fs::path self = fs::read_symlink("/proc/self/exe", error);
    if (error) return {};
    return (self.parent_path().parent_path() / "tests" / "client_peer").string();
  }

  std::string pathFor(const std::string& name) {
    std::string path = home_ + "/clients/" + name;
    std::error_code error;
    if (::link(original_.c_str(), path.c_str()) != 0) fs::copy_file(original_, path, error);
    return path;
  }

  void addRule(const std::string& path, const std::string& access) {
    RuleList& list = engine_->monitor.ListView1;
    list.Add("", path);
    RuleRow& row = list.Item(list.Count());
    row.SubItems[2] = access;  // an empty checksum counts as matching
    row.SubItems[3] = std::to_string(list.Count());
  }

  std::string home_;
  std::string original_;
  uintmax_t clientBytes_ = 0;
  int newPrograms_ = 0;
  std::unique_ptr<Client> server_;
  std::unique_ptr<Client> denyClient_;
  TimingUi ui_;
  std::unique_ptr<platform::linux_backend::LinuxPlatform> system_;
  std::unique_ptr<Engine> engine_;
  std::minstd_rand random_{20261123};
  std::uniform_int_distribution<int> pause_{5000, 25000};
};

std::unique_ptr<RealFirewall> g_firewall;
std::string g_firewallProblem;

// Set up at the first real-kernel benchmark, so that the simulated ones run without it.
RealFirewall* Firewall(benchmark::State& state) {
  if (!g_firewall && g_firewallProblem.empty()) {
    g_firewall = std::make_unique<RealFirewall>();
    g_firewallProblem = g_firewall->setUp();
    if (!g_firewallProblem.empty()) g_firewall.reset();
  }
  if (!g_firewallProblem.empty()) state.SkipWithError(g_firewallProblem.c_str());
  return g_firewall.get();
}

// What one try gave: a figure, nothing usable (the table read caught the connection in its
// handshake, so connect() itself failed or returned after the firewall had acted), or a
// failure that ends the benchmark.
struct Try {
  enum class Kind { Figure, CaughtInHandshake, Failed } kind = Kind::Failed;
  double ms = 0;
  double alertMs = 0;
  std::string problem;

  static Try Figure(double ms, double alertMs = 0) { return {Kind::Figure, ms, alertMs, {}}; }
  static Try Caught() { return {Kind::CaughtInHandshake, 0, 0, {}}; }
  static Try Failure(std::string problem) { return {Kind::Failed, 0, 0, std::move(problem)}; }
};

// One connection of the denied client: from its connect() returning to its read failing.
Try DenyTry(RealFirewall& firewall, int id, bool ipv6) {
  Client& client = firewall.denyClient();
  const std::string which = std::to_string(id);
  client.send(ipv6 ? "connect6 " + std::to_string(kServerPort + 1)
                   : "connect " + std::to_string(kServerPort));
  auto aborted = client.waitForLine("aborted " + which + " ");
  auto connected = client.waitForLine("connected " + which + " ", 0ms);
  if (!aborted) return Try::Failure("try " + which + ": no abort seen");
  if (!connected) return Try::Caught();
  int64_t start = std::stoll(Word(*connected, 3));
  int64_t end = std::stoll(Word(*aborted, 2));
  return Try::Figure(static_cast<double>(end - start) / 1e6);
}

void BM_DenyRuleAbortsConnection(benchmark::State& state) {
  RealFirewall* firewall = Firewall(state);
  if (firewall == nullptr) return;
  const bool ipv6 = state.range(0) == 6;
  // The client's sockets are numbered across both runs.
  static int id = 0;
  // The first connection of the program also has its file read: not part of the figure.
  const bool programsFirst = id == 0;
  Try first = DenyTry(*firewall, id++, ipv6);
  if (first.kind == Try::Kind::Failed) return state.SkipWithError(first.problem.c_str());
  std::vector<double> ms;
  int caught = 0;
  for (auto _ : state) {
    Try one;
    do {
      firewall->pauseBetweenTries();
      one = DenyTry(*firewall, id++, ipv6);
      if (one.kind == Try::Kind::Failed) return state.SkipWithError(one.problem.c_str());
      if (one.kind == Try::Kind::CaughtInHandshake) ++caught;
    } while (one.kind != Try::Kind::Figure && caught < 10);
    if (one.kind != Try::Kind::Figure) return state.SkipWithError("every try caught in handshake");
    ms.push_back(one.ms);
    state.SetIterationTime(one.ms / 1e3);
  }
  ReportMs(state, "", ms);
  if (programsFirst) state.counters["first_connection_ms"] = first.ms;
  state.counters["caught_in_handshake"] = caught;
  state.counters["processes"] = ProcessCount();
}

// The first connection of new program `i`: from its connect() returning to its process seen
// stopped, and to its alert. Answered "No"; the client then ends.
Try FreezeTry(RealFirewall& firewall, int i) {
  std::unique_ptr<Client> started = firewall.newClient();
  Client& client = *started;
  const std::string which = "try " + std::to_string(i) + ": ";
  if (!client.ready()) return Try::Failure(which + "the client did not start");
  client.send("connect " + std::to_string(kServerPort));
  std::optional<int64_t> stoppedAt;
  auto deadline = std::chrono::steady_clock::now() + 10s;
  while (!stoppedAt && std::chrono::steady_clock::now() < deadline) {
    auto stat = platform::linux_backend::ReadProcessStat(client.pid());
    if (stat && (stat->state == 'T' || stat->state == 't'))
      stoppedAt = MonotonicNs();
    else
      std::this_thread::sleep_for(100us);
  }
  auto alert = firewall.ui().waitForAlert(client.path(), 10s);
  if (!stoppedAt || !alert) return Try::Failure(which + (stoppedAt ? "no alert" : "never frozen"));
  firewall.answerNo(alert->slot);
  auto aborted = client.waitForLine("aborted 0 ");
  auto connected = client.waitForLine("connected 0 ", 0ms);
  client.end();
  if (!aborted) return Try::Failure(which + "\"No\" aborted nothing");
  if (!connected) return Try::Caught();
  int64_t start = std::stoll(Word(*connected, 3));
  if (start > *stoppedAt) return Try::Caught();  // frozen inside connect()
  return Try::Figure(static_cast<double>(*stoppedAt - start) / 1e6,
                     static_cast<double>(alert->atNs - start) / 1e6);
}

void BM_NewProgramFrozen(benchmark::State& state) {
  RealFirewall* firewall = Firewall(state);
  if (firewall == nullptr) return;
  int next = 0;
  for (; next < kWarmUpTries; ++next) {
    firewall->pauseBetweenTries();
    Try one = FreezeTry(*firewall, next);
    if (one.kind == Try::Kind::Failed) return state.SkipWithError(one.problem.c_str());
  }
  std::vector<double> frozen, alerted;
  int caught = 0;
  for (auto _ : state) {
    Try one;
    do {
      firewall->pauseBetweenTries();
      one = FreezeTry(*firewall, next++);
      if (one.kind == Try::Kind::Failed) return state.SkipWithError(one.problem.c_str());
      if (one.kind == Try::Kind::CaughtInHandshake) ++caught;
    } while (one.kind != Try::Kind::Figure && caught < 10);
    if (one.kind != Try::Kind::Figure) return state.SkipWithError("every try caught in handshake");
    frozen.push_back(one.ms);
    alerted.push_back(one.alertMs);
    state.SetIterationTime(one.ms / 1e3);
  }
  ReportMs(state, "", frozen);
  ReportMs(state, "alert_", alerted);
  state.counters["caught_in_handshake"] = caught;
  state.counters["program_bytes"] = static_cast<double>(firewall->clientBytes());
  state.counters["processes"] = ProcessCount();
}

BENCHMARK(BM_DenyRuleAbortsConnection)
    ->ArgName("ip")
    ->Arg(4)
    ->Arg(6)
    ->Iterations(kTries)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NewProgramFrozen)->Iterations(kTries)->UseManualTime()->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------------------------------
// The simulated machine: the monitor wired as the engine wires it, driven on this thread.

struct SimFirewall {
  static constexpr int kPrograms = 1000;
  static constexpr int kRowsPerProgram = 10;

  // Every `denyEvery`-th program is denied (0: none); `log` turns the firewall log on.
  SimFirewall(int denyEvery, bool log) {
    std::error_code error;
    fs::create_directories(rules.folders.AppDataDir, error);
    monitor.Check3 = log ? 1 : 0;
    // Broken rows stay listed, so that every pass breaks them again, as the first did.
    sim.deletedRowsLinger = true;
    for (int p = 0; p < kPrograms; ++p) {
      const std::string name = "program-" + std::to_string(p);
      const std::string path = sim.writeProgramFile(name, "the program file of " + name);
      const int32_t pid = 2000 + p;
      sim.addProcess(pid, path, 2);
      monitor.ListView1.Add("", path);
      RuleRow& row = monitor.ListView1.Item(monitor.ListView1.Count());
      row.SubItems[2] = denyEvery > 0 && p % denyEvery == 0 ? AccessDeny : AccessAllow;
      row.SubItems[3] = std::to_string(monitor.ListView1.Count());
      for (int r = 0; r < kRowsPerProgram; ++r) {
        auto local = static_cast<uint16_t>(10000 + p * kRowsPerProgram + r);
        sim.tcpRows.push_back(platform::sim::MakeTcpRow(5, "192.168.1.20", local, "93.184.216.34",
                                                        443, static_cast<uint32_t>(pid)));
      }
    }
    main.GetTCPConnections(kTrue, kTrue);
    // The first pass reads every program's file; after it every program has been seen.
    monitor.NewtcpCon(kFalse, kFalse);
  }

  platform::sim::SimSystem sim;
  SilentUi ui;
  Mailbox mailbox;
  modprocs procs{sim, mailbox};
  modPauseProcess pause{sim, procs};
  modmain main{sim, procs, mailbox};
  RuleStore rules{sim, pause, mailbox, ui, main.InternetLocked};
  frmThread monitor{main, pause, mailbox, ui, sim, rules, sim};
};

void SimPass(benchmark::State& state, bool withSnapshot) {
  const int denyEvery = static_cast<int>(state.range(0));
  const bool log = state.range(1) != 0;
  SimFirewall firewall(denyEvery, log);
  for (auto _ : state) {
    if (withSnapshot) firewall.main.GetTCPConnections(kTrue, kTrue);
    firewall.monitor.NewtcpCon(kFalse, kFalse);
    state.PauseTiming();
    firewall.sim.deletedRows.clear();
    state.ResumeTiming();
  }
  state.counters["rows"] = static_cast<double>(LastTableIndex(firewall.main.TcpConnections) + 1);
  state.counters["rules"] = firewall.monitor.ListView1.Count();
  state.counters["blocked_per_pass"] = firewall.monitor.TcpBlocked;
}

void BM_SimDecisionPass(benchmark::State& state) {
  SimPass(state, false);
}
void BM_SimSnapshotAndDecisionPass(benchmark::State& state) {
  SimPass(state, true);
}

// Arguments: every n-th program denied (0: all allowed), log on (1) or off (0).
BENCHMARK(BM_SimDecisionPass)
    ->ArgNames({"deny_every", "log"})
    ->Args({0, 1})
    ->Args({10, 0})
    ->Args({10, 1})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SimSnapshotAndDecisionPass)
    ->ArgNames({"deny_every", "log"})
    ->Args({10, 1})
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  std::string reason = tessmark::platform::linux_backend::EnterPrivateNetworkNamespace();
  if (!reason.empty()) {
    std::fprintf(stderr, "bench_decisions runs only in a private network namespace: %s\n",
                 reason.c_str());
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  g_firewall.reset();  // the engine stopped, every client killed and reaped
  return 0;
}
