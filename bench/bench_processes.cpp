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

namespace {

constexpr uid_t kOtherUser = 54321;

// Children that only wait, as another user when asked; they die with this program even if it is
// killed, and are killed and reaped when this object goes.
class Sleepers {
 public:
  Sleepers(int count, bool otherUser) {
    pid_t parent = ::getpid();
    for (int i = 0; i < count; ++i) {
      pid_t pid = ::fork();
      if (pid < 0) break;
      if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(0);
        if (otherUser && ::setresuid(kOtherUser, kOtherUser, kOtherUser) != 0) ::_exit(1);
        for (;;) ::pause();
      }
      pids_.push_back(pid);
    }
    // Let every child take its user before the list is timed.
    ::usleep(100000);
  }
  ~Sleepers() {
    for (pid_t pid : pids_) ::kill(pid, SIGKILL);
    for (pid_t pid : pids_) ::waitpid(pid, nullptr, 0);
  }
  size_t size() const { return pids_.size(); }

 private:
  std::vector<pid_t> pids_;
};

void ProcessList(benchmark::State& state, bool otherUser) {
  if (otherUser && ::geteuid() != 0) {
    state.SkipWithError("children of another user need root");
    return;
  }
  Sleepers sleepers(static_cast<int>(state.range(0)), otherUser);
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
