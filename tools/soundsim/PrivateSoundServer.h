#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// A private PulseAudio daemon for tests and benchmarks: one null sink, a socket in a temporary
// folder, no user daemon, D-Bus or X11 touched. It dies with the process that started it.
class PrivateSoundServer
{
public:
    // The first sink, loaded at start: 48000 Hz, float, stereo.
    explicit PrivateSoundServer(const QString& sinkName = QStringLiteral("orvanta_test"),
                                const QString& description = QStringLiteral("Test output"));
    ~PrivateSoundServer();

    // Starts the daemon and waits until it answers; false with errorString() if it did not.
    bool start();
    // Kills the daemon with SIGKILL, as a crash would.
    void kill();
    bool isRunning() const;
    QString errorString() const { return error; }

    // The server address for PULSE_SERVER, and the call that puts it in this process's environment.
    QString address() const;
    void exportAddress() const;

    // Runs pactl against this daemon; the standard output, or a null string on failure.
    QString pactl(const QStringList& args) const;
    // Loads another null sink; its module index, or -1.
    int loadSink(const QString& name, const QString& description, int rate = 48000,
                 const QString& format = QStringLiteral("float32le"));
    // Number of recording streams ("source outputs") the daemon has now.
    int sourceOutputCount() const;
    QString sinkName() const { return sink; }
    QString logPath() const;

private:
    QProcessEnvironment environment() const;
    static QStringList nullSinkArguments(const QString& name, const QString& description, int rate,
                                         const QString& format);

    QTemporaryDir dir;
    QString sink;
    QString description;
    QProcess process;
    QString error;
};
