#include "ColorWheel.h"
#include "ComboBoxDelegate.h"
#include "GradientHandler.h"
#include "GradientImgComboBox.h"
#include "GradientWidget.h"

#include <QApplication>
#include <QColorDialog>
#include <QContextMenuEvent>
#include <QDir>
#include <QGraphicsView>
#include <QMenu>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <cmath>

namespace {

using Stops = QList<QGradientStop>;

void mouse(QWidget* target, QEvent::Type type, const QPoint& pos, Qt::MouseButtons held = Qt::LeftButton)
{
    QMouseEvent event(type, pos, target->mapToGlobal(pos),
                      type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton, held, Qt::NoModifier);
    QApplication::sendEvent(target, &event);
}

// Answers the next modal colour dialog with colour (or cancels it with an invalid one).
void answerColourDialog(const QColor& colour)
{
    auto* poll = new QTimer;
    QObject::connect(poll, &QTimer::timeout, poll, [poll, colour] {
        if (auto* dialog = qobject_cast<QColorDialog*>(QApplication::activeModalWidget())) {
            poll->deleteLater();
            if (colour.isValid()) {
                dialog->setCurrentColor(colour);
                dialog->accept();
            } else {
                dialog->reject();
            }
        }
    });
    poll->start(10);
}

// Opens the context menu of the handle at x and returns its entries' texts, choosing `entry`.
QStringList handleMenu(QGraphicsView* view, int x, int entry)
{
    QStringList texts;
    QTimer::singleShot(50, [&] {
        auto* menu = qobject_cast<QMenu*>(QApplication::activePopupWidget());
        if (!menu) {
            return;
        }
        for (QAction* a : menu->actions()) {
            texts << a->text();
        }
        menu->setActiveAction(menu->actions().value(entry));
        QTest::keyClick(menu, Qt::Key_Return);
    });
    QContextMenuEvent event(QContextMenuEvent::Mouse, QPoint(x, 10),
                            view->viewport()->mapToGlobal(QPoint(x, 10)));
    QApplication::sendEvent(view->viewport(), &event);
    return texts;
}

} // namespace

