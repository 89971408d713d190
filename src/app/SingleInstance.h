#pragma once

#include <QByteArray>
#include <QLockFile>
#include <QObject>
#include <QString>

class QLocalServer;
class QLocalSocket;

// The single-instance lock, and the local channel on which a second start asks the running
// instance to show itself.
class SingleInstance : public QObject
{
    Q_OBJECT

public:
    explicit SingleInstance(const QString& lockFilePath, QObject* parent = nullptr);
    ~SingleInstance() override;

    // Per user, so that two users on one machine never meet: "OrvantaSingleApp.lock" in
    // XDG_RUNTIME_DIR when it is set, else in the private folder "orvanta-<uid>" under
    // QDir::temp(). Empty, with `error` saying why and naming it, when that private folder cannot
    // be made or is not private (see privateFolderProblem).
    static QString defaultLockFilePath(QString* error);
    static QString lockFilePathFor(const QString& runtimeDir, uint userId);
    // Makes the folder with mode 0700 when it is absent. Empty when it is a directory (not a link)
    // owned by this user with mode 0700, else what is wrong with it: in a shared temporary folder
    // anyone may have made it first, to hold the lock or listen on the socket.
    static QString privateFolderProblem(const QString& folder);
    // The local socket's full path: beside the lock file, named after it.
    static QString serverName(const QString& lockFilePath);

    bool tryLock(int timeoutMs);
    bool isLocked() const;
    // First instance, once the lock is held: accept show requests.
    bool listen();

    // Second instance: deliver one show request to the first. False when nobody listens; the
    // caller ends the same way in both cases.
    static bool sendShowRequest(const QString& lockFilePath, int timeoutMs);

    static const QByteArray showRequest;

signals:
    void showRequested();

private:
    void onNewConnection();
    void onReadyRead(QLocalSocket* socket);
    static uint userId();

    QString lockPath;
    QLockFile lock;
    QLocalServer* server = nullptr;
};
