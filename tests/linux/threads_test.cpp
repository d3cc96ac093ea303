// The Linux thread backend on real children: stopping and continuing by suspension counts,
// the steps of ending a process, and the ways held programs are continued after we end.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "linux/netns.h"
#include "linux/peer_child.h"
#include "platform/linux/linux_threads.h"
#include "platform/linux/process_stat.h"

namespace tessmark::platform::linux_backend {
namespace {

using tessmark::testing::ThreadPeerChild;

// Every thread of the process shows state `letter`.
bool AllThreadsIn(pid_t pid, char letter) {
  std::error_code ec;
  std::filesystem::directory_iterator tasks("/proc/" + std::to_string(pid) + "/task", ec);
  if (ec) return false;
  int seen = 0;
  for (const auto& task : tasks) {
    auto stat = ReadProcessStat(AT_FDCWD, (task.path() / "stat").c_str());
    if (!stat || stat->state != letter) return false;
    ++seen;
  }
  return seen > 0;
}

std::vector<uint32_t> ThreadIdsOf(LinuxThreads& threads, pid_t pid) {
  std::vector<uint32_t> ids;
  auto snapshot = threads.snapshot(pid);
  if (!snapshot) return ids;
  for (const ThreadEntry& entry : *snapshot)
    if (entry.ownerProcessId == static_cast<uint32_t>(pid)) ids.push_back(entry.threadId);
  return ids;
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::filesystem::path FreshLedgerPath(const char* name) {
  std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("tessmark-threads-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  std::filesystem::path path = dir / name;
  std::filesystem::remove(path);
  return path;
}

#define START_PEER(name, threads, busy) \
  ThreadPeerChild name(threads, busy);  \
  ASSERT_EQ(name.error(), "")

TEST(ThreadsSuspension, ProcessRunsOnlyOnceEveryCountIsBackToZero) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  START_PEER(peer, 3, /*busy=*/true);
  LinuxThreads threads;

  std::vector<uint32_t> ids = ThreadIdsOf(threads, peer.pid());
  ASSERT_EQ(ids.size(), 4u) << "main thread and three workers";
  ASSERT_NE(std::find(ids.begin(), ids.end(), static_cast<uint32_t>(peer.pid())), ids.end());

  for (uint32_t id : ids) EXPECT_EQ(threads.suspendThread(id), 0);
  // The stop is confirmed before the first suspension returns: no waiting here.
  EXPECT_EQ(peer.state(), 'T');
  EXPECT_TRUE(AllThreadsIn(peer.pid(), 'T'));
  for (uint32_t id : ids) EXPECT_EQ(threads.suspendThread(id), 1);

  for (uint32_t id : ids) EXPECT_EQ(threads.resumeThread(id), 2);
  EXPECT_EQ(peer.state(), 'T') << "one round of resumes must not continue it";

  for (size_t i = 0; i + 1 < ids.size(); ++i) EXPECT_EQ(threads.resumeThread(ids[i]), 1);
  EXPECT_EQ(peer.state(), 'T') << "one thread still holds a count";
  EXPECT_EQ(threads.resumeThread(ids.back()), 1);
  EXPECT_TRUE(peer.waitForState('T', false)) << "continued after the last resume";

  // A resume of a running thread changes nothing, and a new suspension counts from 0 again.
  EXPECT_EQ(threads.resumeThread(ids[0]), 0);
  EXPECT_EQ(threads.suspendThread(ids[0]), 0);
  EXPECT_EQ(peer.state(), 'T');
  EXPECT_EQ(threads.resumeThread(ids[0]), 1);
  EXPECT_TRUE(peer.waitForState('T', false));
}

TEST(ThreadsSuspension, ThreadsOutOfReachAnswerMinusOne) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  LinuxThreads threads;
  pid_t gone = 0;
  {
    START_PEER(peer, 1, /*busy=*/false);
    gone = peer.pid();
    kill(peer.pid(), SIGKILL);
    ASSERT_TRUE(peer.reap());
  }
  EXPECT_EQ(threads.snapshot(gone), std::nullopt);
  EXPECT_EQ(threads.suspendThread(static_cast<uint32_t>(gone)), -1);
  EXPECT_EQ(threads.lastError(), static_cast<uint32_t>(ESRCH));
  EXPECT_EQ(threads.resumeThread(static_cast<uint32_t>(gone)), -1);
}

TEST(ThreadsSuspension, LedgerListsHeldProcessesWhileTheyAreHeld) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  START_PEER(first, 2, /*busy=*/false);
  START_PEER(second, 0, /*busy=*/false);
  std::filesystem::path ledger = FreshLedgerPath("ledger-held");
  LinuxThreads threads(ledger.string());

