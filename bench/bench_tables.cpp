// The Linux connection tables, measured inside a private network namespace so the tables hold
// only the sockets made here:
//   - the quiet poll (tcpRowCount + udpRowCount + tcpOpenCount) with 10, 1,000 and 10,000 TCP
//     sockets;
//   - the full TCP table with owners, 1,000 sockets and about 300 extra processes, read by a
//     fresh object (cold owner cache) and read again by one object (warm cache), with each way
//     of noticing changed processes: the fd folder's size (kernels from 6.2) and the count of
//     the owners' fd entries (forced here; what older kernels get);
//   - the same table read right after this old process swapped one connection for a new one,
//     with its count of open files the same or changed;
//   - for comparison, the same table read from /proc/net/tcp;
//   - the monitor's whole snapshot (GetTCPConnections: the table, the process table rebuild
//     and one record per row) on a fresh machine object and again on the same one.
// Goals: quiet poll <= 15 us at every size; warm full table <= 5 ms with either signal.

#include <fcntl.h>
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
#include "sleepers.h"

namespace {

using tessmark::platform::linux_backend::FdChangeSignal;
using tessmark::platform::linux_backend::LinuxConnectionTables;
using tessmark::platform::linux_backend::TableSource;

constexpr int kExtraProcesses = 300;
constexpr uint16_t kFirstPort = 45000;

// TCP sockets of this process: listeners and connected pairs to them, grown on demand.
class SocketPool {
 public:
  ~SocketPool() {
    for (int fd : fds_) ::close(fd);
    for (int fd : swapped_)
      if (fd >= 0) ::close(fd);
    if (extra_ >= 0) ::close(extra_);
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

  // Replaces one extra connected pair by a new one: this process, long known, now holds two
  // sockets the owner cache has not seen. The old pair is reset, so no TIME_WAIT piles up.
  // With `recount`, a file is also opened or closed, so the count of open files changes.
  bool swapPair(bool recount) {
    if (recount) {
      if (extra_ >= 0) {
        ::close(extra_);
        extra_ = -1;
      } else {
        extra_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
      }
    }
    if (swapped_[0] >= 0) {
      linger reset{1, 0};
      ::setsockopt(swapped_[0], SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
      ::close(swapped_[0]);
      ::close(swapped_[1]);
      swapped_[0] = swapped_[1] = -1;
    }
    return connectPair(swapped_[0], swapped_[1]);
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
    int client = -1, server = -1;
    if (!connectPair(client, server)) return false;
    fds_.push_back(client);
    fds_.push_back(server);
    return true;
  }

  bool connectPair(int& client, int& server) {
    client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (client < 0) return false;
    sockaddr_in addr = Loopback(listenerPort_);
    if (::connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      ::close(client);
      return false;
    }
    server = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (server < 0) {
      ::close(client);
      return false;
    }
    return true;
  }

  int swapped_[2] = {-1, -1};
  int extra_ = -1;
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
    auto opens = tables.tcpOpenCount();
    rows = tcp.value_or(0) + udp.value_or(0);
    benchmark::DoNotOptimize(rows);
    benchmark::DoNotOptimize(opens);
  }
  state.counters["rows"] = rows;
}

// The way owners notice changed processes: the kernel's (detected) or the counted fallback.
FdChangeSignal SignalOf(const benchmark::State& state) {
  return state.range(1) == 0 ? FdChangeSignal::kDetect : FdChangeSignal::kOwnerCount;
}

void BM_FullTableColdCache(benchmark::State& state) {
  if (!Prepare(state, static_cast<size_t>(state.range(0)))) return;
  size_t rows = 0;
  for (auto _ : state) {
    LinuxConnectionTables fresh("/proc", TableSource::kNetlinkThenProcNet, SignalOf(state));
    auto table = fresh.tcpTable();
    rows = table ? table->size() : 0;
    benchmark::DoNotOptimize(table);
  }
  state.counters["rows"] = static_cast<double>(rows);
}

void BM_FullTableWarmCache(benchmark::State& state) {
  if (!Prepare(state, static_cast<size_t>(state.range(0)))) return;
  LinuxConnectionTables tables("/proc", TableSource::kNetlinkThenProcNet, SignalOf(state));
  auto first = tables.tcpTable();
  size_t rows = first ? first->size() : 0;
  for (auto _ : state) {
    auto table = tables.tcpTable();
    benchmark::DoNotOptimize(table);
  }
  state.counters["rows"] = static_cast<double>(rows);
}

void BM_FullTableAfterNewSocket(benchmark::State& state) {
  if (!Prepare(state, static_cast<size_t>(state.range(0)))) return;
  LinuxConnectionTables tables("/proc", TableSource::kNetlinkThenProcNet, SignalOf(state));
  const bool recount = state.range(2) != 0;
  if (!g_pool->swapPair(recount)) {
    state.SkipWithError("could not open a connection");
    return;
  }
  auto first = tables.tcpTable();
  size_t rows = first ? first->size() : 0;
  for (auto _ : state) {
    state.PauseTiming();
    bool swapped = g_pool->swapPair(recount);
    state.ResumeTiming();
    if (!swapped) {
      state.SkipWithError("could not open a connection");
      break;
    }
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
// Second argument: 0 the detected signal, 1 the counted fallback forced.
BENCHMARK(BM_FullTableColdCache)
    ->ArgNames({"sockets", "counted"})
    ->Args({1000, 0})
    ->Args({1000, 1})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FullTableWarmCache)
    ->ArgNames({"sockets", "counted"})
    ->Args({1000, 0})
    ->Args({1000, 1})
    ->Unit(benchmark::kMillisecond);
// Third argument: 1 when the count of open files changed along with the new sockets.
BENCHMARK(BM_FullTableAfterNewSocket)
    ->ArgNames({"sockets", "counted", "recount"})
    ->Args({1000, 0, 0})
    ->Args({1000, 1, 0})
    ->Args({1000, 0, 1})
    ->Args({1000, 1, 1})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FullTableFromProcNetWarmCache)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MonitorSnapshotFirstRead)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MonitorSnapshotRepeated)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuietPoll)->Arg(10000);

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
  Sleepers sleepers(kExtraProcesses);
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
  return status;
}
