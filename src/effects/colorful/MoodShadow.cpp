#include "MoodShadow.h"

#include "ConfigurationManager.h"

#include <QImage>
#include <QJsonArray>
#include <QJsonObject>
#include <QLinearGradient>
#include <QPainter>
#include <QUuid>
#include <QtDebug>

#include <cmath>

namespace {

const QString strapsEffectId = QStringLiteral("com.orvanta.colorful.colorStraps");
const QString allControllers = QStringLiteral("__all__");

int channel(const QJsonValue& value)
{
    return qBound(0, value.toInt(), 255);
}

QColor colorFromJson(const QJsonValue& value, const QColor& fallback)
{
    const QJsonArray rgb = value.toArray();
    if (rgb.size() != 3) {
        return fallback;
    }
    return QColor(channel(rgb.at(0)), channel(rgb.at(1)), channel(rgb.at(2)));
}

QJsonArray colorToJson(const QColor& color)
{
    return QJsonArray{color.red(), color.green(), color.blue()};
}

ColorStrap* strapFromJson(const QJsonObject& obj, int index)
{
    auto* strap = new ColorStrap;
    const QJsonValue name = obj.value(QStringLiteral("name"));
    strap->name = name.isString() ? name.toString() : QStringLiteral("( %1 )").arg(index + 1);
    strap->speed = obj.value(QStringLiteral("speed")).toDouble(0.0);
    strap->range = obj.value(QStringLiteral("range")).toDouble(0.5);
    strap->endsColor = colorFromJson(obj.value(QStringLiteral("endsColor")), QColor(0, 0, 0, 255));
    const QJsonArray stops = obj.value(QStringLiteral("keyColors")).toArray();
    for (int i = 0; i < stops.size(); ++i) {
        const QJsonObject stop = stops.at(i).toObject();
        const double key = stop.value(QStringLiteral("key")).toDouble(static_cast<double>(i) / stops.size());
        strap->keyColors.append(QGradientStop(
            key, colorFromJson(stop.value(QStringLiteral("color")), QColor(255, 255, 255, 255))));
    }
    const QString uuid = obj.value(QStringLiteral("uuid")).toString();
    strap->uuid = QUuid(uuid).isNull() ? QUuid::createUuid().toString() : uuid;
    return strap;
}

ColorStrap* newStrap(const QString& name, double speed)
{
    auto* strap = new ColorStrap;
    strap->name = name;
    strap->endsColor = QColor(255, 255, 255, 255);
    strap->speed = speed;
    strap->range = 0.5;
    strap->keyColors.append(QGradientStop(0.5, QColor(255, 0, 0, 255)));
    return strap;
}

} // namespace

MoodShadow::MoodShadow(const EffectWorkerOptions& options, QObject* parent)
    : AbsAnimatedEffect(parent)
    , effectOptions(options)
    , id(options.id)
{
    qRegisterMetaType<QList<QGradientStop>>("QList<QGradientStop>");
}

MoodShadow::~MoodShadow()
{
    clearStraps();
}

void MoodShadow::clearStraps()
{
    qDeleteAll(straps);
    straps.clear();
}

int32_t MoodShadow::load(const ControlOptions& options)
{
    controlOptions = options;
    clearStraps();
    phase = 0.0;

    ConfigurationManager* store = ConfigurationManager::instance();
    const QJsonArray list =
        store
            ->effectJsonValue(strapsEffectId, allControllers, QStringLiteral("colorStrapList"),
                              QStringLiteral("effects/colorStraps.json"))
            .toArray();
    for (int i = 0; i < list.size(); ++i) {
        straps.append(strapFromJson(list.at(i).toObject(), i));
    }
    const QJsonObject configs =
        store->effectJsonValue(id, controlOptions.id, QStringLiteral("strapConfigs")).toObject();
    for (ColorStrap* strap : qAsConst(straps)) {
        const QJsonObject config = configs.value(strap->uuid).toObject();
        strap->range = config.value(QStringLiteral("range")).toDouble(strap->range);
        strap->speed = config.value(QStringLiteral("speed")).toDouble(strap->speed);
    }
    if (straps.isEmpty()) {
        ColorStrap* fallback = newStrap(QStringLiteral("( 1 )"), 1.0);
        straps.append(fallback);
    }
    const int stored = store->effectJsonValue(id, controlOptions.id, QStringLiteral("currentStrap")).toInt(0);
    currentStrap = qBound(0, stored, straps.size() - 1);
    return 0;
}

EffectWorkerOptions MoodShadow::workerOptions() const
{
    return effectOptions;
}

void MoodShadow::unload()
{
    QJsonArray list;
    QJsonObject configs;
    for (const ColorStrap* strap : qAsConst(straps)) {
        QJsonArray stops;
        for (const QGradientStop& stop : strap->keyColors) {
            stops.append(QJsonObject{{QStringLiteral("key"), stop.first},
                                     {QStringLiteral("color"), colorToJson(stop.second)}});
        }
        list.append(QJsonObject{{QStringLiteral("keyColors"), stops},
                                {QStringLiteral("endsColor"), colorToJson(strap->endsColor)},
                                {QStringLiteral("speed"), strap->speed},
                                {QStringLiteral("range"), strap->range},
                                {QStringLiteral("name"), strap->name},
                                {QStringLiteral("uuid"), strap->uuid}});
        configs.insert(strap->uuid, QJsonObject{{QStringLiteral("speed"), strap->speed},
                                                {QStringLiteral("range"), strap->range}});
    }
    ConfigurationManager* store = ConfigurationManager::instance();
    store->setEffectJsonValue(strapsEffectId, allControllers, QStringLiteral("colorStrapList"), list);
    store->setEffectJsonValue(id, controlOptions.id, QStringLiteral("currentStrap"), currentStrap);
    store->setEffectJsonValue(id, controlOptions.id, QStringLiteral("strapConfigs"), configs);
    store->saveEffectJsonObj(id);
    store->saveEffectJsonObj(strapsEffectId);
}

