// The Linux connection tables, measured inside a private network namespace so the tables hold
// only the sockets made here:
//   - the quiet poll (tcpRowCount + udpRowCount + tcpOpenCount) with 10, 1,000 and 10,000 TCP
//     sockets, IPv4 only, and again with half of them IPv4 and half IPv6 (on ::1), where each
//     count reads sockstat and sockstat6;
//   - the full TCP table with owners, 1,000 sockets and about 300 extra processes, read by a
//     fresh object (cold owner cache) and read again by one object (warm cache), with each way
//     of noticing changed processes: the fd folder's size (kernels from 6.2) and the count of
//     the owners' fd entries (forced here; what older kernels get);
//   - the same table read right after this old process swapped one connection for a new one,
//     with its count of open files the same or changed;
//   - for comparison, the same table read from /proc/net/tcp;
//   - the full TCP table, warm cache, with 500 IPv4 and 500 IPv6 sockets: two dumps;
//   - the monitor's whole snapshot (GetTCPConnections: the table, the process table rebuild
//     and one record per row) on a fresh machine object and again on the same one.
// Goals: quiet poll <= 15 us at every size; warm full table <= 5 ms with either signal.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
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
constexpr uint16_t kFirstPort6 = 52000;

// TCP sockets of this process on the loopback address of one family: listeners and connected
// pairs to them, grown or cut to a size on demand. Sockets are cut with a reset, so no
// TIME_WAIT piles up.
class SocketPool {
 public:
  SocketPool(int family, uint16_t firstPort) : family_(family), nextPort_(firstPort) {}
  ~SocketPool() {
    for (int fd : fds_) ::close(fd);
    for (int fd : swapped_)
      if (fd >= 0) ::close(fd);
    if (extra_ >= 0) ::close(extra_);
  }