class TestColorWidgets : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { qRegisterMetaType<Stops>("QList<QGradientStop>"); }

    // A 200 x 200 wheel: ring between radii 80 and 100 about (100, 100); square 113 wide at 43.
    // At 300 x 200 the same, 50 to the right.
    void ringGivesHue_data()
    {
        QTest::addColumn<QSize>("size");
        QTest::addColumn<QPoint>("at");
        QTest::addColumn<int>("hue");
        // With 3.14 for pi, the right end comes out past 360 and is bounded to 359.
        QTest::newRow("right") << QSize(200, 200) << QPoint(190, 100) << 359;
        QTest::newRow("top") << QSize(200, 200) << QPoint(100, 10) << 90;
        QTest::newRow("left: 179.95, not 180") << QSize(200, 200) << QPoint(10, 100) << 179;
        QTest::newRow("bottom") << QSize(200, 200) << QPoint(100, 190) << 270;
        QTest::newRow("upper right") << QSize(200, 200) << QPoint(164, 36) << 44;
        QTest::newRow("wide: top") << QSize(300, 200) << QPoint(150, 5) << 90;
        QTest::newRow("the hole") << QSize(200, 200) << QPoint(100, 28) << 0;
    }
    void ringGivesHue()
    {
        QFETCH(QSize, size);
        QFETCH(QPoint, at);
        QFETCH(int, hue);
        ColorWheel wheel;
        wheel.resize(size);
        wheel.show();
        QSignalSpy changed(&wheel, &ColorWheel::colorChanged);
        mouse(&wheel, QEvent::MouseButtonPress, at);
        QCOMPARE(wheel.color().hue(), hue);
        QCOMPARE(wheel.color().saturation(), 255); // the square's values are kept
        QCOMPARE(changed.count(), hue ? 1 : 0);
        if (size.width() == 300) {
            // The centre of the square: saturation and value 57/113.
            mouse(&wheel, QEvent::MouseButtonPress, QPoint(150, 100));
            QVERIFY(qAbs(wheel.color().saturationF() - 57.0 / 113) < 0.005);
            QVERIFY(qAbs(wheel.color().valueF() - 57.0 / 113) < 0.005);
        }
    }

    // The ring marker is drawn black on light hues, 21 to 199, and white on the rest.
    void markerPen_data()
    {
        QTest::addColumn<int>("hue");
        QTest::addColumn<bool>("black");
        QTest::newRow("20") << 20 << false;
        QTest::newRow("21") << 21 << true;
        QTest::newRow("199") << 199 << true;
        QTest::newRow("200") << 200 << false;
    }
    void markerPen()
    {
        QFETCH(int, hue);
        QFETCH(bool, black);
        ColorWheel wheel;
        wheel.resize(200, 200);
        wheel.show();
        wheel.setColor(QColor::fromHsv(hue, 255, 255));
        const QImage shot = wheel.grab().toImage();
        // On the marker's circle, right of its centre on the ring's middle line.
        const double a = qDegreesToRadians(double(hue));
        const QPoint onPen(qRound(100 + 90 * std::cos(a) + 5), qRound(100 - 90 * std::sin(a)));
        const QColor pen = shot.pixelColor(onPen * wheel.devicePixelRatioF());
        QVERIFY2(black ? pen.lightness() < 60 : pen.lightness() > 200, qPrintable(pen.name()));
    }

    void squareAndDrags()
    {
        ColorWheel wheel;
        wheel.resize(200, 200);
        wheel.show();
        mouse(&wheel, QEvent::MouseButtonPress, QPoint(43, 43)); // top left: black
        QCOMPARE(wheel.color(), QColor::fromHsv(0, 0, 0));
        mouse(&wheel, QEvent::MouseMove, QPoint(99, 155)); // right half-way, value at the foot
        QVERIFY(qAbs(wheel.color().saturationF() - 56.0 / 113) < 0.01);
        QVERIFY(qAbs(wheel.color().valueF() - 112.0 / 113) < 0.01);
        // Out onto the ring, the drag is ignored; back in the square it counts again.
        const QColor inSquare = wheel.color();
        mouse(&wheel, QEvent::MouseMove, QPoint(190, 100));
        QCOMPARE(wheel.color(), inSquare);
        mouse(&wheel, QEvent::MouseMove, QPoint(60, 60));
        QVERIFY(wheel.color() != inSquare);
        mouse(&wheel, QEvent::MouseButtonRelease, QPoint(60, 60), Qt::NoButton);
        // A press outside both parts changes nothing; released, moves do nothing.
        const QColor kept = wheel.color();
        mouse(&wheel, QEvent::MouseButtonPress, QPoint(2, 2));
        mouse(&wheel, QEvent::MouseButtonRelease, QPoint(2, 2), Qt::NoButton);
        mouse(&wheel, QEvent::MouseMove, QPoint(100, 10), Qt::NoButton);
        QCOMPARE(wheel.color(), kept);
    }

    void setColorEmits_data()
    {
        QTest::addColumn<QColor>("colour");
        QTest::addColumn<bool>("visible");
        QTest::addColumn<int>("emissions");
        QTest::newRow("same colour") << QColor::fromHsv(0, 255, 255) << true << 0;
        QTest::newRow("hue") << QColor::fromHsv(120, 255, 255) << true << 2;
        QTest::newRow("saturation") << QColor::fromHsv(0, 100, 255) << true << 2;
        QTest::newRow("all three") << QColor::fromHsv(120, 100, 50) << true << 3;
        QTest::newRow("hidden: the last only") << QColor::fromHsv(120, 100, 50) << false << 1;
    }
    void setColorEmits()
    {
        QFETCH(QColor, colour);
        QFETCH(bool, visible);
        QFETCH(int, emissions);
        ColorWheel wheel;
        wheel.resize(200, 200);
        wheel.setVisible(visible);
        QSignalSpy changed(&wheel, &ColorWheel::colorChanged);
        wheel.setColor(colour);
        QCOMPARE(changed.count(), emissions);
        QCOMPARE(wheel.color().hue(), colour.hue());
        QCOMPARE(wheel.color().value(), colour.value());
    }

    void gradientKeys()
    {
        GradientWidget bar;
        bar.resize(320, 40);
        bar.show();
        QVERIFY(QTest::qWaitForWindowExposed(&bar));
        auto* view = bar.findChild<QGraphicsView*>();
        QSignalSpy changed(&bar, &GradientWidget::keyColorChanged);

        bar.addKeyColor(Qt::red, 0.7);
        bar.addKeyColor(Qt::blue, 0.2);
        const QColor white(Qt::white);
        QCOMPARE(changed.last().at(0).value<Stops>(),
                 (Stops{{0.0, white}, {0.2, QColor(Qt::blue)}, {0.7, QColor(Qt::red)}, {1.0, white}}));

        // Dragged far right, the blue key stops at the end and moves behind the red one.
        mouse(view->viewport(), QEvent::MouseButtonPress, QPoint(64, 10));
        mouse(view->viewport(), QEvent::MouseMove, QPoint(2000, 40));
        mouse(view->viewport(), QEvent::MouseButtonRelease, QPoint(2000, 40), Qt::NoButton);
        QCOMPARE(bar.colors().at(2), (QGradientStop{1.0, QColor(Qt::blue)}));
        QCOMPARE(bar.colors().at(1).second, QColor(Qt::red));

        // A click on an empty stretch asks for a colour and puts a key there; a cancel adds none.
        answerColourDialog(Qt::green);
        mouse(&bar, QEvent::MouseButtonPress, QPoint(80, 30));
        QCOMPARE(bar.colors().at(1), (QGradientStop{0.25, QColor(Qt::green)}));
        answerColourDialog(QColor());
        mouse(&bar, QEvent::MouseButtonPress, QPoint(100, 30));
        QCOMPARE(bar.colors().size(), 5);

        // The ends offer only a change of colour; a key may be deleted.
        QCOMPARE(handleMenu(view, 2, 0).size(), 1);
        QTest::qWait(100);
        QCOMPARE(handleMenu(view, 224, 1).size(), 2);
        QTRY_COMPARE(bar.colors().size(), 4);
        QCOMPARE(changed.last().at(0).value<Stops>(), bar.colors());

        // Two keys at one place stay two.
        bar.addKeyColor(Qt::cyan, 0.5);
        bar.addKeyColor(Qt::magenta, 0.5);
        QCOMPARE(bar.colors().size(), 6);

        // Replacing the keys says nothing.
        const int before = changed.count();
        bar.setKeyColors({{0.5, QColor(Qt::yellow)}});
        QCOMPARE(changed.count(), before);
        QCOMPARE(bar.colors(), (Stops{{0.0, white}, {0.5, QColor(Qt::yellow)}, {1.0, white}}));
    }

    // For a person to look at: a wheel, a gradient box and its bar, in the build folder.
    void screenshot()
    {
        QWidget panel;
        panel.resize(460, 220);
        panel.setStyleSheet("background: rgb(34, 34, 34);");
        auto* wheel = new ColorWheel(&panel);
        wheel->setGeometry(10, 10, 200, 200);
        wheel->setColor(QColor::fromHsv(200, 180, 230));
        auto* box = new GradientImgComboBox(&panel);
        auto* delegate = new ComboBoxDelegate(box);
        box->setItemDelegate(delegate);
        box->addItem("Sunset");
        delegate->appendGradient(
            {{0.0, QColor(255, 40, 20)}, {0.5, QColor(255, 220, 80)}, {1.0, QColor(200, 30, 120)}});
        box->setGeometry(230, 60, 220, 30);
        auto* bar = new GradientWidget(&panel);
        bar->setGeometry(230, 100, 220, 40);
        bar->setKeyColors({{0.3, QColor(255, 140, 0)}, {0.75, QColor(200, 30, 120)}});
        panel.show();
        QVERIFY(QTest::qWaitForWindowExposed(&panel));
        const QImage shot = panel.grab().toImage();
        QVERIFY(QDir().mkpath("screenshots"));
        QVERIFY(shot.save(QString("screenshots/colour_widgets@%1x.png").arg(panel.devicePixelRatioF())));
        // The closed box shows its gradient: red at the left, purple at the right.
        const QImage face = box->grab().toImage();
        const qreal r = box->devicePixelRatioF();
        QVERIFY(face.pixelColor(QPoint(6, 15) * r).red() > 200);
        QVERIFY(face.pixelColor(QPoint(180, 15) * r).blue() > 80);
    }
};

QTEST_MAIN(TestColorWidgets)
#include "tst_ColorWidgets.moc"
