// Prints the paint cost of the colour and gradient widgets, median and p95 over 500 paints, at
// the screen's pixel ratio (run it with QT_SCALE_FACTOR=2 for high-density screens):
//  - ColorWheel at 200 x 200 and 400 x 400: after a marker move, after a hue change that redoes
//    the square, after a resize;
//  - GradientWidget with 2 and 30 handles while one is dragged;
//  - GradientImgComboBox showing a gradient;
//  - the layout editor's repaint for each live frame with 72 and 300 LEDs.
#include "effects/screensync/panels/ScreenSyncEditScene.h"
#include "effects/screensync/panels/ScreenSyncEditView.h"
#include "ui/widgets/ColorWheel.h"
#include "ui/widgets/ComboBoxDelegate.h"
#include "ui/widgets/GradientImgComboBox.h"
#include "ui/widgets/GradientWidget.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QGraphicsItem>
#include <QGraphicsScene>
#include <QGraphicsView>
#include <QImage>
#include <QPainter>

#include <algorithm>
#include <cstdio>
#include <functional>

namespace {

constexpr int kPaints = 500;

// Runs change, then paints the widget into an image of its size at its pixel ratio; times both.
void measure(const char* what, QWidget& widget, const std::function<void(int)>& change)
{
    const qreal ratio = widget.devicePixelRatioF();
    QImage target(widget.size() * ratio, QImage::Format_ARGB32_Premultiplied);
    target.setDevicePixelRatio(ratio);
    QVector<double> us;
    for (int i = 0; i < kPaints; ++i) {
        QElapsedTimer clock;
        clock.start();
        change(i);
        QPainter painter(&target);
        widget.render(&painter);
        painter.end();
        us.append(clock.nsecsElapsed() / 1000.0);
    }
    std::sort(us.begin(), us.end());
    std::printf("%-52s median %7.0f us, p95 %7.0f us\n", what, us[us.size() / 2], us[int(us.size() * 0.95)]);
}

} // namespace

int main(int argc, char* argv[])
{
    QApplication app(argc, argv);
    std::printf("pixel ratio %.1f, %d paints each\n", app.devicePixelRatio(), kPaints);
    for (int side : {200, 400}) {
        ColorWheel wheel;
        wheel.resize(side, side);
        wheel.show();
        const QByteArray size = QByteArray::number(side);
        measure(QByteArray("ColorWheel " + size + ": marker move (target 2 ms)").constData(), wheel,
                [&](int i) { wheel.setColor(QColor::fromHsv(120, 40 + i % 200, 60 + i % 190)); });
        measure(QByteArray("ColorWheel " + size + ": hue change (target 8 ms)").constData(), wheel,
                [&](int i) { wheel.setColor(QColor::fromHsv(i % 360, 200, 200)); });
        measure(QByteArray("ColorWheel " + size + ": resize").constData(), wheel,
                [&](int i) { wheel.resize(side + i % 2, side + i % 2); });
    }
    for (int handles : {2, 30}) {
        GradientWidget bar;
        bar.resize(330, 40);
        bar.show();
        for (int i = 0; i < handles; ++i) {
            bar.addKeyColor(QColor::fromHsv(i * 360 / handles, 255, 255), (i + 0.5) / handles);
        }
        auto* view = bar.findChild<QGraphicsView*>();
        QGraphicsItem* dragged = nullptr;
        for (QGraphicsItem* item : view->scene()->items()) {
            if (item->flags() & QGraphicsItem::ItemIsMovable) {
                dragged = item;
            }
        }
        const QByteArray name =
            "GradientWidget, " + QByteArray::number(handles) + " handles, one dragged (target 2 ms)";
        measure(name.constData(), bar, [&](int i) { dragged->setX(i % 300); });
    }
    GradientImgComboBox box;
    auto* delegate = new ComboBoxDelegate(&box);
    box.setItemDelegate(delegate);
    box.addItem(QStringLiteral("Sunset"));
    delegate->appendGradient(
        {{0.0, QColor(255, 40, 20)}, {0.5, QColor(255, 220, 80)}, {1.0, QColor(200, 30, 120)}});
    box.resize(350, 30);
    box.show();
    measure("GradientImgComboBox (target 2 ms)", box, [](int) {});

    for (int leds : {72, 300}) {
        ScreenSyncEditView view;
        view.resize(712, 420);
        view.show();
        view.setSceneSize(QSize(120, 67));
        QVector<QPoint> points;
        for (int i = 0; i < leds; ++i) {
            // Around the edges, as the model maps place them.
            const int k = i * 370 / leds;
            points.append(k < 120   ? QPoint(k, 2)
                          : k < 185 ? QPoint(117, k - 120)
                          : k < 305 ? QPoint(304 - k, 64)
                                    : QPoint(2, 369 - k));
        }
        view.editScene()->setLEDs(points);
        QImage frame(120, 67, QImage::Format_RGBA8888);
        const QByteArray name =
            "Layout editor, " + QByteArray::number(leds) + " LEDs, per live frame (target 4 ms)";
        measure(name.constData(), view, [&](int i) {
            frame.fill(QColor::fromHsv(i % 360, 200, 200));
            view.setFrame(frame);
        });
    }
    return 0;
}
