#pragma once

#include "devices/AbsRGBController.h"
#include "devices/ControlOptions.h"
#include "devices/PortAccess.h"

#include <QHash>
#include <QObject>
#include <QPair>
#include <QString>
#include <QStringList>

class IDeviceEnumerator;
class QPluginLoader;

// The registry of live controllers, holding the strong reference to each, and of the
// enumerators that find them: the built-in one and the plug-ins in "deviceEnumerators".
class DeviceManager : public QObject
{
    Q_OBJECT
public:
    // The loader an enumerator came from (null for the built-in one) and the enumerator.
    using EnumeratorEntry = QPair<QPluginLoader*, IDeviceEnumerator*>;

    explicit DeviceManager(QObject* parent = nullptr);
    ~DeviceManager() override;

    AbsRGBControllerPtr controller(QString id) const;
    // A shared blank record for an unknown id: its id is empty.
    ControlOptions& controlOptions(QString id);
    QStringList controllerNames() const;
    void removeController(QString ctlName);
    void addEnumeratorControllers(IDeviceEnumerator* enumerator);

    QHash<QString, EnumeratorEntry> enumeratorEntries() const { return enumerators; }

signals:
    void newController(QString ctlName);
    void controllerFailed(QString ctlName);
    // From the built-in enumerator: a port the user means did not open.
    void portNotOpened(PortProblem problem);

private slots:
    void addController(AbsRGBControllerPtr controller);
    void onControllerStatus(QString id, uint32_t status, QString description);

private:
    void loadPlugins();
    void addBuiltInEnumerator();

    QHash<QString, AbsRGBControllerPtr> controllers;
    QHash<QString, EnumeratorEntry> enumerators;
};
