// The Linux thread backend on real children: stopping and continuing by suspension counts,
// the steps of ending a process, and the ways held programs are continued after we end.

#include <gtest/gtest.h>
#include <linux/sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
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
#include "platform/linux/process_identities.h"
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

// Waits (bounded) until `done` holds.
template <class Done>
bool WaitUntil(Done done) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

bool WaitForAllThreadsIn(pid_t pid, char letter) {
  return WaitUntil([&] { return AllThreadsIn(pid, letter); });
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

// The state letter of one thread of `pid`.
char ThreadState(pid_t pid, uint32_t tid) {
  std::string path = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/stat";
  auto stat = ReadProcessStat(AT_FDCWD, path.c_str());
  return stat ? stat->state : '?';
}

bool WaitForThreadState(pid_t pid, uint32_t tid, char letter) {
  return WaitUntil([&] { return ThreadState(pid, tid) == letter; });
}

bool WaitForThreadCount(pid_t pid, size_t count) {
  return WaitUntil([&] {
    std::error_code ec;
    auto tasks = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec);
    return !ec && static_cast<size_t>(std::distance(tasks, {})) == count;
  });
}

void HoldAll(LinuxThreads& threads, pid_t pid) {
  for (uint32_t id : ThreadIdsOf(threads, pid)) threads.suspendThread(id);
}

void ResumeAll(LinuxThreads& threads, pid_t pid) {
  for (uint32_t id : ThreadIdsOf(threads, pid)) threads.resumeThread(id);
}

// Threads are held by trace, each on its own count, as the system counts suspensions per
// thread: a thread runs again once its own count is back at 0.
TEST(ThreadsSuspension, EachThreadRunsOnceItsOwnCountIsBackToZero) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  START_PEER(peer, 3, /*busy=*/true);
  LinuxThreads threads;

  std::vector<uint32_t> ids = ThreadIdsOf(threads, peer.pid());
  ASSERT_EQ(ids.size(), 4u) << "main thread and three workers";
  ASSERT_NE(std::find(ids.begin(), ids.end(), static_cast<uint32_t>(peer.pid())), ids.end());

  for (uint32_t id : ids) EXPECT_EQ(threads.suspendThread(id), 0);
  EXPECT_TRUE(WaitForAllThreadsIn(peer.pid(), 't')) << "a trace stop, not a job-control stop";
  for (uint32_t id : ids) EXPECT_EQ(threads.suspendThread(id), 1);
  for (uint32_t id : ids) EXPECT_EQ(threads.resumeThread(id), 2);
  EXPECT_TRUE(AllThreadsIn(peer.pid(), 't')) << "one round of resumes must not let go";

  // Someone else's SIGCONT does not end a trace stop.
  kill(peer.pid(), SIGCONT);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_TRUE(AllThreadsIn(peer.pid(), 't'));

  uint32_t last = ids.back();
  for (uint32_t id : ids) {
    if (id != last) {
      EXPECT_EQ(threads.resumeThread(id), 1);
      EXPECT_NE(ThreadState(peer.pid(), id), 't') << "thread " << id;
    }
  }
  EXPECT_EQ(ThreadState(peer.pid(), last), 't') << "its count is still 1";
  EXPECT_EQ(threads.resumeThread(last), 1);
  EXPECT_TRUE(peer.waitUntilHeld(false));
  EXPECT_NE(ThreadState(peer.pid(), last), 't');

  // A resume of a running thread changes nothing, and a new suspension counts from 0 again.
  EXPECT_EQ(threads.resumeThread(ids[0]), 0);
  EXPECT_EQ(threads.suspendThread(ids[0]), 0);
  EXPECT_TRUE(WaitForThreadState(peer.pid(), ids[0], 't'));
  EXPECT_EQ(threads.resumeThread(ids[0]), 1);
  EXPECT_NE(ThreadState(peer.pid(), ids[0]), 't');
}

