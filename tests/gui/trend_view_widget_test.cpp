// The trend chart widget drawn offscreen: its picture's pixels, its size, and the mouse.

#include <QImage>
#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <memory>

#include "widgets/trend_view_widget.h"

namespace tessmark {

class TrendViewWidgetTest : public QObject {
  Q_OBJECT

  // The colours at x, y pairs, a letter each: k black, g grid, y yellow, G green, ? another.
  static QString at(const QImage& picture, std::initializer_list<int> xy) {
    const QRgb colors[] = {qRgb(0, 0, 0), qRgb(0, 128, 0), qRgb(255, 255, 0), qRgb(0, 255, 0)};
    QString letters;
    for (auto p = xy.begin(); p + 1 < xy.end(); p += 2)
      letters += "kgyG?"[std::find(colors, colors + 4, picture.pixel(p[0], p[1])) - colors];
    return letters;
  }

 private slots:
  // Where lines land is the data side's; here: edges, colours, the border, sizes, the mouse.
  void drawsItsPictureInsideItsBorderAndReportsTheMouse() {
    // The main window's chart, yellow on black, with 200 x 100 pixels inside a 1-pixel border.
    std::unique_ptr<TrendViewWidget> widget(MakeTrendView1());
    widget->resize(202, 102);
    widget->show();
    QVERIFY(QTest::qWaitForWindowExposed(widget.get()));
    QCOMPARE(widget->picTrend().size(), QSize(200, 100));
    QVERIFY(widget->setValue(50, 90));
    QVERIFY(widget->setValue(0, 100));
    // 50 halfway up; 0 on the bottom row over the grid, MaxValue on the top row; the bottom
    // grid line, the background, the first vertical grid line at GridSpaceX - 1.
    QCOMPARE(at(widget->picTrend(), {198, 50, 199, 99, 199, 0, 4, 99, 4, 95, 9, 45, 8, 45}),
             "yyGgkgk");
    QImage screen(widget->size(), QImage::Format_RGB32);
    widget->render(&screen);
    QCOMPARE(at(screen, {1 + 198, 1 + 50, 1 + 199, 1 + 0}), "yG");
    // The left button (1) with Shift (1), at the picture's own pixels inside the border.
    QSignalSpy down(widget.get(), &TrendViewWidget::MouseDown);
    QSignalSpy click(widget.get(), &TrendViewWidget::Click);
    QTest::mouseClick(widget.get(), Qt::LeftButton, Qt::ShiftModifier, QPoint(11, 21));
    QCOMPARE(down.count(), 1);
    QCOMPARE(down.at(0), (QVariantList{1, 1, 10.0F, 20.0F}));
    QCOMPARE(click.count(), 1);
    // A resize redraws at the new size, on the new scale.
    widget->resize(302, 52);
    QCOMPARE(widget->picTrend().size(), QSize(300, 50));
    QCOMPARE(at(widget->picTrend(), {298, 25, 299, 49, 299, 0}), "yyG");
    // Without a border the picture is the whole control.
    widget->setBorderStyle(0);
    QCOMPARE(widget->picTrend().size(), QSize(302, 52));
    QCOMPARE(widget->view().innerWidth(), 302.0F);
  }
};

}  // namespace tessmark

QTEST_MAIN(tessmark::TrendViewWidgetTest)
#include "trend_view_widget_test.moc"
