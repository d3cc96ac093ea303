// The Linux thread backend on real children, on both roads of holding (by trace, and by
// signals for programs that cannot be traced): counts per thread, signals from others during a
// hold, the steps of ending a process, and held programs running again however we end.

#include <gtest/gtest.h>
#include <linux/sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "linux/netns.h"
#include "linux/peer_child.h"
#include "platform/linux/linux_threads.h"
#include "platform/linux/process_stat.h"

namespace tessmark::platform::linux_backend {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using tessmark::testing::ThreadPeerChild;

#define START_PEER(name, threads, busy) \
  ThreadPeerChild name(threads, busy);  \
  ASSERT_EQ(name.error(), "")

template <class Done>
bool WaitUntil(Done done) {
  for (int i = 0; i < 5000 && !done(); ++i) std::this_thread::sleep_for(1ms);
  return done();
}

// The state letter of each thread of `pid`, or of thread `tid` only.
std::string States(pid_t pid, uint32_t tid = 0) {
  std::string letters, tasks = "/proc/" + std::to_string(pid) + "/task/";
  std::error_code error;
  for (const auto& task : fs::directory_iterator(tasks, error)) {
    auto stat = ReadProcessStat(AT_FDCWD, (task.path() / "stat").c_str());
    if (stat && (tid == 0 || task.path().filename() == std::to_string(tid))) letters += stat->state;
  }
  return letters;
}
bool AllIn(pid_t pid, char letter) {
  std::string states = States(pid);
  return !states.empty() && states.find_first_not_of(letter) == std::string::npos;
}

std::vector<uint32_t> ThreadIdsOf(LinuxThreads& threads, pid_t pid) {
  std::vector<uint32_t> ids;
  for (const ThreadEntry& entry : threads.snapshot(pid).value_or(std::vector<ThreadEntry>{}))
    ids.push_back(entry.threadId);
  return ids;
}
void HoldAll(LinuxThreads& threads, pid_t pid, bool hold = true) {
  for (uint32_t id : ThreadIdsOf(threads, pid))
    hold ? threads.suspendThread(id) : threads.resumeThread(id);
}

// The ledger of this test process, not there yet; its text; a line of it.
std::string FreshLedger() {
  fs::path path = fs::temp_directory_path() / ("tessmark-ledger-" + std::to_string(getpid()));
  fs::remove(path);
  return path;
}
std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
}
std::string LedgerLine(const ThreadPeerChild& peer) {
  return std::to_string(peer.pid()) + " " + std::to_string(peer.startTime()) + "\n";
}

class ThreadsByMethod : public ::testing::TestWithParam<HoldMethod> {
 protected:
  void SetUp() override { TESSMARK_REQUIRE_PRIVATE_NETNS(); }
  bool trace() const { return GetParam() == HoldMethod::kTrace; }
  // A thread held by trace is in a trace stop (t), not a job-control stop (T).
  char held() const { return trace() ? 't' : 'T'; }
};

INSTANTIATE_TEST_SUITE_P(BothRoads, ThreadsByMethod,
                         ::testing::Values(HoldMethod::kTrace, HoldMethod::kSignals),
                         [](const auto& info) {
                           return info.param == HoldMethod::kTrace ? "Trace" : "Signals";
                         });

