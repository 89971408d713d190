#include "app/SoakDriver.h"

#include "app/OrvantaApp.h"
#include "ui/ControlPage.h"
#include "ui/HomePage.h"
#include "ui/widgets/ColorWheel.h"

#include <QColor>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>
#include <QSlider>

#include <chrono>
#include <unistd.h>

namespace {

constexpr char kTag[] = "[SoakDriver]";
constexpr int kDevicePollMs = 50;
constexpr int kSettingMs = 3;
constexpr int kColourMs = 500;

const QString kSingleColour = QStringLiteral("com.orvanta.singleColor.singleColor1");
// Effects that need neither a screen to capture nor a sound server.
const QStringList kEffects{kSingleColour, QStringLiteral("com.orvanta.colorful.flowingEffect"),
                           QStringLiteral("com.orvanta.colorful.moodShadow"),
                           QStringLiteral("com.orvanta.colorful.ColorMap_3")};
// Layouts the strip dialog could give: each adds up, none asks again at the next start.
const QVector<QVector<uint32_t>> kLayouts{{72}, {18, 36, 18}, {30, 60, 30, 60}, {1}, {100, 100, 100}};

qint64 steadyNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

} // namespace

SoakDriver::SoakDriver(OrvantaApp& orvanta, const QString& driverMode, QObject* parent)
    : QObject(parent)
    , app(orvanta)
    , mode(driverMode)
    , timer(this)
    , random(QRandomGenerator::securelySeeded())
{
    if (!knowsMode(mode)) {
        qWarning().noquote() << kTag << "Unknown mode" << mode << "- nothing is driven";
        return;
    }
    connect(&timer, &QTimer::timeout, this, &SoakDriver::waitForDevice);
    timer.start(kDevicePollMs);
}

bool SoakDriver::knowsMode(const QString& mode)
{
    return mode == QLatin1String("settings") || mode == QLatin1String("colours");
}

void SoakDriver::waitForDevice()
{
    const QStringList ids = app.devices().controllerNames();
    if (ids.isEmpty()) {
        return;
    }
    controllerId = ids.first();
    currentEffect = app.devices().controlOptions(controllerId).subMode;
    emit app.window().homePage()->controllerEntryOrdered(controllerId);
    timer.disconnect();
    record("ready " + controllerId.toUtf8());
    if (mode == QLatin1String("settings")) {
        connect(&timer, &QTimer::timeout, this, &SoakDriver::changeSetting);
        timer.start(kSettingMs);
    } else {
        chooseEffect(kSingleColour);
        setBrightness(100);
        connect(&timer, &QTimer::timeout, this, &SoakDriver::nextColour);
        timer.start(kColourMs);
    }
}

void SoakDriver::changeSetting()
{
    ControlPage* page = app.window().controlPage();
    const QString controller = QStringLiteral("controller:") + controllerId;
    switch (random.bounded(8)) {
    case 0:
    case 1:
        setBrightness(int(random.bounded(1, 101)));
        break;
    case 2: {
        const int direction = int(random.bounded(2));
        recordSet(controller, QStringLiteral("installDirection"), direction);
        emit page->dirChanged(direction);
        break;
    }
    case 3: {
        const bool enable = random.bounded(4) != 0;
        recordSet(controller, QStringLiteral("enable"), enable);
        emit page->enableChanged(enable);
        break;
    }
    case 4: {
        const QString name = QStringLiteral("soak-%1").arg(++names);
        recordSet(controller, QStringLiteral("kindName"), name);
        emit app.window().homePage()->controllerNameChanged(controllerId, name);
        break;
    }
    case 5: {
        const QVector<uint32_t> lines = kLayouts.at(int(random.bounded(kLayouts.size())));
        uint32_t sum = 0;
        QJsonArray array;
        for (uint32_t n : lines) {
            sum += n;
            array.append(double(n));
        }
        recordSet(controller, QStringLiteral("nbLeds"), double(sum));
        recordSet(controller, QStringLiteral("lines"), array);
        // What the strip dialog does once its counts are accepted.
        if (AbsRGBControllerPtr device = app.devices().controller(controllerId)) {
            device->setLayout(sum, lines);
        }
        break;
    }
    case 6:
        chooseEffect(kEffects.at(int(random.bounded(kEffects.size()))));
        break;
    default:
        if (currentEffect == kSingleColour) {
            setColour(QColor(int(random.bounded(256)), int(random.bounded(256)), int(random.bounded(256))));
        }
        break;
    }
}

void SoakDriver::nextColour()
{
    // Never black and never the last one, so that the device shows each as new.
    QColor colour;
    do {
        colour =
            QColor(int(random.bounded(16, 256)), int(random.bounded(16, 256)), int(random.bounded(16, 256)));
    } while (colour == lastColour);
    lastColour = colour;
    record(
        QStringLiteral("colour %1 %2 %3").arg(colour.red()).arg(colour.green()).arg(colour.blue()).toUtf8());
    if (auto* wheel = app.window().controlPage()->findChild<ColorWheel*>(QStringLiteral("colorWheel"))) {
        emit wheel->colorChanged(colour);
    }
}

void SoakDriver::chooseEffect(const QString& effectId)
{
    const QString group = EffectsManager::groupIdOf(effectId);
    const QString controller = QStringLiteral("controller:") + controllerId;
    recordSet(controller, QStringLiteral("workMode"), group);
    recordSet(controller, QStringLiteral("subMode"), effectId);
    recordSet(QStringLiteral("global"), QStringLiteral("lastBinding/%1/%2").arg(controllerId, group),
              effectId);
    currentEffect = effectId;
    emit app.window().controlPage()->workerChanged(effectId);
}

void SoakDriver::setBrightness(int percent)
{
    auto* slider = app.window().controlPage()->findChild<QSlider*>(QStringLiteral("brightnessSlider"));
    // The page turns the slider's value into a brightness so.
    recordSet(QStringLiteral("controller:") + controllerId, QStringLiteral("brightness"),
              double(percent / 100.0f));
    slider->setValue(percent);
}

void SoakDriver::setColour(const QColor& colour)
{
    auto* wheel = app.window().controlPage()->findChild<ColorWheel*>(QStringLiteral("colorWheel"));
    if (!wheel) {
        return;
    }
    recordSet(QStringLiteral("effect:") + kSingleColour, controllerId + QStringLiteral("/color"),
              double(colour.rgb()));
    emit wheel->colorChanged(colour);
}

void SoakDriver::recordSet(const QString& scope, const QString& path, const QJsonValue& value)
{
    QByteArray json = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    json = json.mid(1, json.size() - 2);
    record("set " + scope.toUtf8() + ' ' + path.toUtf8() + ' ' + json);
}

void SoakDriver::record(const QByteArray& what)
{
    // One write of a short line: whole on the pipe even when the program is killed right after.
    const QByteArray line = "soak-driver " + QByteArray::number(steadyNs()) + ' ' + what + '\n';
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.constData(), size_t(line.size()));
}
