#include "traffic/TrendView.h"

#include <algorithm>
#include <cmath>

#include "traffic/rounding.h"

namespace tessmark {

bool TrendView::setValue(float& first, float& second) {
  store(first_, first);
  bool stored = store(second_, second);
  Redraw(false);
  return stored;
}

bool TrendView::store(std::vector<float>& series, float value) const {
  // 1. Outside the limits nothing is stored (a value that is no number is never inside).
  if (!(value >= minValue_ && value <= maxValue_)) return false;
  // 2. How many steps the width holds. A GridStep of 0 makes the division fail, which
  //    leaves the capacity 0: every sample then shifts.
  float capacity = 0;
  if (gridStep_ != 0) {
    float steps = innerWidth_ / gridStep_;
    if (std::isfinite(steps)) capacity = steps;
  }
  // 3. At capacity the oldest sample goes; below it the array grows by one.
  const auto upperBound = static_cast<double>(series.size() - 1);
  if (static_cast<double>(capacity) <= upperBound)
    std::rotate(series.begin(), series.begin() + 1, series.end());
  else
    series.push_back(0);
  // 4. The newest sample is the last.
  series.back() = value;
  return true;
}

void TrendView::Redraw(bool flag) {
  const float width = innerWidth_;
  const float height = innerHeight_;
  // 1.
  if (surface_ != nullptr) surface_->clear(backColor_);
  // 2. All distances are pixels already.
  const float gx = gridSpaceX_;
  const float gy = gridSpaceY_;
  const float step = gridStep_;
  // 3.-4. The grid, in whole-pixel steps. A distance that does not round to a positive
  //    16-bit number draws no lines in its direction: a step of 0 would never end.
  auto stepOf = [](float distance) { return RoundHalfEven<int16_t>(distance).value_or(0); };
  if (surface_ != nullptr) {
    if (int16_t dy = stepOf(gy); dy > 0) {
      for (float y = height; y >= 0; y -= static_cast<float>(dy))
        surface_->line(0, y, width, y, gridColor_);
    }
    if (int16_t dx = stepOf(gx); dx > 0) {
      for (float x = gx - 1; x <= width; x += static_cast<float>(dx))
        surface_->line(x, 0, x, height, gridColor_);
    }
  }
  // 5.
  if (!flag) {
    gridOffset_ += step;
    if (gridOffset_ > width) gridOffset_ = 0;
  }
  // 6.-7. The second series draws over the first.
  if (first_.size() > 1) drawSeries(first_, graphColor_);
  if (second_.size() > 1) drawSeries(second_, kSecondSeriesColor);
}

bool TrendView::height(float sample, float& result) const {
  const float range = maxValue_ - minValue_;
  if (range == 0 || !std::isfinite(range)) return false;
  const float value = innerHeight_ / range * (sample - minValue_);
  if (!std::isfinite(value)) return false;
  result = value;
  return true;
}

void TrendView::drawSeries(const std::vector<float>& series, OleColor color) {
  const float width = innerWidth_;
  const float scaleHeight = innerHeight_;
  const float step = gridStep_;
  const auto upperBound = static_cast<int64_t>(series.size()) - 1;
  for (int64_t i = 1; i <= upperBound; ++i) {
    height(series[i - 1], heightFrom_);
    height(series[i], heightTo_);
    if (surface_ == nullptr) continue;
    const float x1 = width - static_cast<float>(upperBound - i + 1) * step;
    const float x2 = width - static_cast<float>(upperBound - i) * step;
    surface_->line(x1, scaleHeight - heightFrom_, x2, scaleHeight - heightTo_, color);
  }
}

void TrendView::Resize(float width, float height) {
  innerWidth_ = width;
  innerHeight_ = height;
  Redraw(false);
}

void TrendView::setBackColor(OleColor value) {
  backColor_ = value;
  Redraw(true);
}

void TrendView::setBorderStyle(int16_t value) {
  borderStyle_ = value;
  Redraw(true);
}

void TrendView::setGridSpaceX(float value) {
  gridSpaceX_ = value;
  Redraw(true);
}

void TrendView::setGridSpaceY(float value) {
  gridSpaceY_ = value;
  Redraw(true);
}

void TrendView::setGridStep(float value) {
  gridStep_ = value;
  Redraw(true);
}

void SetUpTrendView1(TrendView& view) {
  view.setBackColor(kTrendView1BackColor);
  view.setGraphColor(kTrendView1GraphColor);
}

}  // namespace tessmark
