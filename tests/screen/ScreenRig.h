#pragma once

#include "ScreenPainter.h"
#include "TestFiles.h"

#include <QImage>
#include <QJsonArray>
#include <QtTest>

#include <optional>

// Where each LED of a screen mode looks, worked out from the modes' geometry apart from the
// pipeline, and what picture A shows there: the oracle of the screen suites.
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

// The model's default map, as the script wrote it; LEDs missing from it stay at (0, 0).
inline QVector<QPoint> modelMap(const QString& path)
{
    QVector<QPoint> points;
    for (const QJsonValue& v : TestFiles::readJson(path).value("ledMap").toArray()) {
        const int id = v.toObject().value("id").toInt();
        points.resize(std::max(points.size(), id));
        points[id - 1] = QPoint(v.toObject().value("x").toInt(), v.toObject().value("y").toInt());
    }
    return points;
}

// The frame pixel (in the frame as delivered, before mirroring) each LED reads; full screen and
// cinema through the map on a 120 x 67 virtual screen.
inline QVector<QPoint> readPoints(const QString& effect, int n, const QSize& frame, int dir,
                                  const QVector<QPoint>& map = {})
{
    const int w = frame.width(), h = frame.height();
    QVector<QPoint> points;
    for (int k = 0; k < n; ++k) {
        QPoint p;
        if (effect == topId || effect == bottomId) {
            p = QPoint(pick(k, w, n), (effect == topId ? 0 : (h / 5) * 4) + pick(0, h / 5, 1));
        } else if (effect == leftId) {
            p = QPoint(pick(0, w / 5, 1), pick(n - 1 - k, h, n));
        } else if (effect == rightId) {
            p = QPoint((w / 5) * 4 + pick(0, w / 5, 1), pick(k, h, n));
        } else if (effect == fullId) {
            p = QPoint(pick(map[k].x(), w, 120), pick(map[k].y(), h, 67));
        } else if (effect == cinemaId) {
            const int cw = int(w * 0.8);
            const int ch = int(h * 0.8);
            const int sh = int(ch * 120.0 / cw); // scaledToWidth(120)
            p = QPoint((w - 1) / 2 - cw / 2 + pick(map[k].x(), cw, 120),
                       (h - 1) / 2 - ch / 2 + pick(pick(map[k].y(), sh, 67), ch, sh));
        }
        points.append(QPoint(dir == 1 ? w - 1 - p.x() : p.x(), p.y()));
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
    for (int d = 0; d < 25; ++d) {
        if (at(p.x() + d % 5 - 2, p.y() + d / 5 - 2) != at(p.x(), p.y())) {
            return std::nullopt;
        }
    }
    return at(p.x(), p.y());
}

// Waits up to ten times the target (at least 5 s) and prints what it took: on a loaded machine a
// target is a figure, not a verdict.
template <typename Done> bool waitMeasured(const char* what, int targetMs, Done done)
{
    QElapsedTimer clock;
    clock.start();
    const bool ok = QTest::qWaitFor(done, std::max(5000, 10 * targetMs));
    qInfo("%s: %lld ms (target %d ms)%s", what, qint64(clock.elapsed()), targetMs, ok ? "" : ", not reached");
    return ok;
}

inline bool near(const QColor& a, int r, int g, int b, int tolerance = 4)
{
    return qAbs(a.red() - r) <= tolerance && qAbs(a.green() - g) <= tolerance &&
           qAbs(a.blue() - b) <= tolerance;
}

// LEDs (anything with r, g, b) that picture A's judged points of a 120 x 67 frame show wrong (a
// short strip: all of them); `judged` gets the number of points judged.
template <typename Leds>
int mismatchesA(const Leds& leds, const QVector<QPoint>& points, const QSize& screenSize,
                int* judged = nullptr)
{
    int bad = 0;
    int seen = 0;
    for (int k = 0; k < points.size(); ++k) {
        if (const auto expected = expectedA(screenSize, QSize(120, 67), points[k])) {
            ++seen;
            bad += k >= leds.size() || !near(*expected, leds[k].r, leds[k].g, leds[k].b);
        }
    }
    if (judged) {
        *judged = seen;
    }
    return bad;
}

} // namespace ScreenRig
