#pragma once

#include "ScreenPainter.h"

#include <QColor>
#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPoint>
#include <QSize>
#include <QString>
#include <QVector>

#include <cmath>
#include <optional>

// Where each LED of a screen mode looks, worked out from the modes' geometry, independently of
// the pipeline: the oracle of the screen suites.
namespace ScreenRig {

inline const QString fullId = QStringLiteral("com.orvanta.screenSync.fullScreen");
inline const QString cinemaId = QStringLiteral("com.orvanta.screenSync.cinemaScreen");
inline const QString topId = QStringLiteral("com.orvanta.screenSync.topHalfScreen");
inline const QString bottomId = QStringLiteral("com.orvanta.screenSync.bottomHalfScreen");
inline const QString leftId = QStringLiteral("com.orvanta.screenSync.leftHalfScreen");
inline const QString rightId = QStringLiteral("com.orvanta.screenSync.rightHalfScreen");

// The source pixel that Qt's fast (nearest) scaling from `from` to `to` pixels shows at target.
inline int pick(int target, int from, int to)
{
    QImage line(from, 1, QImage::Format_RGB32);
    for (int x = 0; x < from; ++x) {
        line.setPixel(x, 0, qRgb(x & 0xff, x >> 8, 0));
    }
    const QRgb p = line.scaled(to, 1, Qt::IgnoreAspectRatio, Qt::FastTransformation).pixel(target, 0);
    return qRed(p) | qGreen(p) << 8;
}

// The model's default map, as the script wrote it.
inline QVector<QPoint> modelMap(const QString& path)
{
    QFile file(path);
    QVector<QPoint> points;
    if (!file.open(QIODevice::ReadOnly)) {
        return points;
    }
    for (const QJsonValue& v : QJsonDocument::fromJson(file.readAll()).object().value("ledMap").toArray()) {
        const QJsonObject e = v.toObject();
        points.resize(std::max(points.size(), e.value("id").toInt()));
        points[e.value("id").toInt() - 1] = QPoint(e.value("x").toInt(), e.value("y").toInt());
    }
    return points;
}

// The frame pixel (in the frame as delivered, before mirroring) each LED reads.
inline QVector<QPoint> readPoints(const QString& effect, int n, const QSize& frame, int dir,
                                  const QVector<QPoint>& map = {}, const QSize& screen = QSize(120, 67))
{
    const int w = frame.width();
    const int h = frame.height();
    QVector<QPoint> points;
    for (int k = 0; k < n; ++k) {
        QPoint p;
        if (effect == topId) {
            p = QPoint(pick(k, w, n), pick(0, h / 5, 1));
        } else if (effect == bottomId) {
            p = QPoint(pick(k, w, n), (h / 5) * 4 + pick(0, h / 5, 1));
        } else if (effect == leftId) {
            p = QPoint(pick(0, w / 5, 1), pick(n - 1 - k, h, n));
        } else if (effect == rightId) {
            p = QPoint((w / 5) * 4 + pick(0, w / 5, 1), pick(k, h, n));
        } else if (effect == fullId) {
            p = QPoint(pick(map[k].x(), w, screen.width()), pick(map[k].y(), h, screen.height()));
        } else if (effect == cinemaId) {
            const int cw = int(w * 0.8);
            const int ch = int(h * 0.8);
            const int cx = (w - 1) / 2 - cw / 2;
            const int cy = (h - 1) / 2 - ch / 2;
            const int sh = int(ch * 120.0 / cw); // scaledToWidth(120)
            const int x120 = pick(map[k].x(), 120, screen.width());
            const int y120 = pick(map[k].y(), sh, screen.height());
            p = QPoint(cx + pick(x120, cw, 120), cy + pick(y120, ch, sh));
        }
        if (dir == 1) {
            p.setX(w - 1 - p.x());
        }
        points.append(p);
    }
    return points;
}

// The colour of picture A on a screen of size under frame pixel p of a frame of frameSize, or
// nothing when a colour edge lies within two frame pixels.
inline std::optional<QColor> expectedA(const QSize& screenSize, const QSize& frameSize, const QPoint& p)
{
    const double sx = double(screenSize.width()) / frameSize.width();
    const double sy = double(screenSize.height()) / frameSize.height();
    auto at = [&](int fx, int fy) {
        return ScreenPainter::colourA(screenSize, int((qBound(0, fx, frameSize.width() - 1) + 0.5) * sx),
                                      int((qBound(0, fy, frameSize.height() - 1) + 0.5) * sy));
    };
    const QColor here = at(p.x(), p.y());
    for (int dy = -2; dy <= 2; ++dy) {
        for (int dx = -2; dx <= 2; ++dx) {
            if (at(p.x() + dx, p.y() + dy) != here) {
                return std::nullopt;
            }
        }
    }
    return here;
}

inline bool near(const QColor& a, int r, int g, int b, int tolerance = 4)
{
    return qAbs(a.red() - r) <= tolerance && qAbs(a.green() - g) <= tolerance &&
           qAbs(a.blue() - b) <= tolerance;
}

// LEDs (anything with r, g, b) that picture A's judged points show wrong; -1 for a short strip.
template <typename Leds>
int mismatchesA(const Leds& leds, const QVector<QPoint>& points, const QSize& screenSize,
                int* judged = nullptr)
{
    if (leds.size() < points.size()) {
        return -1;
    }
    int bad = 0;
    int seen = 0;
    for (int k = 0; k < points.size(); ++k) {
        if (const auto expected = expectedA(screenSize, QSize(120, 67), points[k])) {
            ++seen;
            bad += near(*expected, leds[k].r, leds[k].g, leds[k].b) ? 0 : 1;
        }
    }
    if (judged) {
        *judged = seen;
    }
    return bad;
}

} // namespace ScreenRig
