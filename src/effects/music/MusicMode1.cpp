#include "effects/music/MusicMode1.h"

#include "devices/LedLayout.h"
#include "effects/OptionBounds.h"
#include "service/config/ConfigurationManager.h"

#include <QColor>
#include <QJsonObject>
#include <QtDebug>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr char kTag[] = "[MusicMode1]:";

} // namespace

MusicMode1::MusicMode1(const EffectWorkerOptions& options, QObject* parent)
    : AbsMusicEffect(parent)
    , effectOptions(options)
{
}

MusicMode1::~MusicMode1() = default;

EffectWorkerOptions MusicMode1::workerOptions() const
{
    return effectOptions;
}

int32_t MusicMode1::load(const ControlOptions& ctlOptions)
{
    AbsMusicEffect::load(ctlOptions);
    shapeColors(ctlOptions.lines);
    readConfiguration();
    installDirection = ctlOptions.installDirection;
    return 0;
}

void MusicMode1::shapeColors(const QVector<uint32_t>& lines)
{
    colors = QVector<QVector<OV_RGB>>(lines.size());
    for (int i = 0; i < lines.size(); ++i) {
        colors[i] = QVector<OV_RGB>(static_cast<int>(lines.at(i)));
    }
}

void MusicMode1::readConfiguration()
{
    ConfigurationManager* store = ConfigurationManager::instance();
    const QString effectId = effectOptions.id;
    const QString controllerId = controlOptions.id;
    const QJsonObject config = store
                                   ->effectJsonValue(effectId, controllerId, QString(),
                                                     QStringLiteral("effects/dynamicMusic/") +
                                                         controlOptions.model + QStringLiteral(".json"))
                                   .toObject();
    fragments = readFragments(config, controlOptions.nbLeds);
    strength =
        OptionBounds::number(store->effectJsonValue(effectId, controllerId, QStringLiteral("strength")),
                             kMinStrength, kMaxStrength, 2.0);
    if (fragments.isEmpty()) {
        qWarning().noquote() << "没有为" + controllerId + "读取到任何配置。";
        fragments = defaultFragments(controlOptions.nbLeds);
        qInfo().noquote() << "为" + controllerId + "生成了默认配置";
    }
}

QHash<QString, Fragment> MusicMode1::readFragments(const QJsonObject& config, uint32_t nbLeds)
{
    QHash<QString, Fragment> result;
    const QJsonObject stored = config.value(QStringLiteral("fragments")).toObject();
    // A fragment's LEDs must lie on this strip, which is never longer than a frame can carry.
    const double lastEnd = std::min(nbLeds, LedLayout::maxLeds);
    constexpr int anyInt = std::numeric_limits<int>::max();
    for (auto it = stored.constBegin(); it != stored.constEnd(); ++it) {
        const QString name = it.key();
        const QJsonObject obj = it.value().toObject();
        const double begin = obj.value(QStringLiteral("beginIndex")).toDouble(0.0);
        const double end = obj.value(QStringLiteral("endIndex")).toDouble(0.0);
        if (begin < 0.0 || end < 0.0 || begin > lastEnd || end > lastEnd) {
            qWarning().noquote() << kTag
                                 << QStringLiteral("The fragment %1 lies outside the strip's %2 "
                                                   "LEDs (beginIndex %3, endIndex %4); skipped.")
                                        .arg(name)
                                        .arg(lastEnd)
                                        .arg(begin)
                                        .arg(end);
            continue;
        }
        Fragment fragment;
        fragment.beginIndex = static_cast<int>(begin);
        fragment.endIndex = static_cast<int>(end);
        // Beyond the level scale a bar is always dark or always full.
        fragment.dbEnhance = OptionBounds::number(obj.value(QStringLiteral("dbEnhance")), -80.0, 80.0, 0.0);
        fragment.mulEnhance =
            OptionBounds::number(obj.value(QStringLiteral("mulEnhance")), kMinStrength, kMaxStrength, 1.0);
        fragment.minFrequency =
            OptionBounds::number(obj.value(QStringLiteral("minFrequency")), 0.0, kMaxFrequency, 0.0);
        fragment.maxFrequency =
            OptionBounds::number(obj.value(QStringLiteral("maxFrequency")), 0.0, kMaxFrequency, 0.0);
        fragment.soundChannel =
            OptionBounds::integer(obj.value(QStringLiteral("soundChannel")), -anyInt, anyInt, 0);
        fragment.dir = OptionBounds::integer(obj.value(QStringLiteral("dir")), -anyInt, anyInt, 0);
        if (fragment.endIndex - fragment.beginIndex <= 0) {
            qWarning().noquote() << "音乐模式1的配置文件" + name +
                                        "不合规，endIndex与beginIndex至少相隔一个灯珠";
            continue;
        }
        if (!(fragment.maxFrequency - fragment.minFrequency > 10.0)) {
            qWarning().noquote() << "音乐模式1的配置文件" + name +
                                        "不合规，minFrequency与maxFreqnency至少相隔10Hz";
            continue;
        }
        result.insert(name, fragment);
    }
    return result;
}