// The road for programs that cannot be traced: the whole process is stopped by signal while
// any of its threads holds a count.
TEST(ThreadsSuspension, BySignalTheProcessRunsOnlyOnceEveryCountIsBackToZero) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  START_PEER(peer, 3, /*busy=*/true);
  LinuxThreads threads({}, HoldMethod::kSignals);
  std::vector<uint32_t> ids = ThreadIdsOf(threads, peer.pid());
  ASSERT_EQ(ids.size(), 4u);

  for (uint32_t id : ids) EXPECT_EQ(threads.suspendThread(id), 0);
  EXPECT_TRUE(AllThreadsIn(peer.pid(), 'T'));
  for (size_t i = 0; i + 1 < ids.size(); ++i) EXPECT_EQ(threads.resumeThread(ids[i]), 1);
  EXPECT_EQ(peer.state(), 'T') << "one thread still holds a count";
  EXPECT_EQ(threads.resumeThread(ids.back()), 1);
  EXPECT_TRUE(peer.waitUntilHeld(false)) << "continued after the last resume";
}

class ThreadsByMethod : public ::testing::TestWithParam<HoldMethod> {};

INSTANTIATE_TEST_SUITE_P(BothRoads, ThreadsByMethod,
                         ::testing::Values(HoldMethod::kTrace, HoldMethod::kSignals),
                         [](const auto& info) {
                           return info.param == HoldMethod::kTrace ? "Trace" : "Signals";
                         });

// A program continued by someone else while held, one of whose threads then ends, is still
// held by the next hold: no count of a thread that is gone keeps the hold from being taken.
TEST_P(ThreadsByMethod, AHoldAfterAnOutsideContinueAndAThreadsEndStillHolds) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  START_PEER(peer, 3, /*busy=*/false);
  LinuxThreads threads({}, GetParam());
  HoldAll(threads, peer.pid());
  ASSERT_TRUE(peer.waitUntilHeld(true));

  kill(peer.pid(), SIGCONT);  // kill -CONT, or a shell's fg
  ASSERT_TRUE(peer.send("e"));
  if (GetParam() == HoldMethod::kSignals) {
    ASSERT_TRUE(WaitForThreadCount(peer.pid(), 3)) << "continued, a worker ends at once";
  }
  ResumeAll(threads, peer.pid());
  ASSERT_TRUE(WaitForThreadCount(peer.pid(), 3));
  ASSERT_TRUE(peer.waitUntilHeld(false));

  HoldAll(threads, peer.pid());
  EXPECT_TRUE(WaitForAllThreadsIn(peer.pid(), GetParam() == HoldMethod::kTrace ? 't' : 'T'))
      << "state " << peer.state();
  ResumeAll(threads, peer.pid());
  EXPECT_TRUE(peer.waitUntilHeld(false));
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

// Only a stop by signal outlives us; a trace stop needs no ledger.
TEST(ThreadsSuspension, LedgerListsProcessesStoppedBySignalWhileTheyAreHeld) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  START_PEER(first, 2, /*busy=*/false);
  START_PEER(second, 0, /*busy=*/false);
  std::filesystem::path ledger = FreshLedgerPath("ledger-held");
  LinuxThreads threads(ledger.string(), HoldMethod::kSignals);

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

// A signal sent to a held program waits for the end of the hold, and then does what it does.
TEST_P(ThreadsByMethod, ASignalThatArrivesDuringAHoldActsAfterIt) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  START_PEER(peer, 2, /*busy=*/true);
  LinuxThreads threads({}, GetParam());
  HoldAll(threads, peer.pid());
  ASSERT_TRUE(peer.waitUntilHeld(true));
  kill(peer.pid(), SIGTERM);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_TRUE(peer.held()) << "state " << peer.state();
  EXPECT_FALSE(peer.reap(std::chrono::milliseconds(0))) << "ended during the hold";
  ResumeAll(threads, peer.pid());
  std::optional<int> status = peer.reap();
  ASSERT_TRUE(status) << "the signal was lost";
  EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGTERM) << "status " << *status;
}

TEST_P(ThreadsByMethod, ReleaseAllHoldsContinuesAndClearsCounts) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  START_PEER(peer, 2, /*busy=*/true);
  std::filesystem::path ledger = FreshLedgerPath("ledger-release");
  LinuxThreads threads(ledger.string(), GetParam());
  std::vector<uint32_t> ids = ThreadIdsOf(threads, peer.pid());
  ASSERT_EQ(ids.size(), 3u);
  for (uint32_t id : ids) threads.suspendThread(id);
  for (uint32_t id : ids) threads.suspendThread(id);
  ASSERT_TRUE(peer.waitUntilHeld(true));

  threads.releaseAllHolds();
  EXPECT_TRUE(peer.waitUntilHeld(false));
  EXPECT_FALSE(std::filesystem::exists(ledger));
  for (uint32_t id : ids) EXPECT_EQ(threads.resumeThread(id), 0);
}

