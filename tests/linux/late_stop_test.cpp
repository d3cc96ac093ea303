// A thread let go before its stop came: it sleeps uninterruptibly while it is held and let go
// at once, so its stop comes only after the letting go gave up waiting. The engine's next
// polls must let it go then, or the program stays frozen with no hold left to end.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "platform/linux/linux_threads.h"
#include "platform/linux/process_stat.h"

namespace tessmark::platform::linux_backend {
namespace {

using namespace std::chrono_literals;

TEST(LateStop, AThreadWhoseStopComesAfterItsResumeIsLetGoAtALaterPoll) {
  int ran[2];
  ASSERT_EQ(pipe2(ran, O_CLOEXEC), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The parent of a vfork sleeps uninterruptibly until its child ends: 600 ms here.
    if (vfork() == 0) {
      timespec nap{0, 600'000'000};
      nanosleep(&nap, nullptr);
      _exit(0);
    }
    if (write(ran[1], "x", 1) != 1) _exit(1);
    pause();
    _exit(0);
  }
  close(ran[1]);
  // Held while it sleeps in the vfork.
  for (int i = 0; i < 2000; ++i) {
    std::optional<ProcessStat> stat = ReadProcessStat(child);
    if (stat && stat->state == 'D') break;
    std::this_thread::sleep_for(1ms);
  }
  LinuxThreads threads;
  ASSERT_TRUE(threads.snapshot(child).has_value());
  ASSERT_EQ(threads.suspendThread(static_cast<uint32_t>(child)), 0);
  ASSERT_EQ(threads.resumeThread(static_cast<uint32_t>(child)), 1);

  // The engine polls every 10 ms; the child must run on within a second of its vfork's end.
  pollfd wake{ran[0], POLLIN, 0};
  bool ranOn = false;
  for (auto deadline = std::chrono::steady_clock::now() + 3s;
       !ranOn && std::chrono::steady_clock::now() < deadline;) {
    threads.settle();
    ranOn = poll(&wake, 1, 10) == 1;
  }
  EXPECT_TRUE(ranOn) << "the program stayed stopped after it was let go";
  kill(child, SIGKILL);
  threads.settle();
  waitpid(child, nullptr, 0);
  close(ran[0]);
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
