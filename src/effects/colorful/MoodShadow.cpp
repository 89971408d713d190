#include "effects/colorful/MoodShadow.h"

#include "effects/OptionBounds.h"
#include "service/config/ConfigurationManager.h"

#include <QImage>
#include <QJsonArray>
#include <QJsonObject>
#include <QLinearGradient>
#include <QPainter>
#include <QSet>
#include <QUuid>
#include <QtDebug>

#include <cmath>
#include <memory>

namespace {

constexpr char kTag[] = "[MoodShadow]:";

const QString kStrapsEffectId = QStringLiteral("com.orvanta.colorful.colorStraps");
const QString kAllControllers = QStringLiteral("__all__");
const QString kListKey = QStringLiteral("colorStrapList");
const QString kDefaultsFile = QStringLiteral("effects/colorStraps.json");

QColor colorFromJson(const QJsonValue& value, const QColor& fallback)
{
    const QJsonArray rgb = value.toArray();
    if (rgb.size() != 3) {
        return fallback;
    }
    return QColor(OptionBounds::channel(rgb.at(0)), OptionBounds::channel(rgb.at(1)),
                  OptionBounds::channel(rgb.at(2)));
}

QJsonArray colorToJson(const QColor& color)
{
    return QJsonArray{color.red(), color.green(), color.blue()};
}

double boundedSpeed(const QJsonValue& value, double fallback)
{
    return OptionBounds::number(value, 0.0, MoodShadow::kMaxSpeed, fallback);
}

double boundedRange(const QJsonValue& value, double fallback)
{
    return OptionBounds::number(value, MoodShadow::kMinRange, MoodShadow::kMaxRange, fallback);
}

// A strap without a usable uuid gets a fresh one; the caller notes that it did.
ColorStrap strapFromJson(const QJsonObject& obj, int index)
{
    ColorStrap strap;
    const QJsonValue name = obj.value(QStringLiteral("name"));
    strap.name = name.isString() ? name.toString() : QStringLiteral("( %1 )").arg(index + 1);
    strap.speed = boundedSpeed(obj.value(QStringLiteral("speed")), 0.0);
    strap.range = boundedRange(obj.value(QStringLiteral("range")), 0.5);
    strap.endsColor = colorFromJson(obj.value(QStringLiteral("endsColor")), QColor(0, 0, 0, 255));
    const QJsonArray stops = obj.value(QStringLiteral("keyColors")).toArray();
    for (int i = 0; i < stops.size(); ++i) {
        const QJsonObject stop = stops.at(i).toObject();
        // A gradient takes positions in 0..1 only, and would complain at every frame otherwise.
        const double key = OptionBounds::number(stop.value(QStringLiteral("key")), 0.0, 1.0,
                                                static_cast<double>(i) / stops.size());
        strap.keyColors.append(QGradientStop(
            key, colorFromJson(stop.value(QStringLiteral("color")), QColor(255, 255, 255, 255))));
    }
    strap.uuid = obj.value(QStringLiteral("uuid")).toString();
    return strap;
}

QJsonObject strapToJson(const ColorStrap& strap)
{
    QJsonArray stops;
    for (const QGradientStop& stop : strap.keyColors) {
        stops.append(QJsonObject{{QStringLiteral("key"), stop.first},
                                 {QStringLiteral("color"), colorToJson(stop.second)}});
    }
    return QJsonObject{
        {QStringLiteral("keyColors"), stops},   {QStringLiteral("endsColor"), colorToJson(strap.endsColor)},
        {QStringLiteral("speed"), strap.speed}, {QStringLiteral("range"), strap.range},
        {QStringLiteral("name"), strap.name},   {QStringLiteral("uuid"), strap.uuid}};
}

std::unique_ptr<ColorStrap> newStrap(const QString& name, double speed)
{
    auto strap = std::make_unique<ColorStrap>();
    strap->name = name;
    // Given at once: edits find the strap in the shared list by it.
    strap->uuid = QUuid::createUuid().toString();
    strap->endsColor = QColor(255, 255, 255, 255);
    strap->speed = speed;
    strap->range = 0.5;
    strap->keyColors.append(QGradientStop(0.5, QColor(255, 0, 0, 255)));
    return strap;
}

QJsonArray storedList()
{
    return ConfigurationManager::instance()
        ->effectJsonValue(kStrapsEffectId, kAllControllers, kListKey, kDefaultsFile)
        .toArray();
}

void storeList(const QJsonArray& list)
{
    ConfigurationManager* store = ConfigurationManager::instance();
    store->setEffectJsonValue(kStrapsEffectId, kAllControllers, kListKey, list);
    store->saveEffectJsonObj(kStrapsEffectId);
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
    straps.clear();
}

int32_t MoodShadow::load(const ControlOptions& options)
{
    controlOptions = options;
    phase = 0.0;
    readStraps();
    const QJsonValue stored = ConfigurationManager::instance()->effectJsonValue(
        id, controlOptions.id, QStringLiteral("currentStrap"));
    currentStrap = OptionBounds::integer(stored, 0, strapCount() - 1, 0);
    return 0;
}

QVector<ColorStrap> MoodShadow::readStrapList(QJsonArray& list, bool* renamed)
{
    QVector<ColorStrap> result;
    result.reserve(list.size());
    QSet<QString> seen;
    *renamed = false;
    for (int i = 0; i < list.size(); ++i) {
        ColorStrap strap = strapFromJson(list.at(i).toObject(), i);
        if (QUuid(strap.uuid).isNull() || seen.contains(strap.uuid)) {
            strap.uuid = QUuid::createUuid().toString();
            QJsonObject element = list.at(i).toObject();
            element.insert(QStringLiteral("uuid"), strap.uuid);
            list[i] = element;
            *renamed = true;
        }
        seen.insert(strap.uuid);
        result.append(strap);
    }
    return result;
}

void MoodShadow::applyDeviceValues(QVector<ColorStrap>& straps, const QJsonObject& configs)
{
    for (ColorStrap& strap : straps) {
        const QJsonObject config = configs.value(strap.uuid).toObject();
        strap.range = boundedRange(config.value(QStringLiteral("range")), strap.range);
        strap.speed = boundedSpeed(config.value(QStringLiteral("speed")), strap.speed);
    }
}

void MoodShadow::readStraps()
{
    clearStraps();
    ConfigurationManager* store = ConfigurationManager::instance();
    QJsonArray list = storedList();
    // Every strap needs an identity of its own before any device keeps values for it or edits
    // it: the list goes back to the store with the fresh uuids, so that every worker sees the
    // same ones.
    bool renamed = false;
    QVector<ColorStrap> read = readStrapList(list, &renamed);
    if (renamed) {
        storeList(list);
    }
    applyDeviceValues(
        read, store->effectJsonValue(id, controlOptions.id, QStringLiteral("strapConfigs")).toObject());
    for (const ColorStrap& strap : qAsConst(read)) {
        straps.push_back(std::make_unique<ColorStrap>(strap));
    }
    if (straps.empty()) {
        straps.push_back(newStrap(QStringLiteral("( 1 )"), 1.0));
    }
}

void MoodShadow::reloadStraps()
{
    const ColorStrap* before = current();
    const QString uuid = before ? before->uuid : QString();
    readStraps();
    int found = currentStrap;
    for (int i = 0; i < strapCount(); ++i) {
        if (straps.at(i)->uuid == uuid) {
            found = i;
        }
    }
    setCurrentStrap(found);
}

EffectWorkerOptions MoodShadow::workerOptions() const
{
    return effectOptions;
}

// Everything went to the store as it changed; this only makes sure the device's values are there.
void MoodShadow::unload()
{
    saveDeviceValues();
}

void MoodShadow::editList(ListEdit edit, const ColorStrap& strap)
{
    QJsonArray list = storedList();
    if (list.isEmpty()) {
        // Nothing of another worker's to keep: the list becomes this one's, stand-in strap and all.
        for (const auto& own : straps) {
            list.append(strapToJson(*own));
        }
        storeList(list);
        return;
    }
    int at = -1;
    for (int i = 0; i < list.size() && at < 0; ++i) {
        if (list.at(i).toObject().value(QStringLiteral("uuid")).toString() == strap.uuid) {
            at = i;
        }
    }
    switch (edit) {
    case ListEdit::Add:
        list.append(strapToJson(strap));
        break;
    case ListEdit::Remove:
        if (at < 0) {
            return; // another device removed it already
        }
        list.removeAt(at);
        break;
    case ListEdit::Update: {
        QJsonObject element = strapToJson(strap);
        if (at < 0) {
            list.append(element); // removed elsewhere meanwhile: this edit brings it back
            break;
        }
        // Speed and range in the list are every other device's defaults: a device's own go to
        // its own values.
        const QJsonObject old = list.at(at).toObject();
        for (const QString& key : {QStringLiteral("speed"), QStringLiteral("range")}) {
            if (old.contains(key)) {
                element.insert(key, old.value(key));
            }
        }
        list[at] = element;
        break;
    }
    }
    storeList(list);
}

void MoodShadow::saveDeviceValues()
{
    QJsonObject configs;
    for (const auto& strap : straps) {
        configs.insert(strap->uuid, QJsonObject{{QStringLiteral("speed"), strap->speed},
                                                {QStringLiteral("range"), strap->range}});
    }
    ConfigurationManager* store = ConfigurationManager::instance();
    store->setEffectJsonValue(id, controlOptions.id, QStringLiteral("currentStrap"), currentStrap);
    store->setEffectJsonValue(id, controlOptions.id, QStringLiteral("strapConfigs"), configs);
    store->saveEffectJsonObj(id);
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
    return (currentStrap >= 0 && currentStrap < strapCount()) ? straps.at(currentStrap).get() : nullptr;
}

ColorStrap* MoodShadow::current()
{
    return (currentStrap >= 0 && currentStrap < strapCount()) ? straps.at(currentStrap).get() : nullptr;
}

int MoodShadow::strapCount() const
{
    return int(straps.size());
}

int MoodShadow::currentStrapIndex() const
{
    return currentStrap;
}

QStringList MoodShadow::strapNames() const
{
    QStringList names;
    for (const auto& strap : straps) {
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

QList<QGradientStop> MoodShadow::gradientStops(int i) const
{
    if (i < 0 || i >= strapCount()) {
        return {};
    }
    const ColorStrap* strap = straps.at(i).get();
    QList<QGradientStop> stops{{0.0, strap->endsColor}};
    stops += strap->keyColors;
    stops.append({1.0, strap->endsColor});
    return stops;
}

void MoodShadow::setStrapName(QString name)
{
    ColorStrap* s = current();
    if (!s || s->name == name) {
        return;
    }
    s->name = name;
    editList(ListEdit::Update, *s);
}

void MoodShadow::setCurrentStrap(int i)
{
    const int bounded = qMax(0, qMin(i, strapCount() - 1));
    if (bounded == currentStrap) {
        return;
    }
    currentStrap = bounded;
    saveDeviceValues();
}

void MoodShadow::removeStrap(int i)
{
    if (i < 0 || i >= strapCount()) {
        qCritical().noquote() << kTag << "Strap index is out of range";
        return;
    }
    const bool wasLast = i == strapCount() - 1;
    const std::unique_ptr<ColorStrap> removed = std::move(straps.at(i));
    straps.erase(straps.begin() + i);
    editList(ListEdit::Remove, *removed);
    currentStrap = qMax(0, qMin(wasLast ? i - 1 : i, strapCount() - 1));
    saveDeviceValues();
}

void MoodShadow::setEndsColor(QColor color)
{
    ColorStrap* s = current();
    if (!s || s->endsColor == color) {
        return;
    }
    s->endsColor = color;
    editList(ListEdit::Update, *s);
}

void MoodShadow::addStrap(QString name, double speed)
{
    const QString strapName = name.isEmpty() ? QStringLiteral("(%1)").arg(strapCount()) : name;
    straps.push_back(newStrap(strapName, qMax(speed, 0.0)));
    currentStrap = strapCount() - 1;
    editList(ListEdit::Add, *straps.back());
    saveDeviceValues();
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
    ColorStrap* s = current();
    if (!s || s->keyColors == color) {
        return;
    }
    s->keyColors = color;
    editList(ListEdit::Update, *s);
}

void MoodShadow::onCtlDirChanged(uint32_t dir)
{
    controlOptions.installDirection = dir;
}

void MoodShadow::setSpeed(double speed)
{
    ColorStrap* s = current();
    if (!s || s->speed == qMax(speed, 0.0)) {
        return;
    }
    s->speed = qMax(speed, 0.0);
    saveDeviceValues();
}

void MoodShadow::setRange(double range)
{
    ColorStrap* s = current();
    if (!s || s->range == qBound(0.0, range, 1.0)) {
        return;
    }
    s->range = qBound(0.0, range, 1.0);
    saveDeviceValues();
}
