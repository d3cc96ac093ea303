// Holding a program: how long a freeze and a resume of every thread of a sleeping program take,
// with 8 and 64 threads, by trace (the firewall's way) and by signal (the fallback's). The
// program is a child of this benchmark; it runs in a private network namespace like every
// program here that freezes anything.

#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "platform/linux/linux_threads.h"
#include "platform/linux/private_netns.h"

namespace {

using namespace tessmark::platform;
using linux_backend::HoldMethod;
using linux_backend::LinuxThreads;

// A child with `threads` threads in all, each napping in 10 ms sleeps.
class Sleeper {
 public:
  explicit Sleeper(int threads) {
    int ready[2];
    if (pipe(ready) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(ready[0]);
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      std::vector<std::thread> workers;
      for (int i = 1; i < threads; ++i)
        workers.emplace_back([] {
          for (;;) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        });
      (void)!write(ready[1], "r", 1);
      for (;;) pause();
    }
    close(ready[1]);
    char r = 0;
    if (read(ready[0], &r, 1) != 1) pid_ = -1;
    close(ready[0]);
  }
  ~Sleeper() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

void FreezeAndResume(benchmark::State& state, HoldMethod method) {
  Sleeper sleeper(static_cast<int>(state.range(0)));
  if (sleeper.pid() <= 0) {
    state.SkipWithError("no child program");
    return;
  }
  LinuxThreads threads({}, method);
  double freezeSeconds = 0, resumeSeconds = 0;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    auto list = threads.snapshot(sleeper.pid());
    if (!list) {
      state.SkipWithError("no thread list");
      return;
    }
    for (const ThreadEntry& thread : *list) threads.suspendThread(thread.threadId);
    auto frozen = std::chrono::steady_clock::now();
    list = threads.snapshot(sleeper.pid());
    for (const ThreadEntry& thread : *list) threads.resumeThread(thread.threadId);
    auto resumed = std::chrono::steady_clock::now();
    freezeSeconds += std::chrono::duration<double>(frozen - start).count();
    resumeSeconds += std::chrono::duration<double>(resumed - frozen).count();
    state.SetIterationTime(std::chrono::duration<double>(resumed - start).count());
  }
  auto n = static_cast<double>(state.iterations());
  state.counters["freeze_ms"] = 1e3 * freezeSeconds / n;
  state.counters["resume_ms"] = 1e3 * resumeSeconds / n;
}

void BM_HoldByTrace(benchmark::State& state) {
  FreezeAndResume(state, HoldMethod::kTrace);
}
void BM_HoldBySignal(benchmark::State& state) {
  FreezeAndResume(state, HoldMethod::kSignals);
}

BENCHMARK(BM_HoldByTrace)->Arg(8)->Arg(64)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HoldBySignal)->Arg(8)->Arg(64)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  std::string why = linux_backend::EnterPrivateNetworkNamespace();
  if (!why.empty()) {
    std::fprintf(stderr, "bench_holds: %s\n", why.c_str());
    return 2;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
