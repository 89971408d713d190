#include "ui/widgets/ColorWheel.h"
#include "ui/widgets/ComboBoxDelegate.h"
#include "ui/widgets/GradientImgComboBox.h"
#include "ui/widgets/GradientWidget.h"

#include <QtTest>
#include <QtWidgets>

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
            dialog->setCurrentColor(colour);
            colour.isValid() ? dialog->accept() : dialog->reject();
        }
    });
    poll->start(10);
}

// Opens the context menu of the handle at x and returns its entries' texts, choosing `entry`.
QStringList handleMenu(QGraphicsView* view, int x, int entry)
{
    QStringList texts;
    QTimer::singleShot(50, [&] {
        if (auto* menu = qobject_cast<QMenu*>(QApplication::activePopupWidget())) {
            for (QAction* a : menu->actions()) {
                texts << a->text();
            }
            menu->setActiveAction(menu->actions().value(entry));
            QTest::keyClick(menu, Qt::Key_Return);
        }
    });
    QContextMenuEvent event(QContextMenuEvent::Mouse, QPoint(x, 10),
                            view->viewport()->mapToGlobal(QPoint(x, 10)));
    QApplication::sendEvent(view->viewport(), &event);
    return texts;
}

// The box with the rectangle its gradient fills.
struct Box : GradientImgComboBox
{
    QRect field()
    {
        QStyleOptionComboBox option;
        initStyleOption(&option);
        return style()->subControlRect(QStyle::CC_ComboBox, &option, QStyle::SC_ComboBoxEditField, this);
    }
};
} // namespace

