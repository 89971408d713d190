#include "effects/screensync/TopHalfScreen.h"

TopHalfScreen::TopHalfScreen(const EffectWorkerOptions& options, QObject* parent)
    : AbsScreenSync(options, parent)
{
}

TopHalfScreen::~TopHalfScreen() = default;

QVector<QVector<OV_RGB>> TopHalfScreen::processFrame(QImage frame)
{
    const int n = int(controlOptions.nbLeds);
    const QImage band = frame.copy(QRect(QPoint(0, 0), QPoint(frame.width() - 1, frame.height() / 5 - 1)))
                            .scaled(n, 1, Qt::IgnoreAspectRatio, Qt::FastTransformation);
    int k = 0;
    for (QVector<OV_RGB>& line : colors) {
        for (OV_RGB& led : line) {
            const QRgb pixel = band.pixel(k++, 0);
            led = saturate(qRed(pixel), qGreen(pixel), qBlue(pixel));
        }
    }
    return colors;
}
