// The Linux connection tables, measured inside a private network namespace so the tables hold
// only the sockets made here:
//   - the quiet poll (tcpRowCount + udpRowCount) with 10, 1,000 and 10,000 TCP sockets;
//   - the full TCP table with owners, 1,000 sockets and about 300 extra processes, read by a
//     fresh object (cold owner cache) and read again by one object (warm cache);
//   - for comparison, the same table read from /proc/net/tcp;
//   - the monitor's whole snapshot (GetTCPConnections: the table, the process table rebuild
//     and one record per row) on a fresh machine object and again on the same one.
// Goals: quiet poll <= 10 us at every size; warm full table <= 5 ms.

#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "monitor/mailbox.h"
#include "monitor/modmain.h"
#include "platform/linux/linux_platform.h"
#include "platform/linux/linux_tables.h"
#include "platform/linux/private_netns.h"

namespace {

using tessmark::platform::linux_backend::LinuxConnectionTables;
using tessmark::platform::linux_backend::TableSource;

constexpr int kExtraProcesses = 300;
constexpr uint16_t kFirstPort = 45000;

// TCP sockets of this process: listeners and connected pairs to them, grown on demand.
class SocketPool {
 public:
  ~SocketPool() {
    for (int fd : fds_) ::close(fd);
  }

  // Grows to exactly n TCP sockets; false when the system refuses one.
  bool growTo(size_t n) {
    while (fds_.size() < n) {
      if (listener_ < 0 || n - fds_.size() == 1) {
        if (!addListener()) return false;
      } else if (!addPair()) {
        return false;
      }
    }
    return true;
  }

 private:
  static sockaddr_in Loopback(uint16_t port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
  }

  bool addListener() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_in addr = Loopback(nextPort_);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(fd, 4096) != 0) {
      ::close(fd);
      return false;
    }
    fds_.push_back(fd);
    listener_ = fd;
    listenerPort_ = nextPort_++;
    return true;
  }

  bool addPair() {
    int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (client < 0) return false;
    sockaddr_in addr = Loopback(listenerPort_);
    if (::connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      ::close(client);
      return false;
    }
    int server = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (server < 0) {
      ::close(client);
      return false;
    }
    fds_.push_back(client);
    fds_.push_back(server);
    return true;
  }

  std::vector<int> fds_;
  int listener_ = -1;
  uint16_t listenerPort_ = 0;
  uint16_t nextPort_ = kFirstPort;
};

SocketPool* g_pool = nullptr;

bool Prepare(benchmark::State& state, size_t sockets) {
  if (!g_pool->growTo(sockets)) {
    state.SkipWithError("could not open the sockets (file limit?)");
    return false;
  }
  return true;
}

void BM_QuietPoll(benchmark::State& state) {
  if (!Prepare(state, static_cast<size_t>(state.range(0)))) return;
  LinuxConnectionTables tables;
  uint32_t rows = 0;
  for (auto _ : state) {
    auto tcp = tables.tcpRowCount();
    auto udp = tables.udpRowCount();
    rows = tcp.value_or(0) + udp.value_or(0);
    benchmark::DoNotOptimize(rows);
  }
  state.counters["rows"] = rows;
}

void BM_FullTableColdCache(benchmark::State& state) {
  if (!Prepare(state, static_cast<size_t>(state.range(0)))) return;
  size_t rows = 0;
  for (auto _ : state) {
    LinuxConnectionTables fresh;
    auto table = fresh.tcpTable();
    rows = table ? table->size() : 0;
    benchmark::DoNotOptimize(table);
  }
  state.counters["rows"] = static_cast<double>(rows);
}

void BM_FullTableWarmCache(benchmark::State& state) {
  if (!Prepare(state, static_cast<size_t>(state.range(0)))) return;
  LinuxConnectionTables tables;
  auto first = tables.tcpTable();
  size_t rows = first ? first->size() : 0;
  for (auto _ : state) {
    auto table = tables.tcpTable();
    benchmark::DoNotOptimize(table);
  }
  state.counters["rows"] = static_cast<double>(rows);
}

