// The trend chart widget drawn offscreen: pixels of the picture it shows for known samples,
// and one picture of a whole chart saved under the build folder (trendview.png) for a person
// to look at.

#include <QImage>
#include <QSignalSpy>
#include <QTest>

#include <cmath>

#include "widgets/trend_view_widget.h"

namespace tessmark {

namespace {

const QRgb kBlack = qRgb(0, 0, 0);
const QRgb kYellow = qRgb(255, 255, 0);
const QRgb kGreen = qRgb(0, 255, 0);
const QRgb kGridGreen = qRgb(0, 128, 0);  // 32768

}  // namespace

class TrendViewWidgetTest : public QObject {
  Q_OBJECT

 private:
  // The main window's chart with a picture of 200 x 100 pixels inside its one-pixel border,
  // on a shown window of its own that the test keeps until the next one.
  TrendViewWidget* chart() {
    window_ = std::make_unique<QWidget>();
    window_->resize(400, 200);
    TrendViewWidget* widget = MakeTrendView1(window_.get());
    widget->resize(202, 102);
    window_->show();
    if (!QTest::qWaitForWindowExposed(window_.get())) return nullptr;
    return widget;
  }
  static int pixelsOf(const QImage& picture, QRgb color) {
    int count = 0;
    for (int y = 0; y < picture.height(); ++y)
      for (int x = 0; x < picture.width(); ++x) count += picture.pixel(x, y) == color ? 1 : 0;
    return count;
  }
  std::unique_ptr<QWidget> window_;
  // What the widget shows, border included.
  static QImage shown(TrendViewWidget& widget) {
    QImage image(widget.size(), QImage::Format_RGB32);
    widget.render(&image);
    return image;
  }

 private slots:
  void thePictureFillsTheInsideOfTheBorder() {
    auto widget = chart();
    QVERIFY(widget);
    QCOMPARE(widget->picTrend().size(), QSize(200, 100));
    QCOMPARE(widget->view().innerWidth(), 200.0F);
    QCOMPARE(widget->view().innerHeight(), 100.0F);
    // Without a border the picture is the whole control.
    widget->setBorderStyle(0);
    QCOMPARE(widget->picTrend().size(), QSize(202, 102));
    QCOMPARE(widget->view().innerWidth(), 202.0F);
  }

  void gridLinesRunFromTheBottomEdgeUp() {
    auto widget = chart();
    QVERIFY(widget);
    const QImage& picture = widget->picTrend();
    // Every 10 pixels from the bottom edge, which lies on the last row.
    QCOMPARE(picture.pixel(4, 99), kGridGreen);
    QCOMPARE(picture.pixel(4, 90), kGridGreen);
    QCOMPARE(picture.pixel(4, 10), kGridGreen);
    QCOMPARE(picture.pixel(4, 0), kGridGreen);
    QCOMPARE(picture.pixel(4, 95), kBlack);
    QCOMPARE(picture.pixel(4, 91), kBlack);
    // Vertical lines from GridSpaceX - 1.
    QCOMPARE(picture.pixel(9, 45), kGridGreen);
    QCOMPARE(picture.pixel(199, 45), kGridGreen);
    QCOMPARE(picture.pixel(10, 45), kBlack);
    QCOMPARE(picture.pixel(8, 45), kBlack);
  }

  void theNewestSampleSitsOnTheRightEdgeAtItsHeight() {
    auto widget = chart();
    QVERIFY(widget);
    QVERIFY(widget->setValue(50, 20));
    QImage picture = widget->picTrend();
    QCOMPARE(picture.pixel(199, 50), kYellow);  // 100 - 50
    QCOMPARE(picture.pixel(199, 80), kGreen);   // 100 - 20
    // One step to the left both lines start at the initial sample, 0, on the bottom row.
    QCOMPARE(picture.pixel(198, 99), kGreen);
    QCOMPARE(picture.pixel(199, 30), kGridGreen);  // the last vertical grid line
    // The next pair moves the older one a step left.
    QVERIFY(widget->setValue(70, 20));
    picture = widget->picTrend();
    QCOMPARE(picture.pixel(199, 30), kYellow);
    QCOMPARE(picture.pixel(198, 50), kYellow);
    QCOMPARE(picture.pixel(199, 50), kGridGreen);
    // The widget shows the picture inside its border.
    const QImage screen = shown(*widget);
    QCOMPARE(screen.pixel(1 + 199, 1 + 30), kYellow);
    QCOMPARE(screen.pixel(1 + 199, 1 + 80), kGreen);
  }

