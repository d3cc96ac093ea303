// The trend chart's data side: the two series growing to the capacity and then shifting,
// values outside the limits refused, and each redraw's lines in the order they are drawn.

#include <gtest/gtest.h>

#include <vector>

#include "traffic/TrendView.h"

namespace tessmark {
namespace {

struct Line {
  float x1, y1, x2, y2;
  OleColor color;
  friend bool operator==(const Line&, const Line&) = default;
};

std::ostream& operator<<(std::ostream& out, const Line& line) {
  return out << "(" << line.x1 << "," << line.y1 << ")-(" << line.x2 << "," << line.y2
             << ") colour " << line.color;
}

// Keeps what the last redraw drew.
class RecordingSurface : public TrendSurface {
 public:
  void clear(OleColor backColor) override {
    ++clears;
    lastBackColor = backColor;
    lines.clear();
  }
  void line(float x1, float y1, float x2, float y2, OleColor color) override {
    lines.push_back({x1, y1, x2, y2, color});
  }
  std::vector<Line> inColor(OleColor color) const {
    std::vector<Line> found;
    for (const Line& line : lines)
      if (line.color == color) found.push_back(line);
    return found;
  }
  int clears = 0;
  OleColor lastBackColor = 0;
  std::vector<Line> lines;
};

constexpr OleColor kGrid = 32768;
constexpr OleColor kYellow = 0xFFFF;
constexpr OleColor kGreen = 65280;

class Chart : public ::testing::Test {
 protected:
  void SetUp() override {
    chart.setSurface(&surface);
    chart.Resize(200, 100);
    // Told apart from the second series, which is always green (GraphColor's default).
    chart.setGraphColor(kYellow);
  }
  bool put(float first, float second) { return chart.setValue(first, second); }

