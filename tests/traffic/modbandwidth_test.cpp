// The traffic rates, in units of 1024 bytes a second, and the timer that shows them.

#include <gtest/gtest.h>

#include <array>

#include "platform/sim/sim_system.h"
#include "support/sim_engine.h"
#include "traffic/modbandwidth.h"

namespace tessmark {
namespace {

using platform::sim::MakeIfRow;

using Reading = std::array<int32_t, 4>;  // total received, total sent, rate received, sent

class Bandwidth : public ::testing::Test {
 protected:
  // The start-up's call, its results thrown away, with 1,004,000 and 204,000 bytes counted.
  void SetUp() override {
    sim.ifRows = {MakeIfRow(1, "lo", 4000, 4000), MakeIfRow(2, "eth0", 1000000, 200000)};
    sim.now = 50000;
    after(0);
  }
  // One call `ms` after the last, the totals passed in as 0 and the rates as `rates`.
  Reading after(uint32_t ms, int32_t rates = 0) {
    sim.now += ms;
    Reading reading{0, 0, rates, rates};
    bandwidth.CalculateBandwidth(reading[0], reading[1], reading[2], reading[3]);
    return reading;
  }
  uint32_t& eth0In() { return sim.ifRows[1].dwInOctets; }
  uint32_t& eth0Out() { return sim.ifRows[1].dwOutOctets; }

  platform::sim::SimSystem sim;
  testing::RecordingUi ui;
  modbandwidth bandwidth{sim, sim, ui};
};

TEST_F(Bandwidth, ARateIsTheTrafficSinceTheLastCallRoundedHalfToEven) {
  // 3,072,000 bytes in 3 s are 1000 units; the bytes counted before start-up are no rate.
  eth0In() += 3072000;
  eth0Out() += 6144;
  EXPECT_EQ(after(3000), (Reading{4076000, 210144, 1000, 2}));
  // 125 ms * 1.024 = 128: 64, 192 and 320 bytes are 0.5, 1.5 and 2.5 units.
  eth0In() += 64;
  eth0Out() += 192;
  EXPECT_EQ(after(125), (Reading{4076064, 210336, 0, 2}));
  eth0In() += 320;
  EXPECT_EQ(after(125), (Reading{4076384, 210336, 2, 0}));
  // No time elapsed leaves the rates as passed in, but the reading is taken.
  eth0In() += 3072000;
  EXPECT_EQ(after(0, 77), (Reading{7148384, 210336, 77, 77}));
  EXPECT_EQ(after(3000), (Reading{7148384, 210336, 0, 0}));
  // The interface that carried the traffic goes away: a negative rate for one tick.
  eth0In() = 0;
  sim.ifRows.push_back(MakeIfRow(3, "wlan0", 4072000, 0));
  EXPECT_EQ(after(3000), (Reading{4076000, 210336, -1000, 0}));
  EXPECT_EQ(after(3000), (Reading{4076000, 210336, 0, 0}));
}

TEST_F(Bandwidth, ASumOfZeroIsNoReadingAndSumsCountersAndTicksThatWrapStillGiveTheRate) {
  // A table that cannot be read, a system without one, counters all 0.
  for (int step = 0; step < 3; ++step) {
    sim.ifTableFails = step == 0;
    sim.ifTableNotSupported = step == 1;
    if (step == 2) {
      for (auto& row : sim.ifRows) row.dwInOctets = row.dwOutOctets = 0;
    }
    EXPECT_EQ(after(3000, -9), (Reading{1004000, 204000, 0, 0})) << step;
  }
  // The sum (every other counter now 0) crosses from 2^31 - 256 into the negative.
  eth0In() = 0x7FFFFF00u;
  after(3000);
  eth0In() += 3072000;
  EXPECT_EQ(after(3000), (Reading{int32_t(0x7FFFFF00u + 3072000u), 204000, 1000, 0}));
  // An interface's own 32-bit counter wraps past 2^32, while the clock passes 2^32.
  eth0Out() = 0xFFFFF000u;
  sim.now = 0xFFFFFF00u;
  after(0);
  eth0Out() += 3072000;
  EXPECT_EQ(after(3000)[3], 1000);
}

TEST_F(Bandwidth, TheTrafficTimerShowsRatesOnTheLabelsAndUpToMaxValueOnTheChart) {
  TrendView chart;
  std::vector<std::string> labels;
  for (uint32_t received : {1000000u, 4072000u, 1000000u}) {
    eth0In() = received;
    eth0Out() += 15360;
    sim.now += 3000;
    TrafficLabels shown = Traffic_Timer(bandwidth, chart);
    labels.insert(labels.end(), {shown.lnetIn, shown.lNetOut});
  }
  EXPECT_EQ(labels, (std::vector<std::string>{"0 Kb/sec", "5 Kb/sec", "1000 Kb/sec", "5 Kb/sec",
                                              "-1000 Kb/sec", "5 Kb/sec"}));
  // The chart gets the rates up to its MaxValue; a negative one reaches it and is refused there.
  EXPECT_EQ(chart.firstSeries(), (std::vector<float>{0, 0, 100}));
  EXPECT_EQ(chart.secondSeries(), (std::vector<float>{0, 5, 5, 5}));
}

}  // namespace
}  // namespace tessmark
