#include "devices/AbsRGBController.h"

#include "devices/LedLayout.h"
#include "service/config/ConfigurationManager.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QVariant>

#include <cmath>
#include <limits>

namespace {

// The sleep and refresh lines log as "[Controller]", the name their fixed texts give.
constexpr char kTag[] = "[AbsRGBController]";
constexpr int kRefreshMs = 800;
constexpr int64_t kStatisticsMs = 3000;
constexpr int64_t kRawDumpMs = 60000;

// A JSON number as the unsigned field it fills: truncated, and 0 where it cannot be one.
uint32_t toUInt32(const QJsonValue& value, uint32_t fallback)
{
    if (!value.isDouble()) {
        return fallback;
    }
    const double d = std::trunc(value.toDouble());
    if (!(d >= 0.0) || d > double(std::numeric_limits<uint32_t>::max())) {
        return 0;
    }
    return uint32_t(d);
}

// channel * brightness, truncated toward zero, low 8 bits kept: no rounding and no clamp.
inline uint8_t scaleChannel(uint8_t channel, float brightness)
{
    const float v = float(channel) * brightness;
    return uint8_t(int32_t(v));
}

// The same where the product may leave the range of int32_t (a brightness beyond 8 million).
uint8_t scaleChannelWide(uint8_t channel, float brightness)
{
    const double v = std::trunc(double(float(channel) * brightness));
    if (!std::isfinite(v)) {
        return 0;
    }
    double low = std::fmod(v, 256.0);
    if (low < 0) {
        low += 256.0;
    }
    return uint8_t(low);
}

} // namespace

AbsRGBController::AbsRGBController(QObject* parent)
    : QObject(parent)
{
    qRegisterMetaType<QVector<QVector<OV_RGB>>>("QVector<QVector<OV_RGB>>");
    qRegisterMetaType<QVector<OV_RGB>>("QVector<OV_RGB>");
    qRegisterMetaType<uint32_t>("uint32_t");
    qRegisterMetaType<AbsRGBControllerPtr>("QSharedPointer<AbsRGBController>");
    qRegisterMetaType<AbsRGBControllerPtr>("AbsRGBControllerPtr");

    connect(&refreshTimer, &QTimer::timeout, this, &AbsRGBController::internalUpdate);
    refreshTimer.setInterval(kRefreshMs);
    // A coarse timer may fire a little early, and a refresh under 800 ms would not be reported.
    refreshTimer.setTimerType(Qt::PreciseTimer);
    refreshTimer.start();
    intervalTimer.start();
}

AbsRGBController::~AbsRGBController()
{
    qDebug().noquote() << kTag << options.id + QStringLiteral(" destructed");
}

ControlOptions& AbsRGBController::controlOptions()
{
    return options;
}

QString AbsRGBController::storageKey() const
{
    return options.model + QStringLiteral(":") + options.serial;
}

void AbsRGBController::persist(const QString& key, const QVariant& value)
{
    const QString objectKey = storageKey();
    ConfigurationManager* config = ConfigurationManager::instance();
    QJsonObject& obj = config->controllerJsonObj(objectKey);
    obj.insert(key, QJsonValue::fromVariant(value));
    config->saveControllerJsonObj(objectKey);
}

void AbsRGBController::setKindName(QString kindName)
{
    if (kindName == options.kindName) {
        return;
    }
    options.kindName = kindName;
    persist(QStringLiteral("kindName"), kindName);
    emit kindNameChanged(kindName);
}

void AbsRGBController::setBrightness(float brightness)
{
    if (brightness == options.brightness) {
        return;
    }
    options.brightness = brightness;
    persist(QStringLiteral("brightness"), double(brightness));
    emit brightnessChanged(brightness);
    internalUpdate();
}

void AbsRGBController::setEnable(bool enable)
{
    if (enable == options.enable) {
        return;
    }
    options.enable = enable;
    blackColors = QVector<QVector<OV_RGB>>(1, QVector<OV_RGB>(int(qMin(options.nbLeds, LedLayout::maxLeds))));
    internalUpdate();
    persist(QStringLiteral("enable"), enable);
    emit enableChanged(enable);
}

void AbsRGBController::setInstallDirection(uint32_t dir)
{
    if (dir == options.installDirection) {
        return;
    }
    options.installDirection = dir;
    persist(QStringLiteral("installDirection"), dir);
    emit installDirectionChanged(dir);
}

void AbsRGBController::setWorkMode(QString workMode)
{
    if (workMode == options.workMode) {
        return;
    }
    options.workMode = workMode;
    persist(QStringLiteral("workMode"), workMode);
    emit workModeChanged();
}

void AbsRGBController::setSubMode(QString subMode)
{
    if (subMode == options.subMode) {
        return;
    }
    options.subMode = subMode;
    persist(QStringLiteral("subMode"), subMode);
    emit subModeChanged(subMode);
}

void AbsRGBController::setLayout(uint32_t nbLeds, QVector<uint32_t> lines)
{
    options.nbLeds = nbLeds;
    options.lines = lines;
    updateFrameHeader();
    saveConfig();
}

bool AbsRGBController::loadConfig()
{
    // Read under id, written under model + ":" + serial: a device without a serial never reads
    // back what it wrote.
    const QJsonObject obj = ConfigurationManager::instance()->controllerJsonObj(options.id);
    if (obj.isEmpty()) {
        return false;
    }
    QString why;
    if (!readSettings(obj, &options, &why)) {
        qWarning().noquote() << kTag + QStringLiteral(": The layout stored for ") + options.id +
                                    QStringLiteral(" is ignored, its strips count as not configured: ") + why;
    }
    return true;
}

