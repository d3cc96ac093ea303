#pragma once
// TrendView's data side: the strip chart of the main window without its window. It keeps two
// series of samples, and at each new pair redraws the whole chart onto a drawing surface: the
// grid from the bottom edge, the first series in GraphColor, then the second in pure green
// over it. The newest sample sits on the right edge and each older one GridStep further left.
//
// Everything is in pixels, the only scale here. The series are plain arrays that grow up to
// the capacity (width / GridStep) and then shift, oldest first.

#include <cstdint>
#include <string>
#include <vector>

namespace tessmark {

// A 32-bit colour: 0x00BBGGRR, or a system colour when the top bit is set (0x8000000F is
// the face colour of buttons).
using OleColor = uint32_t;

inline constexpr OleColor kButtonFaceColor = 0x8000000F;
// The second series is always drawn in this green, whatever GraphColor says.
inline constexpr OleColor kSecondSeriesColor = 65280;

// The surface the chart draws on (picTrend). Its size is the chart's innerWidth and
// innerHeight; (0, 0) is the top left corner and y grows downwards.
class TrendSurface {
 public:
  virtual ~TrendSurface() = default;
  virtual void clear(OleColor backColor) = 0;
  virtual void line(float x1, float y1, float x2, float y2, OleColor color) = 0;
};

class TrendView {
 public:
  // A new chart: the defaults, and both series one sample long, that sample 0.
  TrendView() = default;

  // The surface the redraws paint; none draws nothing, but the redraws still run.
  void setSurface(TrendSurface* surface) { surface_ = surface; }

  // Stores `first` in the first series and `second` in the second where each lies within
  // MinValue..MaxValue, limits included, then redraws once. A value out of range is not
  // stored and that series does not move, so the two can drift out of step. True when the
  // second value was stored; the result says nothing of the first.
  bool setValue(float& first, float& second);

  // Redraws the whole chart. flag false moves the grid offset on by GridStep.
  void Redraw(bool flag);
  // The control took a new size: the surface takes it too, then a redraw with flag false.
  // The series are not shortened by a narrower chart.
  void Resize(float width, float height);
  // The control was shown: a redraw with flag false.
  void Show() { Redraw(false); }

  // ---- properties. Setting BackColor, BorderStyle, GridSpaceX, GridSpaceY or GridStep
  // redraws with the flag true; the others redraw nothing.
  OleColor BackColor() const { return backColor_; }
  void setBackColor(OleColor value);
  int16_t BorderStyle() const { return borderStyle_; }  // 0 none, 1 fixed single
  void setBorderStyle(int16_t value);
  float GridSpaceX() const { return gridSpaceX_; }
  void setGridSpaceX(float value);
  float GridSpaceY() const { return gridSpaceY_; }
  void setGridSpaceY(float value);
  float GridStep() const { return gridStep_; }
  void setGridStep(float value);
  float MaxValue() const { return maxValue_; }
  void setMaxValue(float value) { maxValue_ = value; }
  float MinValue() const { return minValue_; }
  void setMinValue(float value) { minValue_ = value; }
  // The size of the drawing surface: only the control sets it, through Resize.
  float innerWidth() const { return innerWidth_; }
  float innerHeight() const { return innerHeight_; }
  const std::string& ToolTipText() const { return toolTipText_; }
  void setToolTipText(std::string value) { toolTipText_ = std::move(value); }
  OleColor GridColor() const { return gridColor_; }
  void setGridColor(OleColor value) { gridColor_ = value; }
  OleColor GraphColor() const { return graphColor_; }
  void setGraphColor(OleColor value) { graphColor_ = value; }

  // ---- state, for views and tests
  const std::vector<float>& firstSeries() const { return first_; }
  const std::vector<float>& secondSeries() const { return second_; }
  // Moved on by every redraw with the flag false and kept, but no drawing step reads it: the
  // grid stands still while the graph moves.
  float gridOffset() const { return gridOffset_; }

 private:
  bool store(std::vector<float>& series, float value) const;
  void drawSeries(const std::vector<float>& series, OleColor color);
  bool height(float sample, float& result) const;

  TrendSurface* surface_ = nullptr;
  OleColor backColor_ = kButtonFaceColor;
  int16_t borderStyle_ = 1;
  float gridSpaceX_ = 10;
  float gridSpaceY_ = 10;
  float gridStep_ = 2;
  float maxValue_ = 100;
  float minValue_ = 0;
  // The default size of the surface, 2715 by 1635 twips, at 15 twips a pixel.
  float innerWidth_ = 181;
  float innerHeight_ = 109;
  std::string toolTipText_;
  OleColor gridColor_ = 32768;
  OleColor graphColor_ = 65280;
  std::vector<float> first_{0.0F};
  std::vector<float> second_{0.0F};
  float gridOffset_ = 0;
  // The heights of the two ends of the line last drawn. A height that cannot be worked out
  // (MaxValue equal to MinValue) keeps the value it had.
  float heightFrom_ = 0;
  float heightTo_ = 0;
};

// TrendView1, the chart on the main window: black behind a yellow graph.
inline constexpr OleColor kTrendView1BackColor = 0;
inline constexpr OleColor kTrendView1GraphColor = 0xFFFF;
void SetUpTrendView1(TrendView& view);

}  // namespace tessmark
