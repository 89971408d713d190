#pragma once

#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QMetaObject>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>

class DeviceManager;
class OVControllerEnumerator;

// Turns the strips off before the system sleeps and checks them after it wakes. It holds a
// delay lock of the login manager so that the black frames leave before the machine stops; the
// lock and the sleep notices are the platform's (SleepWatcherLogind.cpp). Main thread.
class SleepWatcher : public QObject
{
    Q_OBJECT
public:
    explicit SleepWatcher(DeviceManager* devices, QObject* parent = nullptr);
    ~SleepWatcher() override;

public slots:
    // start: the system goes to sleep; else it woke up (or the sleep failed).
    void onPrepareForSleep(bool start);

private:
    // Platform: subscribe to the notices and take the first lock; one info line where there is
    // no login manager.
    void connectToLoginManager();
    void takeLock();
    void dropLock();

    void darken();
    void onDarkened(const QString& id, bool written);
    void finishDarkening();
    void checkDevices();
    void onWoken(const QString& id, bool kept);
    void finishChecking();
    void endRound();
    OVControllerEnumerator* enumerator() const;

    DeviceManager* devices;
    bool asleep = false;
    bool checking = false; // between the wake and the last device's answer
    int lockFd = -1;
    bool lockPending = false;
    QHash<QString, QString> portsAtSleep; // id to port, of every device darkened
    QSet<QString> waitingFor;             // ids whose answer this round still lacks
    int written = 0;
    int resumed = 0;
    QList<QMetaObject::Connection> round;
    QTimer deadline;
    QElapsedTimer clock;
};
