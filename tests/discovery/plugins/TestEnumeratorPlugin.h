#pragma once

#include "IDeviceEnumerator.h"

#include <QMap>
#include <QMutex>
#include <QWeakPointer>

// An enumerator plug-in whose devices are announced on request, so the suite can drive the
// device manager through the real plug-in path.
class TestEnumeratorPlugin : public IDeviceEnumerator
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "com.Orvanta.DeviceManagerInterface")
    Q_INTERFACES(IDeviceEnumerator)
public:
    explicit TestEnumeratorPlugin(QObject* parent = nullptr);
    ~TestEnumeratorPlugin() override;

    QSet<AbsRGBControllerPtr> controllers() override;
    bool removeController(const QString& id) override;

    // Makes a controller with this model and serial and announces it; returns its id.
    Q_INVOKABLE QString announce(const QString& model, const QString& serial);
    // Makes and keeps a controller without announcing it.
    Q_INVOKABLE QString keepQuiet(const QString& model, const QString& serial);
    Q_INVOKABLE void announceNull();
    Q_INVOKABLE void releaseQuiet() { quiet.clear(); }
    // Raises statusChanged on a kept controller; false if it is gone.
    Q_INVOKABLE bool raiseStatus(const QString& id, uint status);
    Q_INVOKABLE int removeCalls() const { return removals; }

private:
    AbsRGBControllerPtr make(const QString& model, const QString& serial);

    QMutex mutex;
    QMap<QString, QWeakPointer<AbsRGBController>> devices;
    QList<AbsRGBControllerPtr> quiet; // held here until the manager takes them
    int removals = 0;
};