// As the system counts suspensions per thread: by trace each thread runs once its own count
// is back at 0; by signal the whole process runs once every count is.
TEST_P(ThreadsByMethod, EachThreadsCountHoldsUntilItIsBackToZero) {
  START_PEER(peer, 3, /*busy=*/true);
  LinuxThreads threads({}, GetParam());
  std::vector<uint32_t> ids = ThreadIdsOf(threads, peer.pid());
  ASSERT_EQ(ids.size(), 4u) << "main thread and three workers";
  for (uint32_t id : ids) EXPECT_EQ(threads.suspendThread(id), 0);
  EXPECT_TRUE(WaitUntil([&] { return AllIn(peer.pid(), held()); })) << States(peer.pid());
  for (uint32_t id : ids) EXPECT_EQ(threads.suspendThread(id), 1);
  for (uint32_t id : ids) EXPECT_EQ(threads.resumeThread(id), 2);
  EXPECT_TRUE(AllIn(peer.pid(), held())) << "one round of resumes must not let go";
  if (trace()) {
    kill(peer.pid(), SIGCONT);
    std::this_thread::sleep_for(20ms);
    EXPECT_TRUE(AllIn(peer.pid(), 't')) << "someone else's SIGCONT ends no trace stop";
  }
  const uint32_t last = ids.back();
  for (uint32_t id : ids) {
    if (id == last) continue;
    EXPECT_EQ(threads.resumeThread(id), 1);
    EXPECT_NE(States(peer.pid(), id), "t") << "thread " << id;
  }
  EXPECT_EQ(States(peer.pid(), last), std::string(1, held())) << "its count is still 1";
  EXPECT_EQ(threads.resumeThread(last), 1);
  EXPECT_TRUE(WaitUntil([&] { return States(peer.pid(), last) != std::string(1, held()); }));
}

// Someone else continues a held program (kill -CONT, a shell's fg) and one of its threads
// ends: the next hold still holds it, as no count of a thread that is gone stands in the way.
// A signal sent during a hold waits for its end, and then does what it does.
TEST_P(ThreadsByMethod, SignalsFromOthersDuringAHoldNeitherBreakItNorGetLost) {
  START_PEER(peer, 3, /*busy=*/false);
  LinuxThreads threads({}, GetParam());
  HoldAll(threads, peer.pid());
  ASSERT_TRUE(peer.waitUntilHeld(true));
  kill(peer.pid(), SIGCONT);
  ASSERT_TRUE(peer.send("e"));
  auto threeThreads = [&] { return States(peer.pid()).size() == 3; };
  if (!trace()) {
    ASSERT_TRUE(WaitUntil(threeThreads)) << "continued, a worker ends at once";
  }
  HoldAll(threads, peer.pid(), false);
  ASSERT_TRUE(WaitUntil(threeThreads));
  ASSERT_TRUE(peer.waitUntilHeld(false));
  HoldAll(threads, peer.pid());
  EXPECT_TRUE(WaitUntil([&] { return AllIn(peer.pid(), held()); })) << States(peer.pid());

  kill(peer.pid(), SIGTERM);
  std::this_thread::sleep_for(50ms);
  EXPECT_TRUE(peer.held()) << "state " << peer.state();
  EXPECT_FALSE(peer.reap(0ms)) << "ended during the hold";
  HoldAll(threads, peer.pid(), false);
  std::optional<int> status = peer.reap();
  ASSERT_TRUE(status) << "the signal was lost";
  EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGTERM) << "status " << *status;
}

