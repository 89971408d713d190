#include "service/screen/DeskCaptureBackend.h"

#include "service/screen/portal/DeskCaptureBackendPortal.h"
#include "service/screen/x11/DeskCaptureBackendX11.h"

#include <QDBusConnection>

std::unique_ptr<DeskCaptureBackend> DeskCaptureBackend::createDefault()
{
    const QString display = QString::fromLocal8Bit(qgetenv("DISPLAY"));
    const auto probe =
        display.isEmpty() ? DeskCaptureBackendX11::Probe::Unreachable : DeskCaptureBackendX11::probe(display);
    if (probe == DeskCaptureBackendX11::Probe::X11) {
        return std::make_unique<DeskCaptureBackendX11>(display);
    }
    const bool wayland = !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
    if ((wayland || probe == DeskCaptureBackendX11::Probe::Xwayland) &&
        DeskCaptureBackendPortal::available(QDBusConnection::sessionBus())) {
        return std::make_unique<DeskCaptureBackendPortal>(QDBusConnection::sessionBus());
    }
    if (!display.isEmpty()) {
        return std::make_unique<DeskCaptureBackendX11>(display); // retried every 2 s, or Xwayland told
    }
    return nullptr;
}

DeskCaptureState DeskCaptureBackend::noBackendState()
{
    return qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") ? DeskCaptureState::NoSource
                                                          : DeskCaptureState::XwaylandWithoutSharing;
}
