#pragma once

#include <QCoreApplication>
#include <QMap>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTest>

// Outside programs the suites run (binary and packaging tools, scripts, the program itself) and
// what they said.
namespace Command {

// A tool's run: lintian and dpkg on a loaded machine.
constexpr int kToolMs = 600000;

struct Result
{
    int exitCode = -1; // -1 also when it did not start, crashed or had to be killed
    QString out;       // standard output, and standard error unless the mode separates it
};

inline Result run(const QString& program, const QStringList& args, const QProcessEnvironment& env = {},
                  const QString& workingDir = {},
                  QProcess::ProcessChannelMode mode = QProcess::MergedChannels)
{
    QProcess process;
    process.setProcessChannelMode(mode);
    if (!env.isEmpty()) {
        process.setProcessEnvironment(env);
    }
    if (!workingDir.isEmpty()) {
        process.setWorkingDirectory(workingDir);
    }
    process.start(program, args);
    if (!process.waitForStarted(kToolMs)) {
        return {-1, program + ": " + process.errorString()};
    }
    if (!process.waitForFinished(kToolMs)) {
        process.kill();
        process.waitForFinished(kToolMs);
    }
    const int code = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    return {code, QString::fromUtf8(process.readAllStandardOutput())};
}

// Waits for the end with the event loop running: a virtual strip answers from this thread's loop.
inline bool waitForEnd(QProcess& process, int ms)
{
    return QTest::qWaitFor([&process] { return process.state() == QProcess::NotRunning; }, ms);
}

// This test program again in a child process, running the test functions `args` names with
// `extra` in its environment.
inline Result rerun(const QStringList& args, const QMap<QString, QString>& extra)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (auto it = extra.begin(); it != extra.end(); ++it) {
        env.insert(it.key(), it.value());
    }
    return run(QCoreApplication::applicationFilePath(), args, env);
}

} // namespace Command