// Only a stop by signal outlives us, so only such a hold is in the ledger, while it lasts:
// until its program is killed (in the four steps of an end, or by someone else) or let go.
// A held program someone else kills ends for its parent at our next call: the ends of its
// traced threads are taken, or the parent would wait until we end. Steps on it then fail.
TEST_P(ThreadsByMethod, AHoldIsLedgeredUntilItsProgramEndsOrIsLetGo) {
  START_PEER(kept, 2, /*busy=*/true);
  START_PEER(doomed, 2, /*busy=*/false);
  START_PEER(victim, 3, /*busy=*/false);
  const std::string ledger = FreshLedger();
  LinuxThreads threads(ledger, GetParam());
  std::vector<uint32_t> keptIds = ThreadIdsOf(threads, kept.pid());
  ASSERT_EQ(keptIds.size(), 3u);
  for (uint32_t id : keptIds) threads.suspendThread(id);
  for (pid_t pid : {kept.pid(), doomed.pid(), victim.pid()}) HoldAll(threads, pid);
  ASSERT_TRUE(kept.waitUntilHeld(true) && doomed.waitUntilHeld(true) && victim.waitUntilHeld(true));
  const std::string all = ReadFile(ledger);
  if (trace()) {
    EXPECT_EQ(all, "");
  } else {
    EXPECT_EQ(all.size(),
              LedgerLine(kept).size() + LedgerLine(doomed).size() + LedgerLine(victim).size())
        << all;
    for (const ThreadPeerChild* peer : {&kept, &doomed, &victim})
      EXPECT_NE(all.find(LedgerLine(*peer)), std::string::npos) << all;
  }

  ProcessHandle handle = threads.openProcess(doomed.pid());
  ASSERT_NE(handle, 0) << "errno " << threads.lastError();
  uint32_t code = 0;
  ASSERT_TRUE(threads.exitCode(handle, code));
  EXPECT_EQ(code, kStillActive) << "a stopped process is still active";
  ASSERT_TRUE(threads.terminateProcess(handle, 0));
  EXPECT_EQ(ReadFile(ledger).find(LedgerLine(doomed)), std::string::npos) << "killed, not held";
  // Our child's end shows through the handle without reaping it.
  WaitUntil([&] { return !threads.exitCode(handle, code) || code != kStillActive; });
  EXPECT_EQ(code, 128u + SIGKILL);
  EXPECT_TRUE(threads.closeHandle(handle));
  std::optional<int> status = doomed.reap();
  EXPECT_TRUE(status && WIFSIGNALED(*status) && WTERMSIG(*status) == SIGKILL);

  const pid_t gone = victim.pid();
  std::vector<uint32_t> goneIds = ThreadIdsOf(threads, gone);
  handle = threads.openProcess(gone);
  ASSERT_NE(handle, 0);
  kill(gone, SIGKILL);
  ASSERT_TRUE(WaitUntil([&] { return AllIn(gone, 'Z'); })) << "every thread died";
  threads.snapshot(getpid());  // any call
  status = victim.reap(1s);
  ASSERT_TRUE(status) << "the killed program was never released to its parent";
  EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGKILL);
  EXPECT_EQ(ReadFile(ledger), trace() ? "" : LedgerLine(kept)) << "ended, no longer held";
  for (uint32_t id : goneIds) EXPECT_EQ(threads.resumeThread(id), -1) << "nothing left to let go";
  EXPECT_EQ(threads.snapshot(gone), std::nullopt);
  EXPECT_EQ(threads.suspendThread(static_cast<uint32_t>(gone)), -1);
  EXPECT_EQ(threads.lastError(), static_cast<uint32_t>(ESRCH));
  code = 12345;
  EXPECT_FALSE(threads.exitCode(handle, code));
  EXPECT_EQ(threads.lastError(), static_cast<uint32_t>(ESRCH));
  EXPECT_EQ(code, 12345u);
  EXPECT_FALSE(threads.terminateProcess(handle, 0));
  EXPECT_EQ(threads.lastError(), static_cast<uint32_t>(ESRCH));
  EXPECT_TRUE(threads.closeHandle(handle));
  EXPECT_FALSE(threads.exitCode(0, code) || threads.terminateProcess(0, 0) ||
               threads.closeHandle(0) || threads.closeHandle(STDOUT_FILENO))
      << "only handles it opened are used";

  threads.releaseAllHolds();
  EXPECT_TRUE(kept.waitUntilHeld(false));
  EXPECT_FALSE(fs::exists(ledger)) << "nothing held, no ledger";
  for (uint32_t id : keptIds) EXPECT_EQ(threads.resumeThread(id), 0) << "counts cleared";
  if (ProcessHandle reopened = threads.openProcess(gone); reopened != 0) {
    threads.closeHandle(reopened);  // the id went to another process meanwhile: never touch it
    GTEST_SKIP() << "pid " << gone << " was reused before the test could check it";
  }
  EXPECT_EQ(threads.lastError(), static_cast<uint32_t>(ESRCH));
}

