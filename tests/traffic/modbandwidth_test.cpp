// The rates from two readings of the counters: units of 1024 bytes a second over the time
// since the last call, the start-up call that primes them, sums that wrap, a reading of 0
// that is no reading; and the Traffic timer that hands them to the labels and the chart.

#include <gtest/gtest.h>

#include "platform/sim/sim_system.h"
#include "support/sim_engine.h"
#include "traffic/modbandwidth.h"

namespace tessmark {
namespace {

using platform::sim::MakeIfRow;

class Bandwidth : public ::testing::Test {
 protected:
  void SetUp() override {
    sim.ifRows = {MakeIfRow(1, "lo", 4000, 4000), MakeIfRow(2, "eth0", 1000000, 200000)};
    sim.now = 50000;
    prime();
  }
  // The start-up's call: its results are thrown away.
  void prime() {
    int32_t a = 0, b = 0, c = 0, d = 0;
    bandwidth.CalculateBandwidth(a, b, c, d);
  }
  // One call `ms` after the last, with the outputs starting as the Traffic timer has them.
  void after(uint32_t ms) {
    sim.now += ms;
    totalReceived = totalSent = rateReceived = rateSent = 0;
    bandwidth.CalculateBandwidth(totalReceived, totalSent, rateReceived, rateSent);
  }
  uint32_t& eth0In() { return sim.ifRows[1].dwInOctets; }
  uint32_t& eth0Out() { return sim.ifRows[1].dwOutOctets; }

