#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

// Xwayland under a private headless Wayland compositor (weston), for the case of an X display
// that is not the desktop: its root shows only the X11 windows. The compositor runs in a runtime
// folder of its own and dies with the process that started it (setpriv --pdeathsig KILL).
class PrivateXwayland
{
public:
    PrivateXwayland();
    ~PrivateXwayland();

    // Starts the compositor and waits until its X display answers (Xwayland starts on demand).
    bool start(int waitMs = 15000);
    QString display() const { return displayName; }
    // The compositor's own Wayland socket, as a path WAYLAND_DISPLAY may name.
    QString waylandDisplay() const { return runtime.filePath(QStringLiteral("orvanta-test")); }
    QString errorString() const { return error; }

private:
    QTemporaryDir runtime;
    QProcess process;
    QString displayName;
    QString error;
};