TEST_P(ThreadsByMethod, FourStepsEndAFrozenChild) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  START_PEER(peer, 2, /*busy=*/true);
  std::filesystem::path ledger = FreshLedgerPath("ledger-kill");
  LinuxThreads threads(ledger.string(), GetParam());
  HoldAll(threads, peer.pid());
  ASSERT_TRUE(peer.waitUntilHeld(true));

  ProcessHandle handle = threads.openProcess(peer.pid());
  ASSERT_NE(handle, 0) << "errno " << threads.lastError();
  uint32_t code = 0;
  ASSERT_TRUE(threads.exitCode(handle, code));
  EXPECT_EQ(code, kStillActive) << "a stopped process is still active";
  ASSERT_TRUE(threads.terminateProcess(handle, 0));
  EXPECT_FALSE(std::filesystem::exists(ledger)) << "a killed process is no longer held";

  // Our child's end shows through the handle without reaping it.
  WaitUntil([&] { return !threads.exitCode(handle, code) || code != kStillActive; });
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
    ASSERT_TRUE(peer->waitUntilHeld(true));
  }
  std::filesystem::path ledger = FreshLedgerPath("ledger-leftover");
  {
    std::ofstream out(ledger, std::ios::binary);
    out << listed.pid() << ' ' << listed.startTime() << '\n'
        << "not a line\n"
        << stranger.pid() << ' ' << stranger.startTime() + 1 << '\n';
  }

  LinuxThreads::ContinueLeftoverHolds(ledger.string());
  EXPECT_TRUE(listed.waitUntilHeld(false));
  EXPECT_EQ(stranger.state(), 'T') << "another start time is another process";
  EXPECT_FALSE(std::filesystem::exists(ledger));
  LinuxThreads::ContinueLeftoverHolds(ledger.string());  // no ledger: nothing to do
}

// A forked copy of this test that holds every thread of `peer` and then waits; the handlers
// and signals of the test never touch the test process itself.
class ForkedHolder {
 public:
  ForkedHolder(pid_t peer, HoldMethod method) {
    int held[2], proceed[2];
    if (pipe(held) != 0 || pipe(proceed) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(held[0]);
      close(proceed[1]);
      rlimit noCore{0, 0};
      setrlimit(RLIMIT_CORE, &noCore);
      LinuxThreads threads({}, method);
      LinuxThreads::InstallFatalSignalRelease();
      auto snapshot = threads.snapshot(peer);
      char ok = snapshot ? 1 : 0;
      if (snapshot)
        for (const ThreadEntry& entry : *snapshot)
          if (threads.suspendThread(entry.threadId) != 0) ok = 0;
      (void)!write(held[1], &ok, 1);
      char go = 0;
      (void)!read(proceed[0], &go, 1);  // end of file too: the test gave up, end anyway
      abort();
    }
    close(held[1]);
    close(proceed[0]);
    char ok = 0;
    holding_ = pid_ > 0 && read(held[0], &ok, 1) == 1 && ok == 1;
    close(held[0]);
    proceed_ = proceed[1];
  }
  ~ForkedHolder() {
    if (proceed_ >= 0) close(proceed_);
  }
  bool holding() const { return holding_; }
  // Lets the holder abort; its wait status.
  int abortIt() {
    (void)!write(proceed_, "x", 1);
    return reap();
  }
  int killIt() {
    kill(pid_, SIGKILL);
    return reap();
  }

 private:
  int reap() {
    int status = 0;
    waitpid(pid_, &status, 0);
    return status;
  }
  pid_t pid_ = -1;
  int proceed_ = -1;
  bool holding_ = false;
};

TEST_P(ThreadsByMethod, FatalSignalContinuesHeldProcesses) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  START_PEER(peer, 2, /*busy=*/true);
  ForkedHolder holder(peer.pid(), GetParam());
  ASSERT_TRUE(holder.holding());
  EXPECT_TRUE(peer.waitUntilHeld(true));
  int status = holder.abortIt();
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << "status " << status;
  EXPECT_TRUE(peer.waitUntilHeld(false));
}

