// From process id to program path.

#include <gtest/gtest.h>

#include "monitor/mailbox.h"
#include "platform/sim/sim_system.h"
#include "process/modprocs.h"

namespace tessmark {
namespace {

class ProcessLookup : public ::testing::Test {
 protected:
  platform::sim::SimSystem sim;
  Mailbox mailbox;
  modprocs procs{sim, mailbox};
};

TEST_F(ProcessLookup, NamesEveryProcessItMayOpenAndNoOther) {
  sim.addProcess(42, "/usr/bin/firefox-esr");
  sim.addProcess(1, "/usr/sbin/system-daemon").openable = false;
  EXPECT_EQ(procs.ProcessPathFromId(42), "");  // before the first rebuild
  EXPECT_TRUE(procs.LoadProcessTable(-1));
  EXPECT_EQ(procs.ProcessPathFromId(42), "/usr/bin/firefox-esr");
  EXPECT_EQ(procs.ProcessPathFromId(1), "");
  EXPECT_EQ(procs.ProcessPathFromId(sim.ownPid), "/opt/tessmark/tessmark-firewall");
  EXPECT_TRUE(sim.killedPids.empty());  // -1 removes nothing
}

TEST_F(ProcessLookup, AnUnknownIdIsEnteredEmptyUntilTheNextRebuild) {
  procs.LoadProcessTable(-1);
  EXPECT_EQ(procs.ProcessPaths().count(77), 0u);
  EXPECT_EQ(procs.ProcessPathFromId(77), "");
  EXPECT_EQ(procs.ProcessPaths().count(77), 1u);
  procs.LoadProcessTable(-1);
  EXPECT_EQ(procs.ProcessPaths().count(77), 0u);
}

TEST_F(ProcessLookup, AReusedIdKeepsThePreviousOwnerUntilTheNextRebuild) {
  sim.addProcess(42, "/usr/bin/old");
  procs.LoadProcessTable(-1);
  sim.addProcess(42, "/usr/bin/new");
  EXPECT_EQ(procs.ProcessPathFromId(42), "/usr/bin/old");
  procs.LoadProcessTable(-1);
  EXPECT_EQ(procs.ProcessPathFromId(42), "/usr/bin/new");
}

TEST_F(ProcessLookup, HandlersDuringTheWalkSeeTheOldTable) {
  sim.addProcess(42, "/usr/bin/old");
  procs.LoadProcessTable(-1);
  sim.addProcess(42, "/usr/bin/new");
  std::string seen;
  mailbox.post([&] { seen = procs.ProcessPathFromId(42); });
  procs.LoadProcessTable(-1);
  EXPECT_EQ(seen, "/usr/bin/old");
}

TEST(StrZToStr, DropsTheLastCharacterWhateverItIs) {
  EXPECT_EQ(StrZToStr("abc"), "ab");
  EXPECT_EQ(StrZToStr(std::string("ab\0", 3)), "ab");
  EXPECT_EQ(StrZToStr("a"), "");
  EXPECT_EQ(StrZToStr(""), "");
}

}  // namespace
}  // namespace tessmark
