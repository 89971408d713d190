#include "effects/screensync/FullScreenMode.h"

#include "service/config/ConfigurationManager.h"
#include "service/config/DataPaths.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QtDebug>

constexpr char kTag[] = "[FullScreenMode]:";

FullScreenMode::FullScreenMode(const EffectWorkerOptions& options, QObject* parent)
    : AbsScreenSync(options, parent)
{
}

FullScreenMode::~FullScreenMode() = default;

void FullScreenMode::makeDefaultMap(uint32_t nbLeds, QVector<QPoint>& map, int& width, int& height)
{
    map.resize(int(nbLeds));
    width = 120;
    height = 67;
    for (int i = 0; i < map.size(); ++i) {
        map[i] = QPoint(i % 120, i / 120);
    }
}

QJsonObject FullScreenMode::readDefaultFile() const
{
    QFile file(DataPaths::locate(QStringLiteral("controler_config/") + controlOptions.model +
                                 QStringLiteral(".json")));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        qInfo().noquote() << kTag << "Not found default LED configuration file" << file.errorString();
        return QJsonObject();
    }
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
    if (error.error != QJsonParseError::NoError) {
        qWarning().noquote() << kTag << "Failed to parser default LED configuration json file"
                             << error.errorString();
        return QJsonObject();
    }
    return document.object();
}

void FullScreenMode::applyMap(const QJsonObject& object, const QString& controllerId, QVector<QPoint>& map,
                              int& width, int& height)
{
    // The sizes the editor's boxes can set: a hand-edited file may hold anything.
    const auto size = [&object, &controllerId](const char* key, int current, int low, int high) {
        const QJsonValue value = object.value(QLatin1String(key));
        const double wanted = value.toDouble(current);
        if (wanted >= low && wanted <= high) {
            return int(wanted);
        }
        const int used = wanted > high ? high : low;
        qWarning().noquote() << kTag
                             << QStringLiteral("The LED map's \"%1\" of %2 is %3, outside %4 to %5: using %6")
                                    .arg(QLatin1String(key), controllerId, QString::number(wanted))
                                    .arg(low)
                                    .arg(high)
                                    .arg(used);
        return used;
    };
    width = size("screenWidth", width, minScreenWidth, maxScreenWidth);
    height = size("screenHeight", height, minScreenHeight, maxScreenHeight);
    const QJsonArray entries = object.value(QStringLiteral("ledMap")).toArray();
    for (const QJsonValue& value : entries) {
        const QJsonObject entry = value.toObject();
        // Ids count from 1; compared before the step down, so that the lowest int cannot wrap.
        const int id = entry.value(QStringLiteral("id")).toInt(0);
        if (id < 1 || id > map.size()) {
            continue;
        }
        QPoint& point = map[id - 1];
        const int x = entry.value(QStringLiteral("x")).toInt(point.x());
        const int y = entry.value(QStringLiteral("y")).toInt(point.y());
        // Each axis is judged alone.
        if (x >= 0 && x < width) {
            point.setX(x);
        }
        if (y >= 0 && y < height) {
            point.setY(y);
        }
    }
    // The default grid may reach beyond a smaller screen: every LED on it, as the editor shows.
    clampPoints(map, width, height);
}

void FullScreenMode::clampPoints(QVector<QPoint>& map, int width, int height)
{
    for (QPoint& point : map) {
        point.setX(std::max(std::min(point.x(), width - 1), 0));
        point.setY(std::max(std::min(point.y(), height - 1), 0));
    }
}

QJsonObject FullScreenMode::mapObject()
{
    QMutexLocker sizeLocker(&sizeMutex);
    QMutexLocker mapLocker(&ledMapMutex);
    QJsonObject object;
    object.insert(QStringLiteral("screenWidth"), screenWidth);
    object.insert(QStringLiteral("screenHeight"), screenHeight);
    QJsonArray entries;
    for (int i = 0; i < ledMap.size(); ++i) {
        entries.append(QJsonObject{{QStringLiteral("id"), i + 1},
                                   {QStringLiteral("x"), ledMap[i].x()},
                                   {QStringLiteral("y"), ledMap[i].y()}});
    }
    object.insert(QStringLiteral("ledMap"), entries);
    return object;
}

