#include "TestEnumeratorPlugin.h"

#include <QMutexLocker>

namespace {

// A device that keeps its frames in memory.
class MemoryController : public AbsRGBController
{
public:
    explicit MemoryController(const ControlOptions& initial) { options = initial; }
    void updateFrameHeader() override {}
    void writeColors(const QVector<QVector<OV_RGB>>& colors) override { lastColors = colors; }

    QVector<QVector<OV_RGB>> lastColors;
};

} // namespace

TestEnumeratorPlugin::TestEnumeratorPlugin(QObject* parent)
    : IDeviceEnumerator(parent)
{
}

TestEnumeratorPlugin::~TestEnumeratorPlugin() = default;

QSet<AbsRGBControllerPtr> TestEnumeratorPlugin::controllers()
{
    QSet<AbsRGBControllerPtr> alive;
    QMutexLocker locker(&mutex);
    for (const auto& weak : qAsConst(devices)) {
        if (AbsRGBControllerPtr strong = weak.toStrongRef())
            alive.insert(strong);
    }
    return alive;
}

bool TestEnumeratorPlugin::removeController(const QString& id)
{
    QMutexLocker locker(&mutex);
    ++removals;
    return devices.remove(id) > 0;
}

AbsRGBControllerPtr TestEnumeratorPlugin::make(const QString& model, const QString& serial)
{
    ControlOptions options;
    options.model = model;
    options.serial = serial;
    options.id = model.isEmpty() ? QString() : model + QLatin1Char(':') + serial;
    AbsRGBControllerPtr controller(new MemoryController(options), &QObject::deleteLater);
    QMutexLocker locker(&mutex);
    devices.insert(options.id, controller.toWeakRef());
    return controller;
}

QString TestEnumeratorPlugin::announce(const QString& model, const QString& serial)
{
    AbsRGBControllerPtr controller = make(model, serial);
    const QString id = controller->controlOptions().id;
    emit deviceEnabled(controller);
    return id;
}

QString TestEnumeratorPlugin::keepQuiet(const QString& model, const QString& serial)
{
    AbsRGBControllerPtr controller = make(model, serial);
    quiet.append(controller);
    return controller->controlOptions().id;
}

void TestEnumeratorPlugin::announceNull()
{
    emit deviceEnabled(AbsRGBControllerPtr());
}

bool TestEnumeratorPlugin::raiseStatus(const QString& id, uint status)
{
    AbsRGBControllerPtr controller;
    {
        QMutexLocker locker(&mutex);
        controller = devices.value(id).toStrongRef();
    }
    if (!controller)
        return false;
    emit controller->statusChanged(status, QStringLiteral("test failure %1").arg(status));
    return true;
}
