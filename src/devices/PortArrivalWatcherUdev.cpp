#include "devices/PortArrivalWatcherUdev.h"

#include <QDebug>
#include <QSocketNotifier>

#include <libudev.h>

constexpr char kTag[] = "[PortArrivalWatcherUdev]:";

PortArrivalWatcher* PortArrivalWatcher::createSystemWatcher(QObject* parent)
{
    return new PortArrivalWatcherUdev(parent);
}

PortArrivalWatcherUdev::PortArrivalWatcherUdev(QObject* parent)
    : PortArrivalWatcher(parent)
{
    context = udev_new();
    if (!context) {
        qWarning().noquote() << kTag << "Failed to create the udev context";
        return;
    }
    monitor = udev_monitor_new_from_netlink(context, "udev");
    if (!monitor || udev_monitor_filter_add_match_subsystem_devtype(monitor, "tty", nullptr) < 0 ||
        udev_monitor_enable_receiving(monitor) < 0) {
        // Containers and minimal systems run without udevd; the other arrival sources still work.
        qWarning().noquote() << kTag
                             << "The udev monitor is not available, "
                                "serial port arrivals are not reported by the system";
        return;
    }
    const int fd = udev_monitor_get_fd(monitor);
    if (fd < 0) {
        qWarning().noquote() << kTag << "The udev monitor has no descriptor";
        return;
    }
    notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &PortArrivalWatcherUdev::onMonitorReadable);
}

PortArrivalWatcherUdev::~PortArrivalWatcherUdev()
{
    delete notifier;
    notifier = nullptr;
    if (monitor) {
        udev_monitor_unref(monitor);
    }
    if (context) {
        udev_unref(context);
    }
}

void PortArrivalWatcherUdev::onMonitorReadable()
{
    // The monitor socket is non-blocking: one notification may carry several devices.
    while (udev_device* device = udev_monitor_receive_device(monitor)) {
        const char* action = udev_device_get_action(device);
        const char* node = udev_device_get_devnode(device);
        if (action && node && qstrcmp(action, "add") == 0) {
            const QString name = QString::fromLocal8Bit(node);
            qInfo().noquote() << kTag << "A serial port was added:" << name;
            emit portArrived(name);
        }
        udev_device_unref(device);
    }
}
