#include "StripView.h"

#include "VirtualLedDevice.h"

#include <QPainter>
#include <QPainterPath>
#include <QTimer>

#include <cmath>

namespace {

const QColor kBackground(0x17, 0x18, 0x1d);
const QColor kPanel(0x22, 0x24, 0x2b);
const QColor kText(0xc9, 0xcc, 0xd6);
const QColor kDimText(0x7d, 0x81, 0x8f);
constexpr int kMargin = 18;
constexpr int kHeaderHeight = 44;
constexpr int kGap = 4;
constexpr int kMinCell = 10;
constexpr int kMaxCell = 42;

} // namespace

StripView::StripView(VirtualLedDevice* device, int displayLeds, QWidget* parent)
    : QWidget(parent)
    , device(device)
    , displayLeds(displayLeds)
{
    setAutoFillBackground(false);
    setAttribute(Qt::WA_OpaquePaintEvent);
    setMinimumSize(360, 140);
    // Frames may arrive far faster than the screen refreshes: one repaint per event-loop turn.
    connect(device, &VirtualLedDevice::frameReceived, this, [this] {
        if (!repaintQueued) {
            repaintQueued = true;
            QTimer::singleShot(15, this, [this] {
                repaintQueued = false;
                update();
            });
        }
    });
    auto* statsTimer = new QTimer(this);
    connect(statsTimer, &QTimer::timeout, this, qOverload<>(&QWidget::update));
    statsTimer->start(1000);
}

QSize StripView::sizeHint() const
{
    return QSize(960, 220);
}

int StripView::ledCount() const
{
    if (displayLeds > 0) {
        return displayLeds;
    }
    return device->lastCount();
}

void StripView::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.fillRect(rect(), kBackground);

    const QString title = device->slavePath().isEmpty() ? QStringLiteral("not open") : device->slavePath();
    QFont titleFont = font();
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.15);
    titleFont.setBold(true);
    p.setFont(titleFont);
    p.setPen(kText);
    const QRect header(kMargin, 0, width() - 2 * kMargin, kHeaderHeight);
    p.drawText(header, Qt::AlignLeft | Qt::AlignVCenter, title);
    p.setFont(font());
    p.setPen(kDimText);
    const QString stats = QStringLiteral("%1 frames   %2 fps   %3 errors   %4 LEDs")
                              .arg(device->frameCount())
                              .arg(device->frameRate(), 0, 'f', 0)
                              .arg(device->decodeErrors())
                              .arg(device->lastCount());
    p.drawText(header, Qt::AlignRight | Qt::AlignVCenter, stats);

    const QRectF panel(kMargin, kHeaderHeight, width() - 2 * kMargin, height() - kHeaderHeight - kMargin);
    p.setPen(Qt::NoPen);
    p.setBrush(kPanel);
    p.drawRoundedRect(panel, 10, 10);

    const int n = ledCount();
    const QRectF area = panel.adjusted(14, 14, -14, -14);
    if (n <= 0 || area.width() < kMinCell || area.height() < kMinCell) {
        p.setPen(kDimText);
        p.drawText(panel, Qt::AlignCenter, QStringLiteral("waiting for frames"));
        return;
    }

    // The largest square that lets all LEDs fit, in as few rows as possible.
    int cell = kMaxCell;
    int perRow = 1;
    int rows = 1;
    for (; cell >= kMinCell; --cell) {
        perRow = qMax(1, int((area.width() + kGap) / (cell + kGap)));
        rows = (n + perRow - 1) / perRow;
        if (rows * (cell + kGap) - kGap <= area.height()) {
            break;
        }
    }
    cell = qMax(cell, kMinCell);
    const int usedPerRow = qMin(perRow, n);
    const double gridW = usedPerRow * (cell + kGap) - kGap;
    const double gridH = rows * (cell + kGap) - kGap;
    const QPointF origin(area.left() + (area.width() - gridW) / 2,
                         area.top() + qMax(0.0, (area.height() - gridH) / 2));

    const QVector<VirtualLedDevice::Rgb> colors = device->lastColors();
    const double radius = cell * 0.22;
    for (int i = 0; i < n; ++i) {
        const int row = i / perRow;
        const int col = i % perRow;
        const QRectF r(origin.x() + col * (cell + kGap), origin.y() + row * (cell + kGap), cell, cell);
        if (r.top() > area.bottom()) {
            break; // more LEDs than fit even at the smallest size
        }
        QColor c(0, 0, 0);
        if (i < colors.size()) {
            c = QColor(colors[i].r, colors[i].g, colors[i].b);
        }
        p.setBrush(c);
        p.setPen(QPen(QColor(255, 255, 255, c.value() < 40 ? 34 : 18), 1));
        p.drawRoundedRect(r, radius, radius);
    }
}