  ASSERT_EQ(threads.suspendThread(static_cast<uint32_t>(first.pid())), 0);
  std::string firstLine =
      std::to_string(first.pid()) + " " + std::to_string(first.startTime()) + "\n";
  EXPECT_EQ(ReadFile(ledger), firstLine);

  ASSERT_EQ(threads.suspendThread(static_cast<uint32_t>(second.pid())), 0);
  std::string secondLine =
      std::to_string(second.pid()) + " " + std::to_string(second.startTime()) + "\n";
  std::string both = ReadFile(ledger);
  EXPECT_EQ(both.size(), firstLine.size() + secondLine.size());
  EXPECT_NE(both.find(firstLine), std::string::npos);
  EXPECT_NE(both.find(secondLine), std::string::npos);

  EXPECT_EQ(threads.resumeThread(static_cast<uint32_t>(first.pid())), 1);
  EXPECT_EQ(ReadFile(ledger), secondLine);
  EXPECT_EQ(threads.resumeThread(static_cast<uint32_t>(second.pid())), 1);
  EXPECT_FALSE(std::filesystem::exists(ledger)) << "nothing held, no ledger";
}

TEST(ThreadsSuspension, ReleaseAllHoldsContinuesAndClearsCounts) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  START_PEER(peer, 2, /*busy=*/true);
  std::filesystem::path ledger = FreshLedgerPath("ledger-release");
  LinuxThreads threads(ledger.string());
  std::vector<uint32_t> ids = ThreadIdsOf(threads, peer.pid());
  ASSERT_EQ(ids.size(), 3u);
  for (uint32_t id : ids) threads.suspendThread(id);
  for (uint32_t id : ids) threads.suspendThread(id);
  ASSERT_EQ(peer.state(), 'T');

  threads.releaseAllHolds();
  EXPECT_TRUE(peer.waitForState('T', false));
  EXPECT_FALSE(std::filesystem::exists(ledger));
  for (uint32_t id : ids) EXPECT_EQ(threads.resumeThread(id), 0);
}

TEST(ThreadsKill, FourStepsEndAFrozenChild) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  START_PEER(peer, 2, /*busy=*/true);
  std::filesystem::path ledger = FreshLedgerPath("ledger-kill");
  LinuxThreads threads(ledger.string());
  for (uint32_t id : ThreadIdsOf(threads, peer.pid())) threads.suspendThread(id);
  ASSERT_EQ(peer.state(), 'T');

  ProcessHandle handle = threads.openProcess(peer.pid());
  ASSERT_NE(handle, 0) << "errno " << threads.lastError();
  uint32_t code = 0;
  ASSERT_TRUE(threads.exitCode(handle, code));
  EXPECT_EQ(code, kStillActive) << "a stopped process is still active";
  ASSERT_TRUE(threads.terminateProcess(handle, 0));
  EXPECT_FALSE(std::filesystem::exists(ledger)) << "a killed process is no longer held";

  // Our child's end shows through the handle without reaping it.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (threads.exitCode(handle, code) && code == kStillActive &&
         std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(code, 128u + SIGKILL);
  EXPECT_TRUE(threads.closeHandle(handle));

  std::optional<int> status = peer.reap();
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFSIGNALED(*status));
  EXPECT_EQ(WTERMSIG(*status), SIGKILL);
}

