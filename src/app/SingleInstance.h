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

    // QDir::temp() joined with "OrvantaSingleApp", then ".lock".
    static QString defaultLockFilePath();
    // The local server's name: the lock file's base name and the user, so that two users on one
    // machine never meet.
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
    static QString userTag();

    QString lockPath;
    QLockFile lock;
    QLocalServer* server = nullptr;
};
