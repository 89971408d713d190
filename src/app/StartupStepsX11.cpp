#include "app/StartupSteps.h"

#include <QByteArray>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <cstring>

bool StartupSteps::x11DisplayReachable(const QByteArray& display)
{
    if (display.isEmpty()) {
        return false;
    }
    xcb_connection_t* connection = xcb_connect(display.constData(), nullptr);
    const bool reachable = xcb_connection_has_error(connection) == 0;
    xcb_disconnect(connection);
    return reachable;
}

bool StartupSteps::waylandDisplayReachable()
{
    QByteArray name = qgetenv("WAYLAND_DISPLAY");
    if (name.isEmpty()) {
        name = "wayland-0";
    }
    QByteArray path = name;
    if (!name.startsWith('/')) {
        const QByteArray runtimeDir = qgetenv("XDG_RUNTIME_DIR");
        if (runtimeDir.isEmpty()) {
            return false;
        }
        path = runtimeDir + '/' + name;
    }
    sockaddr_un address{};
    if (size_t(path.size()) >= sizeof address.sun_path) {
        return false;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.constData(), size_t(path.size()));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    const bool reachable = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return reachable;
}
