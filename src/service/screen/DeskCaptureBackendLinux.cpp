#include "service/screen/DeskCaptureBackend.h"

#include "service/screen/portal/DeskCaptureBackendPortal.h"
#include "service/screen/x11/DeskCaptureBackendX11.h"

#include <QDBusConnection>

DeskCaptureBackend* DeskCaptureBackend::createDefault(QObject* parent)
{
    const QString display = QString::fromLocal8Bit(qgetenv("DISPLAY"));
    const auto probe =
        display.isEmpty() ? DeskCaptureBackendX11::Probe::Unreachable : DeskCaptureBackendX11::probe(display);
    if (probe == DeskCaptureBackendX11::Probe::X11) {
        return new DeskCaptureBackendX11(display, parent);
    }
    const bool wayland = !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
    if ((wayland || probe == DeskCaptureBackendX11::Probe::Xwayland) &&
        DeskCaptureBackendPortal::available(QDBusConnection::sessionBus())) {
        return new DeskCaptureBackendPortal(QDBusConnection::sessionBus(), parent);
    }
    if (!display.isEmpty()) {
        return new DeskCaptureBackendX11(display, parent); // retried every 2 s, or Xwayland told
    }
    return nullptr;
}

DeskCaptureState DeskCaptureBackend::noBackendState()
{
    return qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") ? DeskCaptureState::NoSource
                                                          : DeskCaptureState::XwaylandWithoutSharing;
}
