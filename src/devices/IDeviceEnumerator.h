#pragma once

#include "devices/AbsRGBController.h"

#include <QObject>
#include <QSet>
#include <QString>

// A source of controllers: the built-in serial discovery and every plug-in in "deviceEnumerators".
// The virtual operations keep this order, since plug-ins are built against it.
class IDeviceEnumerator : public QObject
{
    Q_OBJECT
public:
    explicit IDeviceEnumerator(QObject* parent = nullptr);
    ~IDeviceEnumerator() override;

    // Every controller still alive; thread-safe.
    virtual QSet<AbsRGBControllerPtr> controllers() = 0;
    // Forgets the controller with this id; true when the enumerator handled the request.
    virtual bool removeController(const QString& id) = 0;

signals:
    void deviceEnabled(AbsRGBControllerPtr controller);
};

#define IDeviceEnumerator_iid "com.Orvanta.DeviceManagerInterface"
Q_DECLARE_INTERFACE(IDeviceEnumerator, IDeviceEnumerator_iid)
