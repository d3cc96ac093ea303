// Holding programs still, letting them go, and killing them.

#include <gtest/gtest.h>

#include "monitor/mailbox.h"
#include "platform/sim/sim_system.h"
#include "process/modPauseProcess.h"
#include "process/modprocs.h"

namespace tessmark {
namespace {

class PauseProcess : public ::testing::Test {
 protected:
  platform::sim::SimSystem sim;
  Mailbox mailbox;
  modprocs procs{sim, mailbox};
  modPauseProcess pause{sim, procs};
};

TEST_F(PauseProcess, SuspendingTwiceNeedsTwoResumes) {
  sim.addProcess(42, "/usr/bin/app", 3);
  pause.SuspendThreads(42);
  pause.SuspendThreads(42);
  EXPECT_EQ(sim.suspensionDepth(42), 2);
  pause.ResumeThreads(42);
  EXPECT_TRUE(sim.isFrozen(42));
  pause.ResumeThreads(42);
  EXPECT_FALSE(sim.isFrozen(42));
  pause.ResumeThreads(42);  // a resume of a running program changes nothing
  EXPECT_EQ(sim.suspensionDepth(42), 0);
}

TEST_F(PauseProcess, OnlyThreadsOfTheTargetAreTouchedIncludingAtIndexZero) {
  sim.addProcess(42, "/usr/bin/app", 2);
  sim.addProcess(43, "/usr/bin/other", 1);
  sim.leadingThreads = {{999, 4}};  // the snapshot begins with another process's thread
  pause.SuspendThreads(42);
  EXPECT_EQ(sim.suspendedThreadLog, (std::vector<uint32_t>{421, 422}));
  EXPECT_FALSE(sim.isFrozen(43));
}

TEST_F(PauseProcess, TheFirewallNeverFreezesItself) {
  pause.SuspendThreads(sim.ownPid);
  EXPECT_TRUE(sim.suspendedThreadLog.empty());
  EXPECT_EQ(sim.calls.threadSnapshots, 0);
  // The resume has no such guard; on running threads it is harmless.
  pause.ResumeThreads(sim.ownPid);
  EXPECT_EQ(sim.resumedThreadLog.size(), 2u);
  EXPECT_FALSE(sim.isFrozen(sim.ownPid));
}

TEST_F(PauseProcess, NoSnapshotMeansNoWalkAndTheProgramStaysAsItWas) {
  sim.addProcess(42, "/usr/bin/app", 2);
  sim.threadSnapshotFails = true;
  EXPECT_EQ(pause.GetThreadList(pause.ThreadEntries, 42), -1);
  EXPECT_EQ(pause.ThreadEntries.size(), 1u);
  pause.SuspendThreads(42);
  EXPECT_FALSE(sim.isFrozen(42));
  EXPECT_TRUE(sim.suspendedThreadLog.empty());
}

TEST_F(PauseProcess, KillEndsARunningProgramEvenWhileFrozen) {
  sim.addProcess(42, "/usr/bin/bad", 2);
  pause.SuspendThreads(42);
  pause.Process_Kill(42);
  EXPECT_EQ(sim.killedPids, (std::vector<int32_t>{42}));
  EXPECT_FALSE(sim.isFrozen(42));
}

TEST_F(PauseProcess, KillOfAGoneOrUnreachableProgramIsSilent) {
  pause.Process_Kill(4242);  // never existed: all four steps fail, nothing shows
  sim.addProcess(5, "/usr/sbin/daemon").openable = false;
  pause.Process_Kill(5);
  EXPECT_TRUE(sim.killedPids.empty());
  EXPECT_TRUE(sim.processTable.at(5).alive);
}

}  // namespace
}  // namespace tessmark
