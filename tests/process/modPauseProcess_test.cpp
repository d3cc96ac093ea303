// From process id to program path; holding programs still, letting them go, and killing them.

#include <gtest/gtest.h>

#include "support/sim_engine.h"

namespace tessmark {
namespace {

class Processes : public ::testing::Test, public testing::SimMonitor {};

TEST_F(Processes, AreNamedByTheLastRebuildHeldOncePerResumeAndKilledEvenWhileHeld) {
  sim.addProcess(42, "/usr/bin/old");
  sim.addProcess(1, "/usr/sbin/system-daemon").openable = false;
  EXPECT_EQ(procs.ProcessPathFromId(42), "");  // before the first rebuild
  EXPECT_TRUE(procs.LoadProcessTable(-1));     // -1 kills nothing
  EXPECT_EQ(procs.ProcessPathFromId(42) + "," + procs.ProcessPathFromId(1) + "," +
                procs.ProcessPathFromId(sim.ownPid) + "," + procs.ProcessPathFromId(77),
            "/usr/bin/old,,/opt/tessmark/tessmark-firewall,");
  EXPECT_EQ(procs.ProcessPaths().count(77), 1u) << "an unknown id is entered empty";
  // A reused id keeps its owner until the next rebuild, even for handlers during its walk.
  sim.addProcess(42, "/usr/bin/new");
  std::string seen;
  mailbox.post([&] { seen = procs.ProcessPathFromId(42); });
  procs.LoadProcessTable(-1);
  EXPECT_EQ(seen + "," + procs.ProcessPathFromId(42), "/usr/bin/old,/usr/bin/new");
  EXPECT_EQ(procs.ProcessPaths().count(77), 0u);
  EXPECT_EQ(StrZToStr("abc") + StrZToStr(std::string("ab\0", 3)) + StrZToStr(""), "abab");

  // Only the target's threads are held, once per resume, and a kill ends it even then.
  sim.addProcess(42, "/usr/bin/app", 2);
  sim.addProcess(43, "/usr/bin/other", 1);
  sim.leadingThreads = {{999, 4}};  // the snapshot begins with another process's thread
  pause.SuspendThreads(42);
  pause.SuspendThreads(42);
  EXPECT_EQ(sim.suspendedThreadLog, (std::vector<uint32_t>{421, 422, 421, 422}));
  pause.ResumeThreads(42);
  EXPECT_TRUE(sim.isFrozen(42));
  pause.ResumeThreads(42);
  pause.ResumeThreads(42);  // a resume of a running program changes nothing
  EXPECT_EQ(sim.suspensionDepth(42), 0);
  // The firewall never freezes itself, nor even looks; its resume is harmless.
  const int snapshots = sim.calls.threadSnapshots;
  const size_t resumed = sim.resumedThreadLog.size();
  pause.SuspendThreads(sim.ownPid);
  pause.ResumeThreads(sim.ownPid);
  EXPECT_EQ(sim.calls.threadSnapshots, snapshots + 1) << "only the resume looks";
  EXPECT_EQ(sim.suspendedThreadLog.size(), 4u);
  EXPECT_EQ(sim.resumedThreadLog.size(), resumed + 2);
  pause.SuspendThreads(42);
  pause.Process_Kill(42);
  EXPECT_FALSE(sim.isFrozen(42));
  pause.Process_Kill(4242);  // never existed: all four steps fail, nothing shows
  sim.addProcess(5, "/usr/sbin/daemon").openable = false;
  pause.Process_Kill(5);
  EXPECT_EQ(sim.killedPids, (std::vector<int32_t>{42}));
  EXPECT_TRUE(sim.processTable.at(5).alive);
  // Without a snapshot there is no walk, and the program stays as it was.
  sim.threadSnapshotFails = true;
  EXPECT_EQ(pause.GetThreadList(pause.ThreadEntries, 43), -1);
  EXPECT_EQ(pause.ThreadEntries.size(), 1u);
  pause.SuspendThreads(43);
  EXPECT_FALSE(sim.isFrozen(43));
}

}  // namespace
}  // namespace tessmark