  RecordingSurface surface;
  TrendView chart;
};

TEST_F(Chart, ANewChartHoldsOneSampleOfZeroInEachSeries) {
  TrendView fresh;
  EXPECT_EQ(fresh.firstSeries(), std::vector<float>{0});
  EXPECT_EQ(fresh.secondSeries(), std::vector<float>{0});
  EXPECT_EQ(fresh.MaxValue(), 100);
  EXPECT_EQ(fresh.MinValue(), 0);
  EXPECT_EQ(fresh.GridStep(), 2);
  EXPECT_EQ(fresh.GridColor(), kGrid);
  EXPECT_EQ(fresh.GraphColor(), kGreen);
  EXPECT_EQ(fresh.BackColor(), 0x8000000Fu);
}

TEST_F(Chart, SeriesGrowToTheCapacityAndThenShift) {
  // Width 200 and GridStep 2: the capacity is 100, reached at an upper bound of 100.
  for (int n = 1; n <= 100; ++n) put(static_cast<float>(n % 90), 1);
  ASSERT_EQ(chart.firstSeries().size(), 101u);
  EXPECT_EQ(chart.firstSeries().front(), 0);  // the initial sample is still there
  EXPECT_EQ(chart.firstSeries().back(), 10);
  // The 101st sample is the first to shift: the initial 0 goes.
  put(55, 1);
  ASSERT_EQ(chart.firstSeries().size(), 101u);
  EXPECT_EQ(chart.firstSeries().front(), 1);
  EXPECT_EQ(chart.firstSeries()[99], 10);
  EXPECT_EQ(chart.firstSeries().back(), 55);
}

TEST_F(Chart, LimitsAreInclusiveAndTheResultTellsOfTheSecondValueOnly) {
  EXPECT_TRUE(put(100, 0));  // both limits themselves are stored
  EXPECT_EQ(chart.firstSeries(), (std::vector<float>{0, 100}));
  EXPECT_EQ(chart.secondSeries(), (std::vector<float>{0, 0}));
  EXPECT_TRUE(put(101, 50));  // the first refused, the second stored
  EXPECT_FALSE(put(50, -1));  // the first stored, the second refused
  EXPECT_EQ(chart.firstSeries(), (std::vector<float>{0, 100, 50}));
  EXPECT_EQ(chart.secondSeries(), (std::vector<float>{0, 0, 50}));
}

TEST_F(Chart, ARefusedPairStillRedrawsAndMovesNothing) {
  put(10, 20);
  const int clears = surface.clears;
  EXPECT_FALSE(put(100.5F, -0.5F));
  EXPECT_EQ(surface.clears, clears + 1);
  EXPECT_EQ(chart.firstSeries(), (std::vector<float>{0, 10}));
  EXPECT_EQ(chart.secondSeries(), (std::vector<float>{0, 20}));
}

TEST_F(Chart, TheNewestSampleSitsOnTheRightEdgeAndOlderOnesStepLeft) {
  put(50, 25);
  put(100, 0);
  // The first series in GraphColor, then the second in green over it; heights from the
  // bottom edge, 100 pixels for the range 0..100.
  EXPECT_EQ(surface.inColor(kYellow),
            (std::vector<Line>{{196, 100, 198, 50, kYellow}, {198, 50, 200, 0, kYellow}}));
  EXPECT_EQ(surface.inColor(kGreen),
            (std::vector<Line>{{196, 100, 198, 75, kGreen}, {198, 75, 200, 100, kGreen}}));
  ASSERT_GE(surface.lines.size(), 4u);
  EXPECT_EQ(surface.lines[surface.lines.size() - 4].color, kYellow);
  EXPECT_EQ(surface.lines.back().color, kGreen);
  EXPECT_EQ(surface.lastBackColor, 0x8000000Fu);
}

TEST_F(Chart, TheGridStartsFromTheBottomEdgeAndFromGridSpaceXLessOne) {
  chart.setGridSpaceX(25);
  chart.setGridSpaceY(30);
  std::vector<Line> grid = surface.inColor(kGrid);
  EXPECT_EQ(grid, (std::vector<Line>{{0, 100, 200, 100, kGrid},
                                     {0, 70, 200, 70, kGrid},
                                     {0, 40, 200, 40, kGrid},
                                     {0, 10, 200, 10, kGrid},
                                     {24, 0, 24, 100, kGrid},
                                     {49, 0, 49, 100, kGrid},
                                     {74, 0, 74, 100, kGrid},
                                     {99, 0, 99, 100, kGrid},
                                     {124, 0, 124, 100, kGrid},
                                     {149, 0, 149, 100, kGrid},
                                     {174, 0, 174, 100, kGrid},
                                     {199, 0, 199, 100, kGrid}}));
  // Grid distances are drawn in whole pixels, halves to even: 2.5 steps by 2.
  chart.setGridSpaceY(2.5F);
  EXPECT_EQ(surface.inColor(kGrid)[1], (Line{0, 98, 200, 98, kGrid}));
}

TEST_F(Chart, AGridDistanceOfLessThanHalfAPixelDrawsNoLinesInsteadOfNeverEnding) {
  chart.setGridSpaceX(0.4F);
  chart.setGridSpaceY(0);
  EXPECT_TRUE(surface.inColor(kGrid).empty());
  chart.setGridSpaceY(-10);
  EXPECT_TRUE(surface.inColor(kGrid).empty());
}

TEST_F(Chart, MaxValueEqualToMinValueKeepsTheLastHeightsAndTheGrid) {
  put(40, 60);
  chart.setMaxValue(5);
  chart.setMinValue(5);
  put(5, 5);  // stored: both limits
  EXPECT_EQ(chart.firstSeries().size(), 3u);
  // Every line is drawn at the heights worked out last, the end of the green line before.
  for (const Line& line : surface.inColor(kGreen)) {
    EXPECT_EQ(line.y1, 100);
    EXPECT_EQ(line.y2, 40);
  }
  EXPECT_EQ(surface.inColor(kGreen).size(), 2u);
  EXPECT_FALSE(surface.inColor(kGrid).empty());
}

TEST_F(Chart, TheGridOffsetMovesWithEachValueButNotWithAPropertyChange) {
  put(1, 1);
  EXPECT_EQ(chart.gridOffset(), 4);  // the resize in SetUp moved it once already
  chart.setBackColor(0);
  EXPECT_EQ(chart.gridOffset(), 4);
  EXPECT_EQ(surface.lastBackColor, 0u);
  for (int n = 0; n < 98; ++n) put(1, 1);
  EXPECT_EQ(chart.gridOffset(), 200);
  put(1, 1);  // past the width: back to 0
  EXPECT_EQ(chart.gridOffset(), 0);
}

TEST_F(Chart, AGridStepOfZeroShiftsEverySample) {
  chart.setGridStep(0);
  put(7, 8);
  put(9, 10);
  EXPECT_EQ(chart.firstSeries(), std::vector<float>{9});
  EXPECT_EQ(chart.secondSeries(), std::vector<float>{10});
}

TEST_F(Chart, ANarrowerChartKeepsItsSamplesAndDrawsTheOlderOnesPastTheLeftEdge) {
  for (int n = 0; n < 100; ++n) put(1, 1);
  chart.Resize(100, 100);
  put(2, 2);
  EXPECT_EQ(chart.firstSeries().size(), 101u);
  std::vector<Line> second = surface.inColor(kGreen);
  ASSERT_EQ(second.size(), 100u);
  EXPECT_EQ(second.front().x1, -100);
  EXPECT_EQ(second.back().x2, 100);
}

TEST_F(Chart, TheMainWindowsChartIsYellowOnBlack) {
  SetUpTrendView1(chart);
  EXPECT_EQ(chart.BackColor(), 0u);
  EXPECT_EQ(chart.GraphColor(), 0xFFFFu);
  put(10, 10);
  EXPECT_EQ(surface.lastBackColor, 0u);
  EXPECT_EQ(surface.inColor(kYellow).size(), 1u);
}

}  // namespace
}  // namespace tessmark
