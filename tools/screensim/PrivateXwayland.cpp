#include "PrivateXwayland.h"

#include "PrivateXServer.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcessEnvironment>
#include <QRegularExpression>

namespace {

// The compositor's socket and its lock file live in the runtime folder, and a Unix socket path may
// not pass 107 bytes: a deep TMPDIR (a build tree's test folder) gives way to /tmp.
QString runtimeTemplate()
{
    const QString preferred = QDir::tempPath() + QStringLiteral("/weston-XXXXXX");
    return preferred.size() + int(sizeof("/orvanta-test.lock")) <= 100
               ? preferred
               : QStringLiteral("/tmp/orvanta-weston-XXXXXX");
}

} // namespace

PrivateXwayland::PrivateXwayland()
    : runtime(runtimeTemplate())
{
    process.setProcessChannelMode(QProcess::SeparateChannels);
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
}

PrivateXwayland::~PrivateXwayland()
{
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(5000);
    }
}

bool PrivateXwayland::start(int waitMs)
{
    if (!runtime.isValid()) {
        error = QStringLiteral("no runtime folder");
        return false;
    }
    // The compositor insists on a runtime folder only its user can enter.
    QFile::setPermissions(runtime.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const QString log = runtime.filePath(QStringLiteral("weston.log"));
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime.path());
    env.remove(QStringLiteral("DISPLAY"));
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    process.setProcessEnvironment(env);
    process.start(QStringLiteral("setpriv"),
                  {QStringLiteral("--pdeathsig"), QStringLiteral("KILL"), QStringLiteral("weston"),
                   QStringLiteral("--backend=headless-backend.so"), QStringLiteral("--xwayland"),
                   QStringLiteral("--socket=orvanta-test"), QStringLiteral("--idle-time=0"),
                   QStringLiteral("--log=") + log});
    if (!process.waitForStarted(waitMs)) {
        error = QStringLiteral("cannot start weston: ") + process.errorString();
        return false;
    }
    // The compositor names the X display it listens on in its log.
    const QRegularExpression listening(QStringLiteral("xserver listening on display (:\\d+)"));
    QElapsedTimer clock;
    clock.start();
    while (displayName.isEmpty() && clock.elapsed() < waitMs && process.state() == QProcess::Running) {
        QFile file(log);
        if (file.open(QIODevice::ReadOnly)) {
            const QRegularExpressionMatch match = listening.match(QString::fromUtf8(file.readAll()));
            if (match.hasMatch()) {
                displayName = match.captured(1);
                break;
            }
        }
        process.waitForFinished(50);
    }
    if (displayName.isEmpty()) {
        error = QStringLiteral("weston named no X display");
        return false;
    }
    if (!PrivateXServer::waitReachable(displayName, waitMs)) {
        error = QStringLiteral("Xwayland on %1 does not answer").arg(displayName);
        return false;
    }
    return true;
}