// SIGKILL leaves no handler a chance; a trace stop ends with its tracer all the same, so the
// program runs on without waiting for the next start.
TEST(ThreadsAfterTheEnd, KillingTheHolderLetsATracedProgramRunOn) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  START_PEER(peer, 2, /*busy=*/true);
  ForkedHolder holder(peer.pid(), HoldMethod::kTrace);
  ASSERT_TRUE(holder.holding());
  EXPECT_TRUE(peer.waitUntilHeld(true));
  int status = holder.killIt();
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "status " << status;
  EXPECT_TRUE(peer.waitUntilHeld(false)) << "state " << peer.state();
}

// A held program that someone else kills ends for its parent at the firewall's next call: the
// ends of its traced threads are taken, or the parent would wait until the firewall ends.
TEST(ThreadsAfterTheEnd, AHeldProgramKilledBySomeoneElseEndsForItsParent) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  START_PEER(peer, 3, /*busy=*/false);
  LinuxThreads threads;
  std::vector<uint32_t> ids = ThreadIdsOf(threads, peer.pid());
  for (uint32_t id : ids) ASSERT_EQ(threads.suspendThread(id), 0);
  kill(peer.pid(), SIGKILL);
  ASSERT_TRUE(WaitForAllThreadsIn(peer.pid(), 'Z')) << "every thread died";
  threads.snapshot(getpid());  // any call
  std::optional<int> status = peer.reap(std::chrono::seconds(1));
  ASSERT_TRUE(status) << "the killed program was never released to its parent";
  EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGKILL);
  for (uint32_t id : ids) EXPECT_EQ(threads.resumeThread(id), -1) << "nothing left to let go";
}

// A child under a pid of our choosing (clone3 with set_tid); -1 when the system refuses.
pid_t StartSleeperWithPid(pid_t pid) {
  clone_args args{};
  args.exit_signal = SIGCHLD;
  args.set_tid = reinterpret_cast<uintptr_t>(&pid);
  args.set_tid_size = 1;
  long child = syscall(SYS_clone3, &args, sizeof args);
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) pause();
  }
  return static_cast<pid_t>(child);
}

// Between a read of the tables and a freeze or kill, the owner may end and its pid go to
// another program: that program is never held or killed.
TEST(ThreadsIdentity, APidReusedSinceTheTablesWereReadIsNeverHeldOrKilled) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  ProcessIdentities identities;
  LinuxThreads threads({}, HoldMethod::kTrace, &identities);
  pid_t reused = 0;
  {
    START_PEER(owner, 0, /*busy=*/false);
    reused = owner.pid();
    identities.remember(ProcessIdentities::kTcp, {static_cast<uint32_t>(reused)});
    kill(owner.pid(), SIGKILL);
    ASSERT_TRUE(owner.reap());
  }
  pid_t stranger = StartSleeperWithPid(reused);
  if (stranger < 0)
    GTEST_SKIP() << "cannot start a process under a chosen pid: " << strerror(errno);
  ASSERT_EQ(stranger, reused);

  EXPECT_EQ(threads.snapshot(reused), std::nullopt);
  EXPECT_EQ(threads.suspendThread(static_cast<uint32_t>(reused)), -1);
  EXPECT_EQ(threads.openProcess(reused), 0);
  EXPECT_EQ(threads.lastError(), static_cast<uint32_t>(ESRCH));
  auto stat = ReadProcessStat(stranger);
  ASSERT_TRUE(stat);
  EXPECT_FALSE(stat->state == 't' || stat->state == 'T');

  // A fresh read that names the new process makes it the one the pid stands for.
  identities.remember(ProcessIdentities::kTcp, {static_cast<uint32_t>(reused)});
  EXPECT_EQ(threads.suspendThread(static_cast<uint32_t>(reused)), 0);
  EXPECT_EQ(threads.resumeThread(static_cast<uint32_t>(reused)), 1);
  // Forgotten once no table names it: no check, as for any pid the tables never named.
  identities.remember(ProcessIdentities::kTcp, {});
  EXPECT_FALSE(identities.isReused(reused));
  kill(stranger, SIGKILL);
  waitpid(stranger, nullptr, 0);
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
