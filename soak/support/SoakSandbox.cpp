#include "SoakSandbox.h"

#include <QDir>
#include <QFile>

SoakSandbox::SoakSandbox(const QString& name)
    : dir(QDir::tempPath() + QStringLiteral("/orvanta-") + name + QStringLiteral("-XXXXXX"))
{
    if (!dir.isValid()) {
        return;
    }
    for (const char* folder : {"home", "config", "data", "runtime", "tmp", "ports"}) {
        QDir().mkpath(path(QLatin1String(folder)));
    }
    // The single-instance rule wants the runtime folder the user's own, mode 0700.
    QFile::setPermissions(path(QStringLiteral("runtime")),
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

QString SoakSandbox::path(const QString& relative) const
{
    return relative.isEmpty() ? dir.path() : dir.path() + QLatin1Char('/') + relative;
}

QProcessEnvironment SoakSandbox::environment(const QString& display, const QString& pulseServer) const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("HOME"), path(QStringLiteral("home")));
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), path(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_DATA_HOME"), path(QStringLiteral("data")));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), path(QStringLiteral("runtime")));
    env.insert(QStringLiteral("TMPDIR"), path(QStringLiteral("tmp")));
    env.insert(QStringLiteral("ORVANTA_EXTRA_PORTS"), path(QStringLiteral("ports/*")));
    env.insert(QStringLiteral("DISPLAY"), display);
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    // No GL: Mesa's loader leaks at exit under the address sanitizer, and no window needs it.
    env.insert(QStringLiteral("QT_XCB_GL_INTEGRATION"), QStringLiteral("none"));
    // A path nobody listens on rather than nothing: libpulse would look for a desktop's server.
    env.insert(QStringLiteral("PULSE_SERVER"),
               pulseServer.isEmpty() ? QStringLiteral("unix:") + path(QStringLiteral("no-sound-server"))
                                     : pulseServer);
    env.remove(QStringLiteral("ORVANTA_SOAK_FAULT"));
    env.insert(QStringLiteral("ASAN_OPTIONS"), QStringLiteral("detect_leaks=1"));
    env.insert(QStringLiteral("LSAN_OPTIONS"), QStringLiteral("suppressions=") + ORVANTA_LSAN_SUPPRESSIONS);
    env.insert(QStringLiteral("UBSAN_OPTIONS"), QStringLiteral("print_stacktrace=1"));
    return env;
}
