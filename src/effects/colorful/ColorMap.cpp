#include "effects/colorful/ColorMap.h"

#include "service/config/ConfigurationManager.h"
#include "service/config/DataPaths.h"

#include <QCoreApplication>
#include <QtDebug>

#include <cmath>

constexpr char kTag[] = "[ColorMap]:";

ColorMap::ColorMap(const EffectWorkerOptions& options, QObject* parent)
    : AbsAnimatedEffect(parent)
    , options(options)
{
}

ColorMap::~ColorMap() = default;

QString ColorMap::picturePath(const QString& effectId)
{
    const QString baseName = effectId.mid(effectId.lastIndexOf(QLatin1Char('.')) + 1);
    return DataPaths::locate(QStringLiteral("effects/colorful/") + baseName + QStringLiteral(".png"),
                             DataPaths::First::ProgramFolder);
}

int32_t ColorMap::load(const ControlOptions& ctlOptions)
{
    const QString path = picturePath(options.id);
    image = QImage(path);
    if (image.isNull()) {
        qCritical().noquote() << kTag << "Not found file:" << path;
        image = QImage(300, 300, QImage::Format_RGB888);
    }
    const double stored = ConfigurationManager::instance()
                              ->effectJsonValue(options.id, ctlOptions.id, QStringLiteral("speed"))
                              .toDouble(1.0);
    playSpeed = qBound(kMinSpeed, stored, kMaxSpeed);
    controlOptions = ctlOptions;
    return 0;
}

EffectWorkerOptions ColorMap::workerOptions() const
{
    return options;
}

void ColorMap::unload()
{
    save();
}

void ColorMap::setSpeed(double speed)
{
    const double bounded = qBound(kMinSpeed, speed, kMaxSpeed);
    if (bounded == playSpeed) {
        return;
    }
    playSpeed = bounded;
    if (!controlOptions.id.isEmpty()) {
        save();
    }
}

void ColorMap::save()
{
    ConfigurationManager::instance()->setEffectJsonValue(options.id, controlOptions.id,
                                                         QStringLiteral("speed"), playSpeed);
    ConfigurationManager::instance()->saveEffectJsonObj(options.id);
}

void ColorMap::tick(double seconds)
{
    const int height = image.height();
    if (height <= 0) {
        return; // not loaded yet
    }
    const double p = (1.0 / height) * seconds * 30.0 * playSpeed + position;
    position = p - std::trunc(p);
    const int row = static_cast<int>(height * position);

    const int n = static_cast<int>(controlOptions.nbLeds);
    QVector<OV_RGB> colors(n);
    const int width = image.width();
    for (int i = 0; i < n; ++i) {
        const int x = static_cast<int>(width * (static_cast<double>(i) / n));
        const QRgb pixel = image.pixel(x, row);
        colors[i] = OV_RGB{static_cast<uint8_t>(qRed(pixel)), static_cast<uint8_t>(qGreen(pixel)),
                           static_cast<uint8_t>(qBlue(pixel))};
    }
    emit updateColors(colors);
}
