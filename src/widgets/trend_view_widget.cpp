#include "widgets/trend_view_widget.h"

#include <QMouseEvent>
#include <QPainter>
#include <QPalette>

#include <algorithm>
#include <cmath>

namespace tessmark {

namespace {

// The chart's right and bottom edges lie at x = width and y = height, one past the last
// column and row of pixels. They are drawn on that last column and row, so that the newest
// sample, the bottom grid line and a rate of 0 can be seen.
int pixel(float coordinate, int size) {
  if (coordinate > static_cast<float>(size - 1) && coordinate <= static_cast<float>(size))
    return size - 1;
  // Far outside coordinates (older samples past the left edge) are clipped by the painter;
  // they are only kept within what an int holds.
  return static_cast<int>(std::lround(std::clamp(coordinate, -1.0e6F, 1.0e6F)));
}

int buttonsOf(Qt::MouseButtons buttons) {
  return ((buttons & Qt::LeftButton) ? 1 : 0) | ((buttons & Qt::RightButton) ? 2 : 0) |
         ((buttons & Qt::MiddleButton) ? 4 : 0);
}

int shiftOf(Qt::KeyboardModifiers modifiers) {
  return ((modifiers & Qt::ShiftModifier) ? 1 : 0) | ((modifiers & Qt::ControlModifier) ? 2 : 0) |
         ((modifiers & Qt::AltModifier) ? 4 : 0);
}

}  // namespace

TrendViewWidget::TrendViewWidget(QWidget* parent) : QFrame(parent) {
  view_.setSurface(this);
  setAttribute(Qt::WA_OpaquePaintEvent);
  showBorder(view_.BorderStyle());
  fitPicture();
}

bool TrendViewWidget::setValue(float first, float second) {
  return view_.setValue(first, second);
}

void TrendViewWidget::setBorderStyle(int16_t value) {
  view_.setBorderStyle(value);
  showBorder(value);
  fitPicture();  // the border took or gave back room
}

void TrendViewWidget::showBorder(int16_t style) {
  // 1 is a single sunken line around the picture, 0 none.
  setFrameStyle(style == 1 ? (QFrame::Panel | QFrame::Sunken) : QFrame::NoFrame);
  setLineWidth(1);
}

void TrendViewWidget::fitPicture() {
  // picTrend takes the inner size of the control, then the chart redraws.
  picTrend_ = QImage(contentsRect().size().expandedTo(QSize(0, 0)), QImage::Format_RGB32);
  view_.Resize(static_cast<float>(picTrend_.width()), static_cast<float>(picTrend_.height()));
}

void TrendViewWidget::setToolTipText(const QString& text) {
  view_.setToolTipText(text.toStdString());
  setToolTip(text);
}

QColor TrendViewWidget::colorOf(OleColor color) const {
  if ((color & 0x80000000U) != 0) {
    switch (color & 0xFF) {
      case 0x05:  // window background
        return palette().color(QPalette::Base);
      case 0x08:  // window text
        return palette().color(QPalette::Text);
      case 0x0F:  // button face
        return palette().color(QPalette::Button);
      default:
        return palette().color(QPalette::Window);
    }
  }
  return QColor(static_cast<int>(color & 0xFF), static_cast<int>((color >> 8) & 0xFF),
                static_cast<int>((color >> 16) & 0xFF));
}

void TrendViewWidget::clear(OleColor backColor) {
  picTrend_.fill(colorOf(backColor));
  update();
}

void TrendViewWidget::line(float x1, float y1, float x2, float y2, OleColor color) {
  if (picTrend_.isNull()) return;
  QPainter painter(&picTrend_);
  painter.setPen(QPen(colorOf(color), 1));
  const int width = picTrend_.width();
  const int height = picTrend_.height();
  painter.drawLine(pixel(x1, width), pixel(y1, height), pixel(x2, width), pixel(y2, height));
}

void TrendViewWidget::paintEvent(QPaintEvent* event) {
  QFrame::paintEvent(event);
  QPainter painter(this);
  painter.drawImage(contentsRect().topLeft(), picTrend_);
}

void TrendViewWidget::resizeEvent(QResizeEvent* event) {
  QFrame::resizeEvent(event);
  fitPicture();
}

void TrendViewWidget::showEvent(QShowEvent* event) {
  QFrame::showEvent(event);
  view_.Show();
}

void TrendViewWidget::mouse(QMouseEvent* event,
                            void (TrendViewWidget::*signal)(int, int, float, float)) {
  const QPointF at = event->position() - QPointF(contentsRect().topLeft());
  // A press or release reports the button that changed, a move the buttons held.
  const int button = buttonsOf(
      event->type() == QEvent::MouseMove ? event->buttons() : Qt::MouseButtons(event->button()));
  emit(this->*signal)(button, shiftOf(event->modifiers()), static_cast<float>(at.x()),
                      static_cast<float>(at.y()));
}

void TrendViewWidget::mousePressEvent(QMouseEvent* event) {
  mouse(event, &TrendViewWidget::MouseDown);
}

void TrendViewWidget::mouseMoveEvent(QMouseEvent* event) {
  mouse(event, &TrendViewWidget::MouseMove);
}

void TrendViewWidget::mouseReleaseEvent(QMouseEvent* event) {
  mouse(event, &TrendViewWidget::MouseUp);
  if (rect().contains(event->position().toPoint())) emit Click();
}

void TrendViewWidget::mouseDoubleClickEvent(QMouseEvent* event) {
  emit DblClick();
  QFrame::mouseDoubleClickEvent(event);
}

TrendViewWidget* MakeTrendView1(QWidget* parent) {
  auto* chart = new TrendViewWidget(parent);
  SetUpTrendView1(chart->view());
  return chart;
}

}  // namespace tessmark
