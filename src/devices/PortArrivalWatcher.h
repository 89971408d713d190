#pragma once

#include <QObject>
#include <QString>

// A source of serial-port arrival notices. Each notice carries the name the port is opened by
// (a device path such as "/dev/ttyACM0"); what reports it is a matter for the platform.
class PortArrivalWatcher : public QObject
{
    Q_OBJECT
public:
    explicit PortArrivalWatcher(QObject* parent = nullptr);
    ~PortArrivalWatcher() override;

    // The system's own notices (udev on Linux); defined in the platform file.
    static PortArrivalWatcher* createSystemWatcher(QObject* parent);

signals:
    void portArrived(QString portName);
};
