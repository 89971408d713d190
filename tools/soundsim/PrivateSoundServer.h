#pragma once

#include "PrivatePipeWire.h"

#include <QProcess>
#include <QString>
#include <QStringList>

// A private sound server for tests and benchmarks, speaking the PulseAudio protocol: pipewire and
// wireplumber in a private session (PrivatePipeWire: no card opened, no desktop touched), and a
// Pulse-protocol instance (`pipewire -c orvanta-pulse.conf`) on a socket in that folder. One null
// sink at start; a test may unload it and have none. Everything dies with the thread that started it.
class PrivateSoundServer
{
public:
    // The first sink, loaded at start: 48000 Hz, float, stereo.
    explicit PrivateSoundServer(const QString& sinkName = QStringLiteral("orvanta_test"),
                                const QString& description = QStringLiteral("Test output"));
    ~PrivateSoundServer();

    // Starts what is not running, waits until the server answers as PipeWire, and loads the first
    // sink unless it exists; false with errorString() if that failed.
    bool start();
    // Kills the Pulse-protocol instance with SIGKILL, as a crash would; its sinks go with it.
    void kill();
    // Kills the instance, wireplumber and pipewire.
    void killAll();
    // Stops the Pulse-protocol instance (SIGSTOP) and lets it go on (SIGCONT): its clients stay
    // connected and get no data meanwhile, as from a sink that PulseAudio suspended. (PipeWire
    // resumes a sink suspended by pactl at once while streams use it.)
    void freeze();
    void thaw();
    bool isRunning() const;
    QString errorString() const { return error; }

    // The server address for PULSE_SERVER, and the call that puts it in this process's environment.
    QString address() const;
    void exportAddress() const;

    // Runs pactl against this server; the standard output, or a null string on failure.
    QString pactl(const QStringList& args) const;
    // Loads another null sink ("mono" or a comma-separated channel_map for other layouts than
    // stereo); its module index, or -1.
    int loadSink(const QString& name, const QString& description, int rate = 48000,
                 const QString& format = QStringLiteral("float32le"), int channels = 2,
                 const QString& channelMap = QString());
    // Number of recording streams ("source outputs") the server has now.
    int sourceOutputCount() const;
    QString sinkName() const { return sink; }
    QString logPath() const { return session.logPath(); }
    PrivatePipeWire& pipeWire() { return session; }

private:
    QProcessEnvironment environment() const;
    bool waitForDefaultSink(int waitMs);

    PrivatePipeWire session;
    QString sink;
    QString description;
    QProcess pulse;
    QString error;
};
