// The engine thread: commands posted from another thread run on it, and the end lets every
// held program go.

#include <gtest/gtest.h>

#include <future>

#include "base/booleans.h"
#include "monitor/engine.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

TEST(Engine, RunsPostedCommandsOnItsThreadAndResumesHeldProgramsAtTheEnd) {
  platform::sim::SimSystem sim;
  sim.addProcess(42, "/usr/bin/app", 2);
  testing::RecordingUi ui;
  Engine engine(sim, ui);
  engine.start();
  ASSERT_TRUE(engine.threaded());
  EXPECT_EQ(engine.timerInterval(), 500u);

  std::promise<std::thread::id> ran;
  engine.post([&] {
    // Hold a connection the way an alert does.
    engine.main.AlertCount = 1;
    engine.main.AlertPids = {0, 42};
    engine.main.AlertRows.resize(2);
    engine.pause.SuspendThreads(42);
    engine.monitor.AlertForm(1).SetAlertPath("/usr/bin/app");
    engine.monitor.AlertForm(1).SetAlertId(1);
    ran.set_value(std::this_thread::get_id());
  });
  EXPECT_NE(ran.get_future().get(), std::this_thread::get_id());
  engine.timerTick();
  engine.stop();

  EXPECT_FALSE(sim.isFrozen(42));
  EXPECT_EQ(sim.releaseAllHoldsCalls, 1);
  EXPECT_EQ(engine.monitor.StopMonitor, kTrue);
  EXPECT_EQ(engine.monitor.FirewallActive, kFalse);
  engine.stop();  // a second stop does nothing
  EXPECT_EQ(sim.releaseAllHoldsCalls, 1);
}

}  // namespace
}  // namespace tessmark