// A fatal signal continues what we hold. SIGKILL leaves no handler a chance: a trace stop ends
// with its tracer all the same, and a stop by signal is continued at the next start, provided
// the ledger names the same process (by its start time), still stopped.
TEST_P(ThreadsByMethod, HeldProgramsRunAgainHoweverWeEnd) {
  START_PEER(peer, 2, /*busy=*/true);
  const std::string ledger = FreshLedger();
  for (int signal : {SIGABRT, SIGKILL}) {
    // A forked copy of this test holds the peer: its handlers and signals never touch the test.
    pid_t copy = fork();
    if (copy == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      rlimit noCore{0, 0};
      setrlimit(RLIMIT_CORE, &noCore);
      LinuxThreads threads(ledger, GetParam());
      LinuxThreads::InstallFatalSignalRelease();
      HoldAll(threads, peer.pid());
      for (;;) pause();
    }
    ASSERT_GT(copy, 0) << std::strerror(errno);
    EXPECT_TRUE(peer.waitUntilHeld(true));
    int status = 0;
    kill(copy, signal);
    waitpid(copy, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << status;
    if (signal != SIGKILL || trace()) {
      EXPECT_TRUE(peer.waitUntilHeld(false)) << strsignal(signal) << ", state " << peer.state();
    }
  }
  if (trace()) return;
  START_PEER(stranger, 0, /*busy=*/false);
  kill(stranger.pid(), SIGSTOP);
  ASSERT_TRUE(stranger.waitUntilHeld(true));
  std::ofstream(ledger, std::ios::app) << "not a line\n"
                                       << stranger.pid() << ' ' << stranger.startTime() + 1 << '\n';
  EXPECT_EQ(peer.state(), 'T');
  LinuxThreads::ContinueLeftoverHolds(ledger);
  EXPECT_TRUE(peer.waitUntilHeld(false));
  EXPECT_EQ(stranger.state(), 'T') << "another start time is another process";
  EXPECT_FALSE(fs::exists(ledger));
  LinuxThreads::ContinueLeftoverHolds(ledger);  // no ledger: nothing to do
}

// Between a read of the tables and a hold or kill, the owner may end and its pid go to another
// program: that program is never held or killed.
TEST(ThreadsIdentity, APidReusedSinceTheTablesWereReadIsNeverHeldOrKilled) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  ProcessIdentities identities;
  LinuxThreads threads({}, HoldMethod::kTrace, &identities);
  pid_t reused = 0;
  {
    START_PEER(owner, 0, /*busy=*/false);
    reused = owner.pid();
    identities.remember(ProcessIdentities::kTcp, {static_cast<uint32_t>(reused)});
    kill(reused, SIGKILL);
    ASSERT_TRUE(owner.reap());
  }
  // A child under the same pid (clone3 with set_tid).
  clone_args args{};
  args.exit_signal = SIGCHLD;
  args.set_tid = reinterpret_cast<uintptr_t>(&reused);
  args.set_tid_size = 1;
  pid_t stranger = static_cast<pid_t>(syscall(SYS_clone3, &args, sizeof args));
  if (stranger == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) pause();
  }
  if (stranger < 0)
    GTEST_SKIP() << "cannot start a process under a chosen pid: " << strerror(errno);
  ASSERT_EQ(stranger, reused);
  EXPECT_EQ(threads.snapshot(reused), std::nullopt);
  EXPECT_EQ(threads.suspendThread(static_cast<uint32_t>(reused)), -1);
  EXPECT_EQ(threads.openProcess(reused), 0);
  EXPECT_EQ(threads.lastError(), static_cast<uint32_t>(ESRCH));
  EXPECT_EQ(States(stranger).find_first_of("tT"), std::string::npos);
  // A fresh read that names the new process makes it the one the pid stands for; once no table
  // names it, it is forgotten, as any pid the tables never named.
  identities.remember(ProcessIdentities::kTcp, {static_cast<uint32_t>(reused)});
  EXPECT_EQ(threads.suspendThread(static_cast<uint32_t>(reused)), 0);
  EXPECT_EQ(threads.resumeThread(static_cast<uint32_t>(reused)), 1);
  identities.remember(ProcessIdentities::kTcp, {});
  EXPECT_FALSE(identities.isReused(reused));
  kill(stranger, SIGKILL);
  waitpid(stranger, nullptr, 0);
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
