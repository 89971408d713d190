#include "PrivateSoundServer.h"

#include <QElapsedTimer>
#include <QThread>

#include <signal.h>

PrivateSoundServer::PrivateSoundServer(const QString& sinkName, const QString& description)
    : sink(sinkName)
    , description(description)
{
    session.addConfig(QStringLiteral(ORVANTA_SOUNDSIM_DIR "/orvanta-pulse.conf"),
                      QStringLiteral("pipewire/orvanta-pulse.conf"));
}

PrivateSoundServer::~PrivateSoundServer()
{
    killAll();
}

QString PrivateSoundServer::address() const
{
    return QStringLiteral("unix:") + session.folder() + QStringLiteral("/native");
}

void PrivateSoundServer::exportAddress() const
{
    qputenv("PULSE_SERVER", address().toUtf8());
}

QProcessEnvironment PrivateSoundServer::environment() const
{
    QProcessEnvironment env = session.environment();
    // The instance puts its socket "native" here, where pactl finds it too.
    env.insert(QStringLiteral("PULSE_RUNTIME_PATH"), session.folder());
    env.insert(QStringLiteral("PULSE_STATE_PATH"), session.folder() + QStringLiteral("/state"));
    env.insert(QStringLiteral("PULSE_SERVER"), address());
    return env;
}

bool PrivateSoundServer::start()
{
    if (!session.start()) {
        error = session.errorString();
        return false;
    }
    if (pulse.state() == QProcess::NotRunning) {
        pulse.setProcessEnvironment(environment());
        pulse.setStandardOutputFile(logPath(), QIODevice::Append);
        pulse.setStandardErrorFile(logPath(), QIODevice::Append);
        pulse.start(QStringLiteral("setpriv"),
                    {QStringLiteral("--pdeathsig"), QStringLiteral("KILL"), QStringLiteral("pipewire"),
                     QStringLiteral("-c"), QStringLiteral("orvanta-pulse.conf")});
        if (!pulse.waitForStarted(5000)) {
            error = QStringLiteral("cannot start the Pulse instance of pipewire: ") + pulse.errorString();
            return false;
        }
    }
    QElapsedTimer clock;
    clock.start();
    bool answers = false;
    while (!answers && clock.elapsed() < 10000) {
        if (pulse.state() != QProcess::Running) {
            error = QStringLiteral("the Pulse instance of pipewire ended; see ") + logPath();
            return false;
        }
        answers = pactl({QStringLiteral("info")}).contains(QLatin1String("on PipeWire"));
        if (!answers) {
            QThread::msleep(20);
        }
    }
    if (!answers) {
        error = QStringLiteral("the Pulse instance of pipewire did not answer; see ") + logPath();
        kill();
        return false;
    }
    const QString sinks = pactl({QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("sinks")});
    bool listed = false;
    for (const QString& line : sinks.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        listed = listed || line.section(QLatin1Char('\t'), 1, 1) == sink;
    }
    if (!listed && loadSink(sink, description) < 0) {
        error = QStringLiteral("cannot load the sink ") + sink;
        return false;
    }
    return waitForDefaultSink(10000);
}

bool PrivateSoundServer::waitForDefaultSink(int waitMs)
{
    // WirePlumber picks the default among the sinks; until then a client would see none.
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < waitMs) {
        const QString name = pactl({QStringLiteral("get-default-sink")}).trimmed();
        const QString sinks =
            pactl({QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("sinks")});
        for (const QString& line : sinks.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            if (!name.isEmpty() && line.section(QLatin1Char('\t'), 1, 1) == name) {
                return true;
            }
        }
        QThread::msleep(20);
    }
    error = QStringLiteral("no default sink was chosen; see ") + logPath();
    return false;
}

void PrivateSoundServer::kill()
{
    if (pulse.state() != QProcess::NotRunning) {
        pulse.kill();
        pulse.waitForFinished(5000);
    }
}

void PrivateSoundServer::killAll()
{
    kill();
    session.killAll();
}

void PrivateSoundServer::freeze()
{
    if (pulse.state() == QProcess::Running) {
        ::kill(pid_t(pulse.processId()), SIGSTOP);
    }
}

void PrivateSoundServer::thaw()
{
    if (pulse.state() == QProcess::Running) {
        ::kill(pid_t(pulse.processId()), SIGCONT);
    }
}

bool PrivateSoundServer::isRunning() const
{
    return pulse.state() == QProcess::Running && session.isRunning();
}

QString PrivateSoundServer::pactl(const QStringList& args) const
{
    QProcess tool;
    tool.setProcessEnvironment(environment());
    tool.start(QStringLiteral("pactl"), args);
    if (!tool.waitForFinished(5000) || tool.exitStatus() != QProcess::NormalExit || tool.exitCode() != 0) {
        tool.kill();
        tool.waitForFinished(1000);
        return QString();
    }
    const QString out = QString::fromUtf8(tool.readAllStandardOutput());
    return out.isNull() ? QStringLiteral("") : out; // success with no output is empty, not null
}

int PrivateSoundServer::loadSink(const QString& name, const QString& description, int rate,
                                 const QString& format, int channels, const QString& channelMap)
{
    QStringList args{QStringLiteral("load-module"),
                     QStringLiteral("module-null-sink"),
                     QStringLiteral("sink_name=") + name,
                     QStringLiteral("sink_properties='device.description=\"%1\"'").arg(description),
                     QStringLiteral("rate=%1").arg(rate),
                     QStringLiteral("format=") + format,
                     QStringLiteral("channels=%1").arg(channels)};
    if (!channelMap.isEmpty()) {
        args << QStringLiteral("channel_map=") + channelMap;
    }
    const QString out = pactl(args);
    bool ok = false;
    const int index = out.trimmed().toInt(&ok);
    return ok ? index : -1;
}

int PrivateSoundServer::sourceOutputCount() const
{
    const QString out =
        pactl({QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("source-outputs")});
    if (out.isNull()) {
        return -1;
    }
    return out.split(QLatin1Char('\n'), Qt::SkipEmptyParts).size();
}