  void theSecondSeriesIsGreenOverTheFirst() {
    auto widget = chart();
    QVERIFY(widget);
    widget->setValue(40, 40);
    const QImage& picture = widget->picTrend();
    QCOMPARE(picture.pixel(199, 60), kGreen);
    QCOMPARE(picture.pixel(198, 99), kGreen);
    QCOMPARE(pixelsOf(picture, kYellow), 0);  // the first series lies wholly under it
  }

  void aRateOfZeroLiesOnTheBottomRowOverTheGrid() {
    auto widget = chart();
    QVERIFY(widget);
    widget->setValue(0, 100);
    QCOMPARE(widget->picTrend().pixel(199, 99), kYellow);
    QCOMPARE(widget->picTrend().pixel(199, 0), kGreen);  // MaxValue: the top row
  }

  void aValueOutOfRangeRedrawsButDrawsNoNewSample() {
    auto widget = chart();
    QVERIFY(widget);
    widget->setValue(50, 50);
    QVERIFY(!widget->setValue(150, 150));
    // The chart was drawn again, the last sample still on the right edge.
    QCOMPARE(widget->picTrend().pixel(199, 50), kGreen);
    QCOMPARE(widget->view().firstSeries().size(), size_t{2});
  }

  void aResizeRedrawsAtTheNewSize() {
    auto widget = chart();
    QVERIFY(widget);
    widget->setValue(50, 10);
    widget->resize(302, 52);
    QCOMPARE(widget->picTrend().size(), QSize(300, 50));
    // The newest sample on the new right edge, the height on the new scale: 50 - 25.
    QCOMPARE(widget->picTrend().pixel(299, 25), kYellow);
    QCOMPARE(widget->picTrend().pixel(298, 49), kGreen);
  }

  void theMouseOnThePictureIsReported() {
    auto widget = chart();
    QVERIFY(widget);
    QSignalSpy down(widget, &TrendViewWidget::MouseDown);
    QSignalSpy click(widget, &TrendViewWidget::Click);
    QTest::mouseClick(widget, Qt::LeftButton, Qt::ShiftModifier, QPoint(11, 21));
    QCOMPARE(down.count(), 1);
    QCOMPARE(down.at(0).at(0).toInt(), 1);  // left button
    QCOMPARE(down.at(0).at(1).toInt(), 1);  // Shift
    QCOMPARE(down.at(0).at(2).toFloat(), 10.0F);
    QCOMPARE(down.at(0).at(3).toFloat(), 20.0F);
    QCOMPARE(click.count(), 1);
  }

  // A minute and a half of made-up traffic, saved for a person to look at.
  void savesAPictureOfAWholeChart() {
    auto widget = chart();
    QVERIFY(widget);
    widget->resize(302, 122);
    for (int n = 0; n < 180; ++n) {
      const float received = 55 + 35 * std::sin(static_cast<float>(n) / 9.0F);
      const float sent = n % 40 < 20 ? 12 : 30;
      widget->setValue(received, sent);
    }
    const QString path = QStringLiteral(TESSMARK_PICTURE_DIR "/trendview.png");
    QVERIFY(shown(*widget).save(path));
    QVERIFY(!QImage(path).isNull());
  }
};

}  // namespace tessmark

QTEST_MAIN(tessmark::TrendViewWidgetTest)
#include "trend_view_widget_test.moc"