QHash<QString, Fragment> MusicMode1::defaultFragments(uint32_t nbLeds)
{
    Fragment base;
    base.dbEnhance = 1.0;
    base.mulEnhance = 1.0;
    base.minFrequency = 0.0;
    base.maxFrequency = 200.0;
    base.soundChannel = 0;

    const int half = static_cast<int>(nbLeds / 2);
    QHash<QString, Fragment> result;
    Fragment left = base;
    left.beginIndex = 0;
    left.endIndex = half;
    left.dir = 1;
    result.insert(QStringLiteral("left"), left);
    int end = half;
    if (nbLeds % 2 == 1) {
        Fragment mid = base;
        mid.beginIndex = half;
        mid.endIndex = half + 1;
        mid.dir = 0;
        result.insert(QStringLiteral("mid"), mid);
        end = half + 1;
    }
    Fragment right = base;
    right.beginIndex = end;
    right.endIndex = static_cast<int>(nbLeds);
    right.dir = 0;
    result.insert(QStringLiteral("right"), right);
    return result;
}

void MusicMode1::setFragment(const QString& name, const Fragment& fragment)
{
    fragments.insert(name, fragment);
}

double MusicMode1::fallSmooth(QList<double>& recentLevels, double level)
{
    recentLevels.append(level);
    if (recentLevels.size() > 10) {
        recentLevels.removeFirst();
    }
    double sum = 0.0;
    for (double v : qAsConst(recentLevels)) {
        sum += v;
    }
    return std::max(sum / recentLevels.size(), level);
}

OV_RGB MusicMode1::heatColor(int count, int index)
{
    const double t = static_cast<double>(index) / count;
    const double h = 1.0 / 3.0 - 1.0 / 3.0 * std::min(1.0, 10.0 * std::sin(t / 3.0) * t * t);
    const QColor c = QColor::fromHsvF(h, 1.0, 1.0, 1.0);
    return OV_RGB{static_cast<uint8_t>(c.red()), static_cast<uint8_t>(c.green()),
                  static_cast<uint8_t>(c.blue())};
}

QVector<OV_RGB> MusicMode1::barColors(const QString&, Fragment& fragment, double value)
{
    const int n = fragment.endIndex - fragment.beginIndex;
    QVector<OV_RGB> result(std::max(0, n));
    int lit = std::min(n, static_cast<int>(value / 80.0 * n));
    if (n == 1 && value > 0) {
        lit = 1;
    }
    if (lit < 1) {
        return result;
    }
    for (int i = 0; i < lit; ++i) {
        const OV_RGB c = heatColor(lit, i);
        if (fragment.dir == 0) {
            result[i] = c;
        } else if (fragment.dir == 1) {
            result[n - 1 - i] = c;
        }
    }
    return result;
}

void MusicMode1::place(QVector<OV_RGB>& flat, const Fragment& fragment, const QVector<OV_RGB>& bar) const
{
    // Fragments come from hand-editable files: write only what lies on the strip.
    const int from = std::max(0, -fragment.beginIndex);
    const int to = std::min(bar.size(), flat.size() - fragment.beginIndex);
    for (int i = from; i < to; ++i) {
        flat[fragment.beginIndex + i] = bar.at(i);
    }
}

void MusicMode1::dealOut(const QVector<OV_RGB>& flat)
{
    int k = 0;
    for (QVector<OV_RGB>& line : colors) {
        for (OV_RGB& led : line) {
            led = k < flat.size() ? flat.at(k) : OV_RGB{};
            ++k;
        }
    }
    emit updateColors(colors);
}

void MusicMode1::spectrumUpdate(QVector<SoundChannel> channels)
{
    guard.run([this, &channels] { makeFrame(channels); });
}

