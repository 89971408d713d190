#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

// A private Xvfb for tests and benchmarks. It picks its own display number (-displayfd), listens
// on no TCP port and dies with the process that started it (setpriv --pdeathsig KILL). It can be
// killed like a crash and started again on the same number.
class PrivateXServer
{
public:
    // A restartable server takes a fixed high number instead of -displayfd's lowest free one, so
    // that parallel suites don't take it over while it is down.
    explicit PrivateXServer(const QStringList& extraArgs = {},
                            const QString& screen = QStringLiteral("1920x1080x24"), bool restartable = false);
    ~PrivateXServer();

    // Starts the server (on its old number if it ran before) and waits until it answers.
    bool start(int waitMs = 10000);
    void kill(); // SIGKILL, then reaped
    bool isRunning() const;
    int number() const { return displayNumber; }
    QString display() const { return QStringLiteral(":%1").arg(displayNumber); }
    QString errorString() const { return error; }

    // The server's pid as its lock file "/tmp/.X<n>-lock" tells (-1 without one: a server
    // started with -displayfd writes none), and its CPU time in seconds.
    qint64 lockPid() const;
    double cpuSeconds() const;

    // True once a connection to display succeeds within waitMs.
    static bool waitReachable(const QString& display, int waitMs);

private:
    bool startOnce(int waitMs);

    QStringList args;
    QString screenSpec;
    bool restartable;
    QProcess process;
    int displayNumber = -1;
    QString error;
};