class TestColorWidgets : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { qRegisterMetaType<Stops>("QList<QGradientStop>"); }

    // A 200 x 200 wheel: ring between radii 80 and 100 about (100, 100); square 113 wide at 43. At
    // 300 x 200 the same, 50 to the right. Hues by hand from the formulas, with 3.14 for pi; the
    // square's values are kept; the hole does nothing.
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
        QCOMPARE(wheel.color().saturation(), 255);
        QCOMPARE(changed.count(), hue ? 1 : 0);
        // The centre of the square: saturation and value 57/113.
        mouse(&wheel, QEvent::MouseButtonPress, QPoint(size.width() / 2, 100));
        QVERIFY(qAbs(wheel.color().saturationF() - 57.0 / 113) < 0.005);
        QVERIFY(qAbs(wheel.color().valueF() - 57.0 / 113) < 0.005);
    }

    // A drag counts only inside the part where it began; released, moves do nothing.
    void dragsStayInTheirPart()
    {
        ColorWheel wheel;
        wheel.resize(200, 200);
        wheel.show();
        mouse(&wheel, QEvent::MouseButtonPress, QPoint(43, 43)); // top left: black
        QCOMPARE(wheel.color(), QColor::fromHsv(0, 0, 0));
        mouse(&wheel, QEvent::MouseMove, QPoint(99, 155)); // right half-way, value at the foot
        const QColor inSquare = wheel.color();
        QVERIFY(qAbs(inSquare.saturationF() - 56.0 / 113) < 0.01 &&
                qAbs(inSquare.valueF() - 112.0 / 113) < 0.01);
        mouse(&wheel, QEvent::MouseMove, QPoint(190, 100));
        QCOMPARE(wheel.color(), inSquare);
        mouse(&wheel, QEvent::MouseButtonRelease, QPoint(190, 100), Qt::NoButton);
        // From the ring into the square: the hue moves no further.
        mouse(&wheel, QEvent::MouseButtonPress, QPoint(100, 10));
        mouse(&wheel, QEvent::MouseMove, QPoint(60, 60));
        QCOMPARE(wheel.color(), QColor::fromHsv(90, inSquare.saturation(), inSquare.value()));
        mouse(&wheel, QEvent::MouseButtonRelease, QPoint(60, 60), Qt::NoButton);
        mouse(&wheel, QEvent::MouseMove, QPoint(10, 100), Qt::NoButton);
        QCOMPARE(wheel.color().hue(), 90);
    }

    // setColor emits once per part that changed and once more, on a shown wheel; a hidden one
    // emits the last only. The ring marker is drawn black on light hues, 21 to 199, else white.
    void setColor_data()
    {
        QTest::addColumn<QColor>("colour");
        QTest::addColumn<bool>("visible");
        QTest::addColumn<int>("emissions");
        QTest::addColumn<QString>("pen");
        QTest::newRow("same colour") << QColor::fromHsv(0, 255, 255) << true << 0 << "white";
        QTest::newRow("hue 20") << QColor::fromHsv(20, 255, 255) << true << 2 << "white";
        QTest::newRow("hue 21") << QColor::fromHsv(21, 255, 255) << true << 2 << "black";
        QTest::newRow("hue 199") << QColor::fromHsv(199, 255, 255) << true << 2 << "black";
        QTest::newRow("hue 200") << QColor::fromHsv(200, 255, 255) << true << 2 << "white";
        QTest::newRow("saturation") << QColor::fromHsv(0, 100, 255) << true << 2 << "";
        QTest::newRow("all three") << QColor::fromHsv(120, 100, 50) << true << 3 << "";
        QTest::newRow("hidden: the last only") << QColor::fromHsv(120, 100, 50) << false << 1 << "";
    }
    void setColor()
    {
        QFETCH(QColor, colour);
        QFETCH(bool, visible);
        QFETCH(int, emissions);
        QFETCH(QString, pen);
        ColorWheel wheel;
        wheel.resize(200, 200);
        wheel.setVisible(visible);
        QSignalSpy changed(&wheel, &ColorWheel::colorChanged);
        wheel.setColor(colour);
        QCOMPARE(changed.count(), emissions);
        QCOMPARE(wheel.color().hue(), colour.hue());
        QCOMPARE(wheel.color().value(), colour.value());
        // On the marker's circle, right of its centre on the ring's middle line.
        const double a = qDegreesToRadians(double(colour.hue()));
        const QPoint onPen(qRound(100 + 90 * std::cos(a) + 5), qRound(100 - 90 * std::sin(a)));
        const QColor drawn = wheel.grab().toImage().pixelColor(onPen * wheel.devicePixelRatioF());
        QVERIFY2(pen.isEmpty() || (pen == "black" ? drawn.lightness() < 60 : drawn.lightness() > 200),
                 qPrintable(drawn.name()));
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
        QTRY_VERIFY(!QApplication::activePopupWidget());
        QCOMPARE(handleMenu(view, 224, 1).size(), 2);
        QTRY_COMPARE(bar.colors().size(), 4);
        QCOMPARE(changed.last().at(0).value<Stops>(), bar.colors());
        // Two keys at one place stay two; replacing the keys says nothing.
        bar.addKeyColor(Qt::cyan, 0.5);
        bar.addKeyColor(Qt::magenta, 0.5);
        QCOMPARE(bar.colors().size(), 6);
        const int before = changed.count();
        bar.setKeyColors({{0.5, QColor(Qt::yellow)}});
        QCOMPARE(changed.count(), before);
        QCOMPARE(bar.colors(), (Stops{{0.0, white}, {0.5, QColor(Qt::yellow)}, {1.0, white}}));
    }

    // The closed box shows its row's gradient across the field: at a fraction p, the colour
    // interpolated by hand.
    void gradientBox()
    {
        Box box;
        auto* delegate = new ComboBoxDelegate(&box);
        box.setItemDelegate(delegate);
        box.addItem(QString());
        delegate->appendGradient({{0.0, QColor(255, 0, 0)}, {1.0, QColor(0, 0, 255)}});
        box.resize(220, 30);
        box.show();
        const QRect field = box.field();
        const QImage shot = box.grab().toImage();
        for (double p : {0.25, 0.75}) {
            const QPoint at(field.left() + qRound(p * (field.width() - 1)), field.center().y());
            const QColor shown = shot.pixelColor(at * box.devicePixelRatioF());
            QVERIFY2(qAbs(shown.red() - 255 * (1 - p)) <= 2 && shown.green() <= 2 &&
                         qAbs(shown.blue() - 255 * p) <= 2,
                     qPrintable(shown.name()));
        }
    }
};

QTEST_MAIN(TestColorWidgets)
#include "tst_ColorWidgets.moc"