TEST(ThreadsKill, StepsOnAGoneProcessFailWithoutHarm) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  LinuxThreads threads;
  ProcessHandle handle = 0;
  pid_t gone = 0;
  {
    START_PEER(peer, 1, /*busy=*/false);
    gone = peer.pid();
    handle = threads.openProcess(peer.pid());
    ASSERT_NE(handle, 0);
    kill(peer.pid(), SIGKILL);
    ASSERT_TRUE(peer.reap());
  }
  uint32_t code = 12345;
  EXPECT_FALSE(threads.exitCode(handle, code));
  EXPECT_EQ(threads.lastError(), static_cast<uint32_t>(ESRCH));
  EXPECT_EQ(code, 12345u);
  EXPECT_FALSE(threads.terminateProcess(handle, 0));
  EXPECT_EQ(threads.lastError(), static_cast<uint32_t>(ESRCH));
  EXPECT_TRUE(threads.closeHandle(handle));
  EXPECT_FALSE(threads.closeHandle(handle)) << "closed already";

  ProcessHandle reopened = threads.openProcess(gone);
  if (reopened != 0) {
    // The id went to another process meanwhile: never touch it.
    threads.closeHandle(reopened);
    GTEST_SKIP() << "pid " << gone << " was reused before the test could check it";
  }
  EXPECT_EQ(threads.lastError(), static_cast<uint32_t>(ESRCH));

  EXPECT_FALSE(threads.exitCode(0, code));
  EXPECT_FALSE(threads.terminateProcess(0, 0));
  EXPECT_FALSE(threads.closeHandle(0));
  EXPECT_FALSE(threads.closeHandle(STDOUT_FILENO)) << "only handles it opened are closed";
}

TEST(ThreadsAfterTheEnd, LeftoverHoldsContinueOnlyTheSameStoppedProcess) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  START_PEER(listed, 1, /*busy=*/false);
  START_PEER(stranger, 1, /*busy=*/false);
  for (const ThreadPeerChild* peer : {&listed, &stranger}) {
    kill(peer->pid(), SIGSTOP);
    ASSERT_TRUE(peer->waitForState('T', true));
  }
  std::filesystem::path ledger = FreshLedgerPath("ledger-leftover");
  {
    std::ofstream out(ledger, std::ios::binary);
    out << listed.pid() << ' ' << listed.startTime() << '\n'
        << "not a line\n"
        << stranger.pid() << ' ' << stranger.startTime() + 1 << '\n';
  }

  LinuxThreads::ContinueLeftoverHolds(ledger.string());
  EXPECT_TRUE(listed.waitForState('T', false));
  EXPECT_EQ(stranger.state(), 'T') << "another start time is another process";
  EXPECT_FALSE(std::filesystem::exists(ledger));
  LinuxThreads::ContinueLeftoverHolds(ledger.string());  // no ledger: nothing to do
}

TEST(ThreadsAfterTheEnd, FatalSignalContinuesHeldProcesses) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  START_PEER(peer, 2, /*busy=*/true);
  int held[2], proceed[2];
  ASSERT_EQ(pipe(held), 0);
  ASSERT_EQ(pipe(proceed), 0);
  // A forked copy of this test holds the peer and then aborts, so the handlers never touch
  // the test process itself.
  pid_t holder = fork();
  ASSERT_GE(holder, 0);
  if (holder == 0) {
    close(held[0]);
    close(proceed[1]);
    rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    LinuxThreads threads;
    LinuxThreads::InstallFatalSignalRelease();
    auto snapshot = threads.snapshot(peer.pid());
    char ok = snapshot ? 1 : 0;
    if (snapshot)
      for (const ThreadEntry& entry : *snapshot)
        if (threads.suspendThread(entry.threadId) != 0) ok = 0;
    (void)!write(held[1], &ok, 1);
    char go = 0;
    (void)!read(proceed[0], &go, 1);  // end of file too: the test gave up, let go anyway
    abort();
  }
  close(held[1]);
  close(proceed[0]);
  char ok = 0;
  ASSERT_EQ(read(held[0], &ok, 1), 1);
  EXPECT_EQ(ok, 1);
  EXPECT_EQ(peer.state(), 'T');
  ASSERT_EQ(write(proceed[1], "x", 1), 1);
  int status = 0;
  ASSERT_EQ(waitpid(holder, &status, 0), holder);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << "status " << status;
  EXPECT_TRUE(peer.waitForState('T', false));
  close(held[0]);
  close(proceed[1]);
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
