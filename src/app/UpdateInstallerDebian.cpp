#include "app/UpdateInstaller.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

namespace {
// Values go in as positional parameters, never into the text: $1 the pid to outlive (30 s at
// most), $2 the package, $3 the program to start again.
const QString kScript = QStringLiteral(
    "i=0; while [ \"$i\" -lt 300 ] && kill -0 \"$1\" 2>/dev/null; do sleep 0.1; i=$((i+1)); done; "
    "pkexec /usr/bin/apt-get install -y \"$2\"; exec \"$3\"");
} // namespace

bool UpdateInstaller::startDetached(const QString& package, QString* problem)
{
    // pkexec asks for the password through the session's polkit agent; without it apt-get could
    // not install, and the program would have quit for nothing.
    if (QStandardPaths::findExecutable(QStringLiteral("pkexec")).isEmpty()) {
        *problem = QStringLiteral("pkexec is not on PATH, the update cannot be installed (install the "
                                  "package \"pkexec\")");
        return false;
    }
    QProcess::startDetached(QStringLiteral("/bin/sh"),
                            {QStringLiteral("-c"), kScript, QStringLiteral("orvanta-update"),
                             QString::number(QCoreApplication::applicationPid()),
                             QFileInfo(package).absoluteFilePath(), QCoreApplication::applicationFilePath()},
                            QDir::currentPath());
    return true;
}