  platform::sim::SimSystem sim;
  testing::RecordingUi ui;
  modbandwidth bandwidth{sim, sim, ui};
  int32_t totalReceived = 0, totalSent = 0, rateReceived = 0, rateSent = 0;
};

TEST_F(Bandwidth, ThreeMillionBytesInThreeSecondsAreAThousand) {
  eth0In() += 3072000;
  after(3000);
  EXPECT_EQ(rateReceived, 1000);
  EXPECT_EQ(rateSent, 0);
  EXPECT_EQ(totalReceived, 4000 + 1000000 + 3072000);
  EXPECT_EQ(totalSent, 4000 + 200000);
}

TEST_F(Bandwidth, TheFirstTickShowsTheTrafficSinceStartUpNotSinceBoot) {
  // The counters held 1,004,000 bytes before the start-up's call; only what came after it
  // is a rate.
  eth0Out() += 6144;
  after(3000);
  EXPECT_EQ(rateSent, 2);
  EXPECT_EQ(rateReceived, 0);
}

TEST_F(Bandwidth, OneByteIsNoRate) {
  eth0In() += 1;
  after(3000);
  EXPECT_EQ(rateReceived, 0);
}

TEST_F(Bandwidth, AFallInTheSumsGivesANegativeRateForOneTick) {
  eth0In() += 3072000;
  after(3000);
  // The interface that carried the traffic goes away.
  sim.ifRows[1].dwInOctets = 0;
  sim.ifRows.push_back(MakeIfRow(3, "wlan0", 1000000, 200000));
  after(3000);
  EXPECT_EQ(rateReceived, -1000);
  after(3000);
  EXPECT_EQ(rateReceived, 0);
}

TEST_F(Bandwidth, HalvesRoundToTheEvenNeighbour) {
  // 125 ms * 1.024 = 128: 64, 192 and 320 bytes are 0.5, 1.5 and 2.5 units.
  eth0In() += 64;
  eth0Out() += 192;
  after(125);
  EXPECT_EQ(rateReceived, 0);
  EXPECT_EQ(rateSent, 2);
  eth0In() += 320;
  after(125);
  EXPECT_EQ(rateReceived, 2);
}

TEST_F(Bandwidth, ASumOfExactlyZeroKeepsThePreviousTotal) {
  eth0In() += 3072000;
  after(3000);
  const int32_t received = totalReceived;
  const int32_t sent = totalSent;
  // A table that cannot be read sums to 0; so do counters that all read 0.
  sim.ifTableFails = true;
  after(3000);
  EXPECT_EQ(totalReceived, received);
  EXPECT_EQ(totalSent, sent);
  EXPECT_EQ(rateReceived, 0);
  EXPECT_EQ(rateSent, 0);
  sim.ifTableFails = false;
  for (auto& row : sim.ifRows) row.dwInOctets = row.dwOutOctets = 0;
  after(3000);
  EXPECT_EQ(totalReceived, received);
  EXPECT_EQ(rateReceived, 0);
}

TEST_F(Bandwidth, NoTableShowsItsMessageAndKeepsTheTotals) {
  sim.ifTableNotSupported = true;
  after(3000);
  EXPECT_EQ(totalReceived, 1004000);
  EXPECT_EQ(rateReceived, 0);
  ASSERT_EQ(ui.messageBoxes.size(), 1u);
  EXPECT_EQ(ui.messageBoxes[0].text, "IP Helper is not supported by this system.");
}

TEST_F(Bandwidth, NoTimeElapsedLeavesTheRatesAsPassedIn) {
  eth0In() += 3072000;
  int32_t total = 0, totalOut = 0, in = 77, out = -5;
  bandwidth.CalculateBandwidth(total, totalOut, in, out);
  EXPECT_EQ(in, 77);
  EXPECT_EQ(out, -5);
  // The reading itself is taken: the totals and the next rate start from it.
  EXPECT_EQ(total, 4000 + 1000000 + 3072000);
  after(3000);
  EXPECT_EQ(rateReceived, 0);
}

TEST_F(Bandwidth, SumsThatWrapPast2To31StillGiveTheRightRate) {
  // The sum crosses from 2^31 - 256 into the negative.
  eth0In() = 0x7FFFFF00u - 4000;
  after(3000);
  ASSERT_EQ(totalReceived, 0x7FFFFF00);
  eth0In() += 3072000;
  after(3000);
  EXPECT_LT(totalReceived, 0);
  EXPECT_EQ(rateReceived, 1000);
  // An interface's own 32-bit counter wraps past 2^32.
  eth0Out() = 0xFFFFF000u;
  after(3000);
  eth0Out() += 3072000;  // wraps to 0x002EDC00 - 0x1000
  after(3000);
  EXPECT_EQ(rateSent, 1000);
}

TEST_F(Bandwidth, TheTickCountWrapsWithoutHarm) {
  sim.now = 0xFFFFFF00u;
  prime();
  eth0In() += 3072000;
  after(3000);  // the clock passes 2^32
  EXPECT_EQ(rateReceived, 1000);
}

class TrafficTimer : public Bandwidth {
 protected:
  TrendView TrendView1;
};

TEST_F(TrafficTimer, NoTrafficReadsZeroOnBothLabels) {
  sim.now += 3000;
  TrafficLabels labels = Traffic_Timer(bandwidth, TrendView1);
  EXPECT_EQ(labels.lnetIn, "0 Kb/sec");
  EXPECT_EQ(labels.lNetOut, "0 Kb/sec");
  EXPECT_EQ(TrendView1.firstSeries(), (std::vector<float>{0, 0}));
  EXPECT_EQ(TrendView1.secondSeries(), (std::vector<float>{0, 0}));
}

TEST_F(TrafficTimer, LabelsShowTheRateAndTheChartItsUpperLimit) {
  eth0In() += 3072000;
  eth0Out() += 30720;
  sim.now += 3000;
  TrafficLabels labels = Traffic_Timer(bandwidth, TrendView1);
  EXPECT_EQ(labels.lnetIn, "1000 Kb/sec");
  EXPECT_EQ(labels.lNetOut, "10 Kb/sec");
  EXPECT_EQ(TrendView1.firstSeries().back(), 100);  // MaxValue
  EXPECT_EQ(TrendView1.secondSeries().back(), 10);
}

TEST_F(TrafficTimer, ANegativeRateReachesTheChartAndIsRefusedThere) {
  eth0In() += 3072000;
  sim.now += 3000;
  Traffic_Timer(bandwidth, TrendView1);
  eth0In() -= 3072000;
  sim.now += 3000;
  TrafficLabels labels = Traffic_Timer(bandwidth, TrendView1);
  EXPECT_EQ(labels.lnetIn, "-1000 Kb/sec");
  EXPECT_EQ(TrendView1.firstSeries(), (std::vector<float>{0, 100}));  // that sample is missing
  EXPECT_EQ(TrendView1.secondSeries(), (std::vector<float>{0, 0, 0}));
}

}  // namespace
}  // namespace tessmark
