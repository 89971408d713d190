#include "effects/screensync/CinemaScreen.h"

CinemaScreen::CinemaScreen(const EffectWorkerOptions& options, QObject* parent)
    : FullScreenMode(options, parent)
{
}

CinemaScreen::~CinemaScreen() = default;

QVector<QVector<OV_RGB>> CinemaScreen::processFrame(QImage frame)
{
    const QRect r = frame.rect();
    const QPoint c = r.center();
    const int w = int(r.width() * 0.8);
    const int h = int(r.height() * 0.8);
    const QImage centre =
        frame.copy(c.x() - w / 2, c.y() - h / 2, w, h).scaledToWidth(120, Qt::FastTransformation);
    return FullScreenMode::processFrame(centre);
}
