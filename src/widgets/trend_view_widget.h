#pragma once
// The trend chart as a Qt widget: a frame around one picture, picTrend, that the chart's data
// side (TrendView) paints at each redraw. The picture is kept between paints, so the screen
// shows the last redraw until the next one.

#include <QFrame>
#include <QImage>

#include "traffic/TrendView.h"

namespace tessmark {

class TrendViewWidget : public QFrame, private TrendSurface {
  Q_OBJECT

 public:
  explicit TrendViewWidget(QWidget* parent = nullptr);

  // The chart's state and properties. Its redraws land in picTrend and are shown at once.
  TrendView& view() { return view_; }
  const TrendView& view() const { return view_; }

  // A new pair of samples, received first: see TrendView::setValue.
  bool setValue(float first, float second);

  // The properties that picTrend itself shows besides the drawing.
  void setBorderStyle(int16_t value);
  void setToolTipText(const QString& text);

  // The picture as last drawn: the chart's inner size, without the border.
  const QImage& picTrend() const { return picTrend_; }

  // A 32-bit colour of the chart as Qt's colour; system colours come from the palette.
  QColor colorOf(OleColor color) const;

 signals:
  // The mouse on picTrend. button: 1 left, 2 right, 4 middle; shift: 1 Shift, 2 Ctrl, 4 Alt;
  // x and y in pixels of picTrend.
  void Click();
  void DblClick();
  void MouseDown(int button, int shift, float x, float y);
  void MouseMove(int button, int shift, float x, float y);
  void MouseUp(int button, int shift, float x, float y);

 protected:
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;
  void showEvent(QShowEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void mouseDoubleClickEvent(QMouseEvent* event) override;

 private:
  // TrendSurface
  void clear(OleColor backColor) override;
  void line(float x1, float y1, float x2, float y2, OleColor color) override;

  void showBorder(int16_t style);
  void fitPicture();
  void mouse(QMouseEvent* event, void (TrendViewWidget::*signal)(int, int, float, float));

  TrendView view_;
  QImage picTrend_;
};

// TrendView1 of the main window: black behind a yellow graph, the rest at the defaults.
TrendViewWidget* MakeTrendView1(QWidget* parent = nullptr);

}  // namespace tessmark
