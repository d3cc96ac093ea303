// thread_peer: a multi-threaded program for the tests to freeze, continue and kill.
//
//   thread_peer [THREADS] [busy|sleep]
//
// THREADS (default 3) extra threads are started beside the main thread. With "busy" they spin
// on the CPU, with "sleep" (the default) they sleep in short naps. Once all of them run, the
// program prints one line "ready <pid>\n" on stdout and flushes it. Each byte 'e' read from
// stdin ends one worker thread. It ends with status 0 when its stdin is closed or reaches end
// of file, otherwise runs until it is killed.

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace {

std::atomic<unsigned long> g_work{0};
std::atomic<int> g_started{0};
std::atomic<int> g_toEnd{0};  // workers asked to end and not yet ended

// True once this worker takes one of the requests to end.
bool TakeEnd() {
  int due = g_toEnd.load();
  while (due > 0)
    if (g_toEnd.compare_exchange_weak(due, due - 1)) return true;
  return false;
}

void Busy() {
  g_started.fetch_add(1);
  while (!TakeEnd()) g_work.fetch_add(1, std::memory_order_relaxed);
}

void Nap() {
  g_started.fetch_add(1);
  while (!TakeEnd()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

}  // namespace

int main(int argc, char** argv) {
  int threads = argc > 1 ? std::atoi(argv[1]) : 3;
  bool busy = argc > 2 && std::strcmp(argv[2], "busy") == 0;
  if (threads < 0 || threads > 256) {
    std::fprintf(stderr, "usage: thread_peer [THREADS 0..256] [busy|sleep]\n");
    return 2;
  }
  std::vector<std::thread> workers;
  for (int i = 0; i < threads; ++i) workers.emplace_back(busy ? Busy : Nap);
  while (g_started.load() < threads) std::this_thread::yield();
  std::printf("ready %d\n", static_cast<int>(getpid()));
  std::fflush(stdout);
  char buf[256];
  ssize_t n = 0;
  while ((n = read(STDIN_FILENO, buf, sizeof buf)) > 0)
    for (ssize_t i = 0; i < n; ++i)
      if (buf[i] == 'e') g_toEnd.fetch_add(1);
  for (std::thread& worker : workers) worker.detach();
  // Workers still running are ended with the process.
  std::_Exit(0);
}
