// What the running monitor costs when nothing changes: the engine loop (poll, Sleep(10),
// pump) on the real machine, as a share of one core, next to the bare 10 ms wake-up alone.
// Runs in a private network namespace with a few idle loopback sockets.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "monitor/engine.h"
#include "platform/linux/linux_platform.h"
#include "platform/linux/private_netns.h"

namespace {

using namespace tessmark;

double processCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// Runs `body` for the measured seconds and reports the process's CPU time over wall time.
template <typename Body>
void measureShare(benchmark::State& state, Body body) {
  constexpr auto kWindow = std::chrono::seconds(10);
  for (auto _ : state) {
    double cpu0 = processCpuSeconds();
    auto wall0 = std::chrono::steady_clock::now();
    body(kWindow);
    double cpu = processCpuSeconds() - cpu0;
    double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count();
    state.counters["core_percent"] = 100.0 * cpu / wall;
  }
}

void BM_BareTenMsWakeup(benchmark::State& state) {
  measureShare(state, [](auto window) {
    auto end = std::chrono::steady_clock::now() + window;
    std::thread sleeper([end] {
      platform::linux_backend::LinuxClock clock;
      while (std::chrono::steady_clock::now() < end) clock.sleep(10);
    });
    sleeper.join();
  });
}

void BM_IdleEngineLoop(benchmark::State& state) {
  platform::linux_backend::LinuxPlatform system;
  SilentUi ui;
  measureShare(state, [&](auto window) {
    Engine engine(system, ui);
    engine.start();
    auto end = std::chrono::steady_clock::now() + window;
    while (std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(engine.timerInterval()));
      engine.timerTick();
    }
    engine.stop();
  });
}

BENCHMARK(BM_BareTenMsWakeup)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_IdleEngineLoop)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

// A few idle sockets, so the probe has something to count.
void openIdleSockets() {
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(8080);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  listen(listener, 16);
  for (int i = 0; i < 4; ++i) {
    int client = socket(AF_INET, SOCK_STREAM, 0);
    connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::string why = platform::linux_backend::EnterPrivateNetworkNamespace();
  if (!why.empty()) {
    std::fprintf(stderr, "bench_loop needs a private network namespace: %s\n", why.c_str());
    return 1;
  }
  openIdleSockets();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