  // Exactly n TCP sockets; false when the system refuses one.
  bool resize(size_t n) {
    while (fds_.size() > n) dropUnit();
    return growTo(n);
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
      Reset(swapped_[0]);
      ::close(swapped_[1]);
      swapped_[0] = swapped_[1] = -1;
    }
    return connectPair(swapped_[0], swapped_[1]);
  }

 private:
  static void Reset(int fd) {
    linger reset{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    ::close(fd);
  }

  sockaddr_storage loopback(uint16_t port, socklen_t& length) const {
    sockaddr_storage addr{};
    if (family_ == AF_INET6) {
      auto* in6 = reinterpret_cast<sockaddr_in6*>(&addr);
      in6->sin6_family = AF_INET6;
      in6->sin6_port = htons(port);
      in6->sin6_addr = in6addr_loopback;
      length = sizeof *in6;
    } else {
      auto* in = reinterpret_cast<sockaddr_in*>(&addr);
      in->sin_family = AF_INET;
      in->sin_port = htons(port);
      in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      length = sizeof *in;
    }
    return addr;
  }

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

  // The last listener or pair goes; a pair is reset from the client's end.
  void dropUnit() {
    if (units_.back() == 2) {
      Reset(fds_[fds_.size() - 2]);
      ::close(fds_.back());
      fds_.resize(fds_.size() - 2);
    } else {
      if (fds_.back() == listener_) listener_ = -1;
      ::close(fds_.back());
      fds_.pop_back();
    }
    units_.pop_back();
  }

  // On the next port that is free: a client may have been given one as its own.
  bool addListener() {
    int fd = ::socket(family_, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    for (int tries = 0;; ++tries, ++nextPort_) {
      socklen_t length = 0;
      sockaddr_storage addr = loopback(nextPort_, length);
      if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), length) == 0) break;
      if (errno != EADDRINUSE || tries == 100) {
        ::close(fd);
        return false;
      }
    }
    if (::listen(fd, 4096) != 0) {
      ::close(fd);
      return false;
    }
    fds_.push_back(fd);
    units_.push_back(1);
    listener_ = fd;
    listenerPort_ = nextPort_++;
    return true;
  }

  bool addPair() {
    int client = -1, server = -1;
    if (!connectPair(client, server)) return false;
    fds_.push_back(client);
    fds_.push_back(server);
    units_.push_back(2);
    return true;
  }

  bool connectPair(int& client, int& server) {
    client = ::socket(family_, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (client < 0) return false;
    socklen_t length = 0;
    sockaddr_storage addr = loopback(listenerPort_, length);
    if (::connect(client, reinterpret_cast<sockaddr*>(&addr), length) != 0) {
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

  int family_;
  int swapped_[2] = {-1, -1};
  int extra_ = -1;
  std::vector<int> fds_;
  std::vector<uint8_t> units_;  // 1 a listener, 2 a pair, in the order of fds_
  int listener_ = -1;
  uint16_t listenerPort_ = 0;
  uint16_t nextPort_;
};

SocketPool* g_pool = nullptr;   // IPv4
SocketPool* g_pool6 = nullptr;  // IPv6, on ::1

// Exactly `sockets` IPv4 and `sockets6` IPv6 TCP sockets of this process.
bool Prepare(benchmark::State& state, size_t sockets, size_t sockets6 = 0) {
  if (!g_pool->resize(sockets) || !g_pool6->resize(sockets6)) {
    state.SkipWithError("could not open the sockets (file limit? no IPv6?)");
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
    rows = (tcp ? tcp->total() : 0) + (udp ? udp->total() : 0);
    benchmark::DoNotOptimize(rows);
    benchmark::DoNotOptimize(opens);
  }
  state.counters["rows"] = rows;
}

// Half the sockets IPv4, half IPv6: each count reads both sockstat files.
void BM_QuietPollBothFamilies(benchmark::State& state) {
  const auto half = static_cast<size_t>(state.range(0)) / 2;
  if (!Prepare(state, half, half)) return;
  LinuxConnectionTables tables;
  tessmark::platform::RowCounts tcp, udp;
  for (auto _ : state) {
    auto tcpCount = tables.tcpRowCount();
    auto udpCount = tables.udpRowCount();
    auto opens = tables.tcpOpenCount();
    tcp = tcpCount.value_or(tessmark::platform::RowCounts{});
    udp = udpCount.value_or(tessmark::platform::RowCounts{});
    benchmark::DoNotOptimize(tcp);
    benchmark::DoNotOptimize(udp);
    benchmark::DoNotOptimize(opens);
  }
  state.counters["rows4"] = tcp.ipv4 + udp.ipv4;
  state.counters["rows6"] = tcp.ipv6 + udp.ipv6;
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

// Repeated reads of the TCP table once a first read has filled the owner cache.
void TimeWarmReads(benchmark::State& state, LinuxConnectionTables& tables) {
  auto first = tables.tcpTable();
  size_t rows = first ? first->size() : 0;
  for (auto _ : state) {
    auto table = tables.tcpTable();
    benchmark::DoNotOptimize(table);
  }
  state.counters["rows"] = static_cast<double>(rows);
}

void BM_FullTableWarmCache(benchmark::State& state) {
  if (!Prepare(state, static_cast<size_t>(state.range(0)))) return;
  LinuxConnectionTables tables("/proc", TableSource::kNetlinkThenProcNet, SignalOf(state));
  TimeWarmReads(state, tables);
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

void BM_FullTableWarmCacheBothFamilies(benchmark::State& state) {
  const auto half = static_cast<size_t>(state.range(0)) / 2;
  if (!Prepare(state, half, half)) return;
  LinuxConnectionTables tables;
  TimeWarmReads(state, tables);
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

// Each size of the quiet poll with IPv4 only, then with both families.
BENCHMARK(BM_QuietPoll)->Arg(10);
BENCHMARK(BM_QuietPollBothFamilies)->Arg(10);
BENCHMARK(BM_QuietPoll)->Arg(1000);
BENCHMARK(BM_QuietPollBothFamilies)->Arg(1000);
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
BENCHMARK(BM_FullTableWarmCacheBothFamilies)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuietPoll)->Arg(10000);
BENCHMARK(BM_QuietPollBothFamilies)->Arg(10000);

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
    SocketPool pool(AF_INET, kFirstPort), pool6(AF_INET6, kFirstPort6);
    g_pool = &pool;
    g_pool6 = &pool6;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
      status = 1;
    } else {
      benchmark::AddCustomContext("extra_processes", std::to_string(sleepers.size()));
      benchmark::RunSpecifiedBenchmarks();
    }
    benchmark::Shutdown();
    g_pool = nullptr;
    g_pool6 = nullptr;
  }
  return status;
}
