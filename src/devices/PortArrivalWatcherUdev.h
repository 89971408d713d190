#pragma once

#include "devices/PortArrivalWatcher.h"

struct udev;
struct udev_monitor;
class QSocketNotifier;

// Reports tty devices that udev announces as added, by their device node.
class PortArrivalWatcherUdev : public PortArrivalWatcher
{
    Q_OBJECT
public:
    explicit PortArrivalWatcherUdev(QObject* parent = nullptr);
    ~PortArrivalWatcherUdev() override;

    bool isActive() const { return notifier != nullptr; }

private:
    void onMonitorReadable();

    struct udev* context = nullptr;
    struct udev_monitor* monitor = nullptr;
    QSocketNotifier* notifier = nullptr; // child
};