int MoodShadow::imageWidth(const ColorStrap& strap, uint32_t n)
{
    // Kept in doubles until bounded, so that a wild range from a file cannot overflow.
    const double raw = (strap.range + strap.range) * n;
    const int lo = strap.keyColors.size() + 2;
    if (raw > 2.0 * n) {
        return static_cast<int>(2 * n);
    }
    return raw > lo ? qMax(static_cast<int>(raw), lo) : lo;
}

void MoodShadow::tick(double seconds)
{
    const ColorStrap* s = current();
    if (!s) {
        return; // every strap was removed: nothing to show
    }
    const uint32_t n = controlOptions.nbLeds;
    const int w = imageWidth(*s, n);

    QImage image(w, 1, QImage::Format_RGB888);
    QLinearGradient gradient(0, 0, w, 0);
    for (const QGradientStop& stop : s->keyColors) {
        gradient.setColorAt(stop.first, stop.second);
    }
    gradient.setColorAt(0.0, s->endsColor);
    gradient.setColorAt(1.0, s->endsColor);
    {
        QPainter painter(&image);
        painter.fillRect(image.rect(), gradient);
    }

    const double step = (static_cast<double>(n) / w) * s->speed * seconds;
    double next;
    if (controlOptions.installDirection == 1) {
        next = phase - step;
        if (next < 0.0) {
            next += 1.0;
        }
    } else {
        next = phase + step; // grows on; the fold below takes care of it
    }

    // int(w * next) mod w, computed without an integer overflow however far the phase has run.
    const int offset = static_cast<int>(std::fmod(std::trunc(w * next), static_cast<double>(w)));
    const uchar* pixels = image.constScanLine(0);
    QVector<QVector<OV_RGB>> colors(controlOptions.lines.size());
    int k = 0;
    for (int line = 0; line < colors.size(); ++line) {
        QVector<OV_RGB>& leds = colors[line];
        leds.resize(static_cast<int>(controlOptions.lines.at(line)));
        for (OV_RGB& led : leds) {
            int x = (offset + k) % w;
            if (x < 0) {
                x += w;
            }
            const uchar* px = pixels + 3 * x;
            led = OV_RGB{px[0], px[1], px[2]};
            ++k;
        }
    }
    phase = next;
    emit updateColors(colors);
}

const ColorStrap* MoodShadow::current() const
{
    return (currentStrap >= 0 && currentStrap < straps.size()) ? straps.at(currentStrap) : nullptr;
}

ColorStrap* MoodShadow::current()
{
    return (currentStrap >= 0 && currentStrap < straps.size()) ? straps.at(currentStrap) : nullptr;
}

int MoodShadow::strapCount() const
{
    return straps.size();
}

int MoodShadow::currentStrapIndex() const
{
    return currentStrap;
}

QStringList MoodShadow::strapNames() const
{
    QStringList names;
    for (const ColorStrap* strap : straps) {
        names.append(strap->name);
    }
    return names;
}

QString MoodShadow::strapName() const
{
    const ColorStrap* s = current();
    return s ? s->name : QString();
}

QColor MoodShadow::endsColor() const
{
    const ColorStrap* s = current();
    return s ? s->endsColor : QColor();
}

QList<QGradientStop> MoodShadow::keyColors() const
{
    const ColorStrap* s = current();
    return s ? s->keyColors : QList<QGradientStop>();
}

double MoodShadow::speed() const
{
    const ColorStrap* s = current();
    return s ? s->speed : 0.0;
}

double MoodShadow::range() const
{
    const ColorStrap* s = current();
    return s ? s->range : 0.5;
}

double MoodShadow::currentPhase() const
{
    return phase;
}

void MoodShadow::setStrapName(QString name)
{
    if (ColorStrap* s = current()) {
        s->name = name;
    }
}

void MoodShadow::setCurrentStrap(int i)
{
    currentStrap = qMax(0, qMin(i, straps.size() - 1));
}

void MoodShadow::removeStrap(int i)
{
    if (i < 0 || i >= straps.size()) {
        qCritical().noquote() << "[MoodShadow]: Strap index is out of range";
        return;
    }
    const bool wasLast = i == straps.size() - 1;
    delete straps.takeAt(i);
    setCurrentStrap(wasLast ? i - 1 : i);
}

void MoodShadow::setEndsColor(QColor color)
{
    if (ColorStrap* s = current()) {
        s->endsColor = color;
    }
}

void MoodShadow::addStrap(QString name, double speed)
{
    const QString strapName = name.isEmpty() ? QStringLiteral("(%1)").arg(straps.size()) : name;
    straps.append(newStrap(strapName, qMax(speed, 0.0)));
    currentStrap = straps.size() - 1;
}

void MoodShadow::addStrap(QString name)
{
    addStrap(name, 0.0);
}

void MoodShadow::addStrap()
{
    addStrap(QString(), 0.0);
}

void MoodShadow::setKeyColor(QList<QGradientStop> color)
{
    if (ColorStrap* s = current()) {
        s->keyColors = color;
    }
}

void MoodShadow::onCtlDirChanged(uint32_t dir)
{
    controlOptions.installDirection = dir;
}

void MoodShadow::setSpeed(double speed)
{
    if (ColorStrap* s = current()) {
        s->speed = qMax(speed, 0.0);
    }
}

void MoodShadow::setRange(double range)
{
    if (ColorStrap* s = current()) {
        s->range = qBound(0.0, range, 1.0);
    }
}
