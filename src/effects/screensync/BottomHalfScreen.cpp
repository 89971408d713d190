#include "effects/screensync/BottomHalfScreen.h"

BottomHalfScreen::BottomHalfScreen(const EffectWorkerOptions& options, QObject* parent)
    : AbsScreenSync(options, parent)
{
}

BottomHalfScreen::~BottomHalfScreen() = default;

QVector<QVector<OV_RGB>> BottomHalfScreen::processFrame(QImage frame)
{
    const int n = int(controlOptions.nbLeds);
    // Whole fifths only: the rows below the last fifth are never seen.
    const int fifth = frame.height() / 5;
    const QImage band =
        frame.copy(QRect(QPoint(0, fifth * 4), QPoint(frame.width() - 1, fifth * 4 + fifth - 1)))
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
