// The process list (LinuxProcesses::list), which every change of the TCP table pays for to
// name the programs of the rows' owners:
//   - with this process and N sleeping children of the same user;
//   - run as root, with N children that became another user, which the list leaves out.
// Run it as root and again as an ordinary user (e.g. through setpriv): a user's processes
// that never changed users are known by the owner of their exe link, root's and those that
// did are known by their status file, which costs more.
// Goal: a list of 300 processes <= 5 ms.

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

#include <benchmark/benchmark.h>

#include "platform/linux/linux_processes.h"
#include "sleepers.h"

namespace {

constexpr uid_t kOtherUser = 54321;

void ProcessList(benchmark::State& state, bool otherUser) {
  if (otherUser && ::geteuid() != 0) {
    state.SkipWithError("children of another user need root");
    return;
  }
  Sleepers sleepers(static_cast<int>(state.range(0)),
                    otherUser ? std::optional<uid_t>(kOtherUser) : std::nullopt);
  tessmark::platform::linux_backend::LinuxProcesses processes;
  size_t listed = 0;
  for (auto _ : state) {
    auto list = processes.list();
    listed = list.size();
    benchmark::DoNotOptimize(list);
  }
  state.counters["children"] = static_cast<double>(sleepers.size());
  state.counters["listed"] = static_cast<double>(listed);
}

void BM_ProcessListOwnChildren(benchmark::State& state) {
  ProcessList(state, false);
}
void BM_ProcessListOtherUsersChildren(benchmark::State& state) {
  ProcessList(state, true);
}

BENCHMARK(BM_ProcessListOwnChildren)->Arg(0)->Arg(300)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ProcessListOtherUsersChildren)->Arg(300)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
