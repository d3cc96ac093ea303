// thread_peer [THREADS] [busy|sleep]: a program for the tests to hold, continue and kill, with
// THREADS (default 3, at most 256) workers beside its main thread that spin ("busy") or nap.
// Once all run it writes "ready <pid>". Each byte 'e' on its standard input ends one worker;
// the end of its input ends it with status 0.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

std::atomic<int> g_started{0}, g_toEnd{0};  // g_toEnd: workers asked to end, not yet ended

int main(int argc, char** argv) {
  const int threads = argc > 1 ? std::atoi(argv[1]) : 3;
  const bool busy = argc > 2 && std::strcmp(argv[2], "busy") == 0;
  if (threads < 0 || threads > 256) return 2;
  for (int i = 0; i < threads; ++i) {
    std::thread([busy] {
      g_started.fetch_add(1);
      for (;;) {
        if (g_toEnd.fetch_sub(1) > 0) return;  // took one of the requests to end
        g_toEnd.fetch_add(1);
        if (!busy) std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    }).detach();
  }
  while (g_started.load() < threads) std::this_thread::yield();
  std::printf("ready %d\n", static_cast<int>(getpid()));
  std::fflush(stdout);
  char buf[256];
  for (ssize_t n; (n = read(STDIN_FILENO, buf, sizeof buf)) > 0;)
    g_toEnd.fetch_add(static_cast<int>(std::count(buf, buf + n, 'e')));
  std::_Exit(0);  // workers still running end with the process
}
