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
    // XDG_RUNTIME_DIR when it is set, else "OrvantaSingleApp-<uid>.lock" in QDir::temp().
    static QString defaultLockFilePath();
    static QString lockFilePathFor(const QString& runtimeDir, uint userId);
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
