#include "effects/music/MusicMode3.h"

#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QTimer>

#include <algorithm>

MusicMode3::MusicMode3(const EffectWorkerOptions& options, QObject* parent)
    : MusicMode1(options, parent)
{
}

MusicMode3::~MusicMode3() = default;

int32_t MusicMode3::load(const ControlOptions& ctlOptions)
{
    MusicMode1::load(ctlOptions);
    setupGradients();
    return 0;
}

void MusicMode3::unload()
{
    MusicMode1::unload();
}

QVector<OV_RGB> MusicMode3::paintRow(const QGradientStops& stops)
{
    QImage image(kRowWidth, 1, QImage::Format_RGB888);
    QLinearGradient gradient(0, 0, kRowWidth, 0);
    for (const QGradientStop& stop : stops) {
        gradient.setColorAt(stop.first, stop.second);
    }
    {
        QPainter painter(&image);
        painter.fillRect(image.rect(), gradient);
    }
    QVector<OV_RGB> row(kRowWidth);
    const uchar* px = image.constScanLine(0);
    for (int x = 0; x < kRowWidth; ++x) {
        row[x] = OV_RGB{px[3 * x], px[3 * x + 1], px[3 * x + 2]};
    }
    return row;
}

void MusicMode3::setupGradients()
{
    const QGradientStops stops{{0.0, QColor::fromRgba(0xFF0000FF)}, {1.0, QColor::fromRgba(0xFFFF0000)}};
    // A first picture on the strip before any sound arrives.
    QTimer::singleShot(10, Qt::PreciseTimer, this, &MusicMode3::onRefreshTimerTriggered);
    const QVector<OV_RGB> row = paintRow(stops);
    for (auto it = fragments.constBegin(); it != fragments.constEnd(); ++it) {
        peaks[it.key()] = PeakFollower();
        gradients[it.key()] = stops;
        rows[it.key()] = row;
    }
}

QVector<OV_RGB> MusicMode3::barColors(const QString& name, Fragment& fragment, double value)
{
    QVector<OV_RGB> result(std::max(0, fragment.endIndex - fragment.beginIndex));
    auto row = rows.find(name);
    if (row == rows.end()) {
        row = rows.insert(name, paintRow(gradients[name]));
    }
    double p = peaks[name].update(value);
    p = std::clamp(p, 0.0, 79.999999);
    const int x = static_cast<int>(kRowWidth * p / 80.0);
    std::fill(result.begin(), result.end(), row->at(x));
    return result;
}

void MusicMode3::onRefreshTimerTriggered()
{
    guard.run([this] {
        QVector<OV_RGB> flat;
        for (auto it = fragments.begin(); it != fragments.end(); ++it) {
            flat += barColors(it.key(), it.value(), 0.0);
        }
        flat.resize(static_cast<int>(controlOptions.nbLeds));
        emit updateColors(flat);
    });
}
