#include "app/SingleInstance.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <QTimer>

namespace {

constexpr char kTag[] = "[SingleInstance]";

// A request is one short line; anything longer is not from us.
constexpr int kMaxRequestBytes = 64;
constexpr int kClientTimeoutMs = 5000;
} // namespace

const QByteArray SingleInstance::showRequest = QByteArrayLiteral("show\n");

SingleInstance::SingleInstance(const QString& lockFilePath, QObject* parent)
    : QObject(parent)
    , lockPath(lockFilePath)
    , lock(lockFilePath)
{
}

SingleInstance::~SingleInstance()
{
    if (server) {
        server->close();
    }
    if (lock.isLocked()) {
        lock.unlock();
    }
}

QString SingleInstance::defaultLockFilePath(QString* error)
{
    const QString runtimeDir = qEnvironmentVariable("XDG_RUNTIME_DIR");
    const QString path = lockFilePathFor(runtimeDir, userId());
    const QString folder = QFileInfo(path).absolutePath();
    if (!runtimeDir.isEmpty() && QFileInfo(runtimeDir).isDir()) {
        return path;
    }
    const QString problem = privateFolderProblem(folder);
    if (!problem.isEmpty()) {
        *error = QStringLiteral("orvanta: cannot keep the single-instance lock in %1: %2. Remove it, or "
                                "set XDG_RUNTIME_DIR to a folder of your own")
                     .arg(folder, problem);
        return QString();
    }
    return path;
}

QString SingleInstance::lockFilePathFor(const QString& runtimeDir, uint userId)
{
    // The runtime folder is the user's own; the temporary folder is shared, so the lock goes
    // into a folder of the user's own there.
    if (!runtimeDir.isEmpty() && QFileInfo(runtimeDir).isDir()) {
        return QDir(runtimeDir).filePath(QStringLiteral("OrvantaSingleApp.lock"));
    }
    return QDir::temp().filePath(QStringLiteral("orvanta-%1/OrvantaSingleApp.lock").arg(userId));
}

QString SingleInstance::serverName(const QString& lockFilePath)
{
    const QFileInfo lockInfo(lockFilePath);
    return lockInfo.absoluteDir().filePath(lockInfo.completeBaseName() + QStringLiteral(".socket"));
}

bool SingleInstance::tryLock(int timeoutMs)
{
    return lock.tryLock(timeoutMs);
}

bool SingleInstance::isLocked() const
{
    return lock.isLocked();
}

bool SingleInstance::listen()
{
    if (server) {
        return server->isListening();
    }
    server = new QLocalServer(this);
    server->setSocketOptions(QLocalServer::UserAccessOption);
    const QString name = serverName(lockPath);
    // Holding the lock means any socket of that name is left over from a crashed run.
    QLocalServer::removeServer(name);
    if (!server->listen(name)) {
        qWarning().noquote() << kTag << "Failed to listen on" << name << ":" << server->errorString();
        return false;
    }
    connect(server, &QLocalServer::newConnection, this, &SingleInstance::onNewConnection);
    qInfo().noquote() << kTag << "Listening for a second instance on" << server->fullServerName();
    return true;
}

void SingleInstance::onNewConnection()
{
    while (QLocalSocket* socket = server->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        // A client that never finishes its request is not kept around.
        QTimer::singleShot(kClientTimeoutMs, socket, &QLocalSocket::abort);
        connect(socket, &QLocalSocket::readyRead, this, [this, socket]() { onReadyRead(socket); });
        if (socket->bytesAvailable() > 0) {
            onReadyRead(socket);
        }
    }
}

void SingleInstance::onReadyRead(QLocalSocket* socket)
{
    if (!socket->canReadLine()) {
        if (socket->bytesAvailable() > kMaxRequestBytes) {
            qWarning() << kTag << "Dropped an overlong request from a local client";
            socket->abort();
        }
        return;
    }
    const QByteArray request = socket->readLine(kMaxRequestBytes + 1);
    socket->disconnectFromServer();
    if (request != showRequest) {
        qWarning() << kTag << "Ignored an unknown request from a local client:" << request.left(32);
        return;
    }
    qInfo() << kTag << "A second instance asked to show the main window";
    emit showRequested();
}

bool SingleInstance::sendShowRequest(const QString& lockFilePath, int timeoutMs)
{
    QLocalSocket socket;
    socket.connectToServer(serverName(lockFilePath));
    if (!socket.waitForConnected(timeoutMs)) {
        return false;
    }
    socket.write(showRequest);
    const bool written = socket.waitForBytesWritten(timeoutMs);
    socket.disconnectFromServer();
    if (socket.state() != QLocalSocket::UnconnectedState) {
        socket.waitForDisconnected(timeoutMs);
    }
    return written;
}