void FullScreenMode::storeMap()
{
    if (controlOptions.id.isEmpty()) {
        return;
    }
    ConfigurationManager* store = ConfigurationManager::instance();
    store->setEffectJsonValue(options.id, controlOptions.id, QStringLiteral("map"), mapObject());
    store->saveEffectJsonObj(options.id);
}

int32_t FullScreenMode::load(const ControlOptions& ctlOptions)
{
    AbsScreenSync::load(ctlOptions);
    QMutexLocker sizeLocker(&sizeMutex);
    QMutexLocker mapLocker(&ledMapMutex);
    makeDefaultMap(controlOptions.nbLeds, ledMap, screenWidth, screenHeight);
    const QJsonValue stored = ConfigurationManager::instance()->effectJsonValue(options.id, controlOptions.id,
                                                                                QStringLiteral("map"));
    QJsonObject object;
    if (stored.isObject()) {
        qDebug().noquote() << kTag << "The LED configuration has loaded from user configuration file"
                           << controlOptions.id;
        object = stored.toObject();
    } else {
        object = readDefaultFile();
    }
    applyMap(object, controlOptions.id, ledMap, screenWidth, screenHeight);
    return 0;
}

void FullScreenMode::resetLEDMap()
{
    {
        QMutexLocker sizeLocker(&sizeMutex);
        QMutexLocker mapLocker(&ledMapMutex);
        makeDefaultMap(controlOptions.nbLeds, ledMap, screenWidth, screenHeight);
        applyMap(readDefaultFile(), controlOptions.id, ledMap, screenWidth, screenHeight);
    }
    storeMap();
}

QVector<QPoint> FullScreenMode::ledMapCopy()
{
    QMutexLocker locker(&ledMapMutex);
    return ledMap;
}

QSize FullScreenMode::screenSize()
{
    QMutexLocker locker(&sizeMutex);
    return QSize(screenWidth, screenHeight);
}

void FullScreenMode::setScreenSize(QSize size)
{
    if (size.width() < 0 || size.width() > maxScreenWidth || size.height() < 0 ||
        size.height() > maxScreenHeight) {
        qWarning() << kTag << "The size is invalid";
        return;
    }
    {
        QMutexLocker sizeLocker(&sizeMutex);
        QMutexLocker mapLocker(&ledMapMutex);
        screenWidth = size.width();
        screenHeight = size.height();
        clampPoints(ledMap, screenWidth, screenHeight);
    }
    storeMap();
}

void FullScreenMode::setLEDPos(int id, QPoint pos)
{
    QSize size;
    {
        QMutexLocker locker(&sizeMutex);
        size = QSize(screenWidth, screenHeight);
    }
    if (pos.x() < 0 || pos.y() < 0 || pos.x() >= size.width() || pos.y() >= size.height()) {
        qWarning() << kTag << "The LED position:" << pos << "is out of range";
        return;
    }
    {
        QMutexLocker locker(&ledMapMutex);
        if (id < 0 || id >= ledMap.size()) {
            qWarning() << kTag << "The id" << id << "of LED is out of range";
            return;
        }
        ledMap[id] = pos;
    }
    storeMap();
}

void FullScreenMode::onCtlDirChanged(uint32_t dir)
{
    AbsScreenSync::onCtlDirChanged(dir);
    emit deviceDirChanged(int(dir));
}

QVector<QVector<OV_RGB>> FullScreenMode::processFrame(QImage frame)
{
    QSize size;
    {
        QMutexLocker locker(&sizeMutex);
        size = QSize(screenWidth, screenHeight);
    }
    const QImage scaled = frame.scaled(size, Qt::IgnoreAspectRatio, Qt::FastTransformation);
    emit frameSnapshot(scaled.copy());

    QMutexLocker locker(&ledMapMutex);
    int k = 0;
    for (QVector<OV_RGB>& line : colors) {
        for (OV_RGB& led : line) {
            if (k < ledMap.size() && scaled.valid(ledMap[k])) {
                const QRgb pixel = scaled.pixel(ledMap[k]);
                led = saturate(qRed(pixel), qGreen(pixel), qBlue(pixel));
            }
            ++k;
        }
    }
    return colors;
}

void FullScreenMode::unload()
{
    ConfigurationManager::instance()->setEffectJsonValue(options.id, controlOptions.id, QStringLiteral("map"),
                                                         mapObject());
    AbsScreenSync::unload();
}
