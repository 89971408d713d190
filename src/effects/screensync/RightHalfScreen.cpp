#include "effects/screensync/RightHalfScreen.h"

RightHalfScreen::RightHalfScreen(const EffectWorkerOptions& options, QObject* parent)
    : AbsScreenSync(options, parent)
{
}

RightHalfScreen::~RightHalfScreen() = default;

QVector<QVector<OV_RGB>> RightHalfScreen::processFrame(QImage frame)
{
    const int n = int(controlOptions.nbLeds);
    const int fifth = frame.width() / 5;
    const QImage band =
        frame.copy(QRect(QPoint(fifth * 4, 0), QPoint(fifth * 4 + fifth - 1, frame.height() - 1)))
            .scaled(1, n, Qt::IgnoreAspectRatio, Qt::FastTransformation);
    int k = 0;
    for (QVector<OV_RGB>& line : colors) {
        for (OV_RGB& led : line) {
            const QRgb pixel = band.pixel(0, k++);
            led = saturate(qRed(pixel), qGreen(pixel), qBlue(pixel));
        }
    }
    return colors;
}
