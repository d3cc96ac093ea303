// The trend chart's data side: its two series, and each redraw's lines.

#include <gtest/gtest.h>

#include <array>
#include <map>

#include "traffic/TrendView.h"

namespace tessmark {
namespace {

using Line = std::array<float, 4>;  // x1, y1, x2, y2
constexpr OleColor kGrid = 32768, kYellow = 0xFFFF, kGreen = 65280;

// The main window's chart, 200 by 100 pixels, keeping what the last redraw drew.
class Chart : public ::testing::Test, public TrendSurface {
 protected:
  void SetUp() override {
    chart.setSurface(this);
    SetUpTrendView1(chart);  // yellow on black
    chart.Resize(200, 100);
  }
  void clear(OleColor color) override {
    backColor = color;
    drawn.clear();
  }
  void line(float x1, float y1, float x2, float y2, OleColor color) override {
    drawn[color].push_back({x1, y1, x2, y2});
    lastColor = color;
  }
  bool put(float first, float second) { return chart.setValue(first, second); }

  TrendView chart;
  OleColor backColor = 1, lastColor = 1;
  std::map<OleColor, std::vector<Line>> drawn;  // by colour, each in the order drawn
};

TEST_F(Chart, SeriesGrowToTheCapacityThenShiftAndANarrowerChartKeepsThem) {
  // Width 200 and GridStep 2: the capacity is 100, reached at an upper bound of 100.
  for (int n = 1; n <= 100; ++n) put(static_cast<float>(n % 90), 1);
  ASSERT_EQ(chart.firstSeries().size(), 101u);
  EXPECT_EQ(chart.firstSeries().front(), 0);  // the initial sample is still there
  // The 101st sample is the first to shift: the initial 0 goes.
  put(55, 1);
  const std::vector<float>& first = chart.firstSeries();
  EXPECT_EQ((std::array{first[0], first[99], first[100]}), (std::array<float, 3>{1, 10, 55}));
  // Half as wide: the samples stay, the older ones drawn past the left edge.
  chart.Resize(100, 100);
  put(2, 2);
  ASSERT_EQ(drawn[kGreen].size(), 100u);
  EXPECT_EQ(drawn[kGreen].front()[0], -100);
  EXPECT_EQ(drawn[kGreen].back()[2], 100);
  // A GridStep of 0 makes the capacity 0: every sample shifts.
  TrendView fresh;
  fresh.setGridStep(0);
  float seven = 7, eight = 8;
  fresh.setValue(seven, eight);
  EXPECT_EQ(fresh.secondSeries(), std::vector<float>{8});
}

TEST_F(Chart, LimitsAreInclusiveAndARefusedValueStillRedraws) {
  EXPECT_TRUE(put(100, 0));   // both limits themselves are stored
  EXPECT_TRUE(put(101, 50));  // the first refused, the second stored: only the second tells
  EXPECT_FALSE(put(50, -0.5F));
  backColor = 1;
  EXPECT_FALSE(put(100.5F, -1));
  EXPECT_EQ(backColor, 0u) << "no redraw";
  EXPECT_EQ(chart.firstSeries(), (std::vector<float>{0, 100, 50}));
  EXPECT_EQ(chart.secondSeries(), (std::vector<float>{0, 0, 50}));
  // MaxValue equal to MinValue: a value at both is stored, and every line is drawn at the
  // heights worked out last (the green line's ends before: 0 and 50), over the grid.
  chart.setMaxValue(50);
  chart.setMinValue(50);
  EXPECT_TRUE(put(50, 50));
  EXPECT_EQ(drawn[kGreen],
            (std::vector<Line>{{194, 100, 196, 50}, {196, 100, 198, 50}, {198, 100, 200, 50}}));
  EXPECT_FALSE(drawn[kGrid].empty());
}

TEST_F(Chart, TheNewestSampleSitsOnTheRightEdgeOverTheGridFromTheBottomEdge) {
  put(50, 25);
  put(100, 0);
  // Heights from the bottom edge, 100 pixels for the range 0..100, a GridStep between samples.
  EXPECT_EQ(drawn[kYellow], (std::vector<Line>{{196, 100, 198, 50}, {198, 50, 200, 0}}));
  EXPECT_EQ(drawn[kGreen], (std::vector<Line>{{196, 100, 198, 75}, {198, 75, 200, 100}}));
  EXPECT_EQ(lastColor, kGreen);
  EXPECT_EQ(backColor, 0u);
  // A property redraws with its new value, but only a new value moves the grid offset on
  // (after the resize and two values, 6), and past the width it is back at 0.
  chart.setBackColor(kButtonFaceColor);
  EXPECT_EQ(backColor, kButtonFaceColor);
  for (int n = 0; n < 97; ++n) put(1, 1);
  EXPECT_EQ(chart.gridOffset(), 6 + 97 * 2);
  put(1, 1);
  EXPECT_EQ(chart.gridOffset(), 0);
  // The grid starts from the bottom edge and from GridSpaceX less one.
  chart.setGridSpaceX(25);
  chart.setGridSpaceY(30);
  std::vector<Line> expected;
  for (float y : {100, 70, 40, 10}) expected.push_back({0, y, 200, y});
  for (float x : {24, 49, 74, 99, 124, 149, 174, 199}) expected.push_back({x, 0, x, 100});
  EXPECT_EQ(drawn[kGrid], expected);
  // Grid distances are drawn in whole pixels, halves to even: 2.5 steps by 2.
  chart.setGridSpaceY(2.5F);
  EXPECT_EQ(drawn[kGrid].at(1), (Line{0, 98, 200, 98}));
  // Less than half a pixel, none or negative draws no lines instead of never ending.
  chart.setGridSpaceX(0.4F);
  chart.setGridSpaceY(0);
  EXPECT_TRUE(drawn[kGrid].empty());
  chart.setGridSpaceY(-10);
  EXPECT_TRUE(drawn[kGrid].empty());
}

}  // namespace
}  // namespace tessmark