void MusicMode1::makeFrame(const QVector<SoundChannel>& channels)
{
    QVector<OV_RGB> flat(static_cast<int>(controlOptions.nbLeds));
    for (auto it = fragments.begin(); it != fragments.end(); ++it) {
        Fragment& fragment = it.value();
        auto level = [&fragment](const SoundChannel& channel) {
            const double db = peakDb(channel.spectrums, fragment.minFrequency, fragment.maxFrequency);
            return std::clamp((db + fragment.dbEnhance) * fragment.mulEnhance, 0.0, 80.0);
        };
        double value;
        if (fragment.soundChannel == 1) {
            value = level(channels[0]);
        } else if (fragment.soundChannel == 2) {
            value = level(channels[1]);
        } else {
            value = std::max(level(channels[0]), level(channels[1]));
        }
        const double smoothed = fallSmooth(fragment.recentLevels, value);
        const QVector<OV_RGB> bar = barColors(it.key(), fragment, smoothed);
        if (bar.size() == fragment.endIndex - fragment.beginIndex) {
            place(flat, fragment, bar);
        }
    }
    if (installDirection == 1) {
        std::reverse(flat.begin(), flat.end());
    }
    dealOut(flat);
}

void MusicMode1::spectrumUpdate(QVector<Spectrum> spectrum)
{
    // The single-channel path: nothing connects to it; its scale and colours differ on purpose.
    QVector<OV_RGB> flat(static_cast<int>(controlOptions.nbLeds));
    for (auto it = fragments.begin(); it != fragments.end(); ++it) {
        Fragment& fragment = it.value();
        const double v = std::clamp(
            peakDb(spectrum, fragment.minFrequency, fragment.maxFrequency) * fragment.dbEnhance, 0.0, 100.0);
        const double smoothed = fallSmooth(fragment.recentLevels, v);
        const int n = fragment.endIndex - fragment.beginIndex;
        const double lit = smoothed / 100.0 * n;
        for (int i = 0; lit > i; ++i) {
            const int index = fragment.dir == 0 ? fragment.beginIndex + i : fragment.endIndex - i - 1;
            if (index >= 0 && index < flat.size()) {
                flat[index] = heatColor(n, i);
            }
        }
    }
    dealOut(flat);
}

void MusicMode1::capturerChangedHook()
{
    for (QVector<OV_RGB>& line : colors) {
        std::fill(line.begin(), line.end(), OV_RGB{});
    }
    emit updateColors(colors);
}

void MusicMode1::unload()
{
    saveConfiguration();
    AbsMusicEffect::unload();
}

void MusicMode1::saveConfiguration()
{
    QJsonObject stored;
    for (auto it = fragments.constBegin(); it != fragments.constEnd(); ++it) {
        const Fragment& f = it.value();
        stored.insert(it.key(), QJsonObject{{QStringLiteral("beginIndex"), f.beginIndex},
                                            {QStringLiteral("endIndex"), f.endIndex},
                                            {QStringLiteral("dbEnhance"), f.dbEnhance},
                                            {QStringLiteral("minFrequency"), f.minFrequency},
                                            {QStringLiteral("maxFrequency"), f.maxFrequency},
                                            {QStringLiteral("soundChannel"), f.soundChannel},
                                            {QStringLiteral("dir"), f.dir},
                                            {QStringLiteral("mulEnhance"), f.mulEnhance}});
    }
    ConfigurationManager* store = ConfigurationManager::instance();
    store->setEffectJsonValue(effectOptions.id, controlOptions.id, QStringLiteral("fragments"), stored);
    store->setEffectJsonValue(effectOptions.id, controlOptions.id, QStringLiteral("strength"), strength);
    store->saveEffectJsonObj(effectOptions.id);
}

void MusicMode1::setStrength(double value)
{
    if (value == strength) {
        return;
    }
    strength = value;
    if (!controlOptions.id.isEmpty()) {
        saveConfiguration();
    }
}

void MusicMode1::onCtlDirChanged(uint32_t dir)
{
    installDirection = dir;
}

void MusicMode1::onCtlBrightnessChanged(float) {}

void MusicMode1::onCtlKindNameChanged(QString) {}

void MusicMode1::onCtlEnableChanged(bool) {}

void MusicMode1::setMulEnhance(double value)
{
    for (auto it = fragments.begin(); it != fragments.end(); ++it) {
        it->mulEnhance = value;
    }
}