bool AbsRGBController::readSettings(const QJsonObject& obj, ControlOptions* options, QString* why)
{
    options->kindName = obj.value(QStringLiteral("kindName")).toString(options->portName);
    options->brightness = float(obj.value(QStringLiteral("brightness")).toDouble(0.8));
    options->enable = obj.value(QStringLiteral("enable")).toBool(true);
    options->installDirection = toUInt32(obj.value(QStringLiteral("installDirection")), 0);
    options->subMode = obj.value(QStringLiteral("subMode")).toString();
    options->workMode = obj.value(QStringLiteral("workMode")).toString();
    return LedLayout::read(obj, &options->nbLeds, &options->lines, why);
}

void AbsRGBController::saveConfig()
{
    const QString objectKey = storageKey();
    ConfigurationManager* config = ConfigurationManager::instance();
    QJsonObject& obj = config->controllerJsonObj(objectKey);
    obj.insert(QStringLiteral("kindName"), options.kindName);
    obj.insert(QStringLiteral("brightness"), double(options.brightness));
    obj.insert(QStringLiteral("enable"), options.enable);
    obj.insert(QStringLiteral("installDirection"), double(options.installDirection));
    obj.insert(QStringLiteral("workMode"), options.workMode);
    obj.insert(QStringLiteral("subMode"), options.subMode);
    obj.insert(QStringLiteral("nbLeds"), double(options.nbLeds));
    QJsonArray lines;
    for (uint32_t n : qAsConst(options.lines)) {
        lines.append(double(n));
    }
    obj.insert(QStringLiteral("lines"), lines);
    config->saveControllerJsonObj(objectKey);
}

void AbsRGBController::update(QVector<OV_RGB> newColors)
{
    colors.resize(1);
    colors[0] = std::move(newColors);
    internalUpdate();
}

void AbsRGBController::update(QVector<QVector<OV_RGB>> newColors)
{
    colors = std::move(newColors);
    internalUpdate();
}

void AbsRGBController::enterSleep()
{
    asleep = true;
    refreshTimer.stop();
    sendDarkFrame();
}

void AbsRGBController::wake()
{
    checkAfterSleep();
}

void AbsRGBController::sendDarkFrame()
{
    writeColors(blackFrame());
    emit darkened(true);
}

void AbsRGBController::checkAfterSleep()
{
    resumeFrames();
    emit woken(true);
}

void AbsRGBController::resumeFrames()
{
    asleep = false;
    internalUpdate();
}

void AbsRGBController::releaseAfterSleep(uint32_t code, const QString& why)
{
    qInfo().noquote() << QStringLiteral("[Controller]: ") + options.id +
                             QStringLiteral(" is released after sleep: ") + why;
    // The registry lets go first, so that whoever hears woken finds the device gone.
    if (options.status == 0) {
        options.status = code;
        emit statusChanged(code, why);
    }
    emit woken(false);
}

QVector<QVector<OV_RGB>> AbsRGBController::blackFrame() const
{
    return QVector<QVector<OV_RGB>>(1, QVector<OV_RGB>(int(qMin(options.nbLeds, LedLayout::maxLeds))));
}

void AbsRGBController::internalUpdate()
{
    if (asleep) {
        return; // the colours are kept and shown at wake
    }
    QVector<QVector<OV_RGB>> scaled = colors;
    const float brightness = options.brightness;
    const bool narrow = std::fabs(double(brightness)) * 255.0 < 2147483520.0;
    int ledCount = 0;
    for (QVector<OV_RGB>& line : scaled) {
        // Non-const access detaches the shared copy once per line; `colors` stays as delivered.
        OV_RGB* led = line.data();
        const int n = line.size();
        if (narrow) {
            for (int i = 0; i < n; ++i) {
                led[i].r = scaleChannel(led[i].r, brightness);
                led[i].g = scaleChannel(led[i].g, brightness);
                led[i].b = scaleChannel(led[i].b, brightness);
            }
        } else {
            for (int i = 0; i < n; ++i) {
                led[i].r = scaleChannelWide(led[i].r, brightness);
                led[i].g = scaleChannelWide(led[i].g, brightness);
                led[i].b = scaleChannelWide(led[i].b, brightness);
            }
        }
        ledCount += n;
    }

    writeColors(options.enable ? scaled : blackColors);

    const int64_t interval = intervalTimer.restart();
    if (interval >= kRefreshMs) {
        qWarning().noquote() << QStringLiteral("[[loop]][Controller]: ") + options.id +
                                    QStringLiteral(": The automatic refresh of the controller is triggered");
    }
    intervalSumMs += interval;
    intervalCount += 1;
    if (intervalSumMs > kStatisticsMs) {
        // The LED dump is what fills the loop log: once a minute is enough to see what was sent.
        QString rawText;
        if (!rawDumpTimer.isValid() || rawDumpTimer.hasExpired(kRawDumpMs)) {
            rawDumpTimer.start();
            QByteArray raw;
            raw.reserve(ledCount * 3);
            for (const QVector<OV_RGB>& line : qAsConst(scaled)) {
                raw.append(reinterpret_cast<const char*>(line.constData()),
                           line.size() * int(sizeof(OV_RGB)));
            }
            rawText = QStringLiteral("  Current raw led data: \r\n") + QString::fromLatin1(raw.toHex()) +
                      QStringLiteral("\r\n");
        }
        const double avg = double(intervalSumMs) / double(intervalCount);
        qDebug().noquote() << QStringLiteral("[[loop]][Controller]") + options.id +
                                  QStringLiteral(", Avg update interval: ") + QString::number(avg) +
                                  QStringLiteral("ms, \r\n") + QStringLiteral("  Current worker: ") +
                                  options.subMode + QStringLiteral("\r\n") + rawText +
                                  QStringLiteral(" \r\n");
        intervalSumMs = 0;
        intervalCount = 0;
    }

    refreshTimer.start();
}
