#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QProcess>
#include <QStringList>

// One run of the orvanta program: its output kept line by line as it comes (standard output the
// log, standard error the soak driver's journal and any sanitizer report), its process looked at
// and signalled. Lives on the soak's main thread; waits run its event loop.
class ProgramRun : public QObject
{
    Q_OBJECT
public:
    ProgramRun(const QString& program, const QProcessEnvironment& environment, QObject* parent = nullptr);
    ~ProgramRun() override;

    bool start(const QStringList& arguments = QStringList());
    bool isRunning() const { return process.state() == QProcess::Running; }
    qint64 pid() const { return process.processId(); }

    // The log lines so far that contain text (standard output; the run's log files as well, which
    // hold what a console that fell behind left out).
    int logged(const QString& text) const;
    QList<QByteArray> driverLines() const { return journal; }
    // What the sanitizers or a crash said on standard error, empty when nothing.
    QByteArray faults() const;
    // The last lines of standard error (the driver's journal left out) and of the log, for a
    // report on a program that ended.
    QString lastWords(int lines) const;

    // Sends a signal; for SIGKILL also notes the steady-clock time it went.
    void signal(int number);
    qint64 killedAtNs() const { return killedNs; }
    // Waits for the end; true when it ended by itself with status 0 (or was killed when killed).
    bool finish(int waitMs);
    QString endText() const;

signals:
    void driverLine(const QByteArray& line);

private:
    void readOutput();
    void readErrors();

    QString program;
    QString logsDir;
    QProcess process;
    QByteArray out;
    QByteArray outPartial;
    QByteArray errPartial;
    QByteArray errors;
    QList<QByteArray> journal;
    qint64 killedNs = 0;
};