void BM_FullTableFromProcNetWarmCache(benchmark::State& state) {
  if (!Prepare(state, static_cast<size_t>(state.range(0)))) return;
  LinuxConnectionTables tables("/proc", TableSource::kProcNetOnly);
  auto first = tables.tcpTable();
  size_t rows = first ? first->size() : 0;
  for (auto _ : state) {
    auto table = tables.tcpTable();
    benchmark::DoNotOptimize(table);
  }
  state.counters["rows"] = static_cast<double>(rows);
}

// The monitor's forced snapshot: what a changed row count costs the poll, records included.
struct MonitorSnapshot {
  tessmark::platform::linux_backend::LinuxPlatform system;
  tessmark::Mailbox mailbox;
  tessmark::modprocs procs{system, mailbox};
  tessmark::modmain main{system, procs, mailbox};
  size_t read() {
    main.GetTCPConnections(-1, -1);
    return static_cast<size_t>(tessmark::LastTableIndex(main.TcpConnections) + 1);
  }
};

void BM_MonitorSnapshotFirstRead(benchmark::State& state) {
  if (!Prepare(state, static_cast<size_t>(state.range(0)))) return;
  size_t rows = 0;
  for (auto _ : state) {
    MonitorSnapshot fresh;
    rows = fresh.read();
  }
  state.counters["rows"] = static_cast<double>(rows);
}

void BM_MonitorSnapshotRepeated(benchmark::State& state) {
  if (!Prepare(state, static_cast<size_t>(state.range(0)))) return;
  MonitorSnapshot snapshot;
  size_t rows = snapshot.read();
  for (auto _ : state) benchmark::DoNotOptimize(snapshot.read());
  state.counters["rows"] = static_cast<double>(rows);
}

// In order of growing socket count: the pool only grows.
BENCHMARK(BM_QuietPoll)->Arg(10)->Arg(1000);
BENCHMARK(BM_FullTableColdCache)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FullTableWarmCache)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FullTableFromProcNetWarmCache)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MonitorSnapshotFirstRead)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MonitorSnapshotRepeated)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuietPoll)->Arg(10000);

// Children that only wait, so the owner look-up has processes to walk. They die with this
// program even if it is killed.
std::vector<pid_t> StartSleepers(int count) {
  std::vector<pid_t> pids;
  pid_t parent = ::getpid();
  for (int i = 0; i < count; ++i) {
    pid_t pid = ::fork();
    if (pid < 0) break;
    if (pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (::getppid() != parent) ::_exit(0);
      for (;;) ::pause();
    }
    pids.push_back(pid);
  }
  return pids;
}

void StopSleepers(const std::vector<pid_t>& pids) {
  for (pid_t pid : pids) ::kill(pid, SIGKILL);  // only the children started above
  for (pid_t pid : pids) ::waitpid(pid, nullptr, 0);
}

}  // namespace

int main(int argc, char** argv) {
  std::string reason = tessmark::platform::linux_backend::EnterPrivateNetworkNamespace();
  if (!reason.empty()) {
    std::fprintf(stderr, "bench_tables runs only in a private network namespace: %s\n",
                 reason.c_str());
    return 1;
  }
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  rlimit wanted{32768, 32768};
  if (::setrlimit(RLIMIT_NOFILE, &wanted) != 0) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }

  // The sleepers are started before any socket is open, so they hold none.
  std::vector<pid_t> sleepers = StartSleepers(kExtraProcesses);
  int status = 0;
  {
    SocketPool pool;
    g_pool = &pool;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
      status = 1;
    } else {
      benchmark::AddCustomContext("extra_processes", std::to_string(sleepers.size()));
      benchmark::RunSpecifiedBenchmarks();
    }
    benchmark::Shutdown();
    g_pool = nullptr;
  }
  StopSleepers(sleepers);
  return status;
}
