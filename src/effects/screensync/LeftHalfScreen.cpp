#include "effects/screensync/LeftHalfScreen.h"

LeftHalfScreen::LeftHalfScreen(const EffectWorkerOptions& options, QObject* parent)
    : AbsScreenSync(options, parent)
{
}

LeftHalfScreen::~LeftHalfScreen() = default;

QVector<QVector<OV_RGB>> LeftHalfScreen::processFrame(QImage frame)
{
    const int n = int(controlOptions.nbLeds);
    const QImage band = frame.copy(QRect(QPoint(0, 0), QPoint(frame.width() / 5 - 1, frame.height() - 1)))
                            .scaled(1, n, Qt::IgnoreAspectRatio, Qt::FastTransformation);
    // Counted upward: the first LED sits at the foot of the frame.
    int k = 0;
    for (QVector<OV_RGB>& line : colors) {
        for (OV_RGB& led : line) {
            const QRgb pixel = band.pixel(0, n - 1 - k++);
            led = saturate(qRed(pixel), qGreen(pixel), qBlue(pixel));
        }
    }
    return colors;
}
