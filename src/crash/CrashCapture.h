#pragma once

#include <QString>
#include <QStringList>
#include <QtGlobal>

// The Linux crash capture: on a fatal signal it writes one report (CrashReportFormat.h) into a
// folder opened in advance, logs the outcome, calls the hook and ends the process with the same
// signal. Everything the signal side needs is prepared here on the main thread, in fixed buffers:
// the handler allocates nothing, takes no lock and calls no Qt. One object at a time.
class CrashCapture
{
public:
    // Called in the crashed process, from the signal handler, after the report; it must keep to
    // async-signal-safe calls.
    using Hook = void (*)(const char* dumpPath);

    // Opens `folder` (mode 0700) and keeps it open, picks the next report's id, installs the
    // handlers and the main thread's signal stack. isActive() tells whether it worked.
    explicit CrashCapture(const QString& folder);
    ~CrashCapture(); // the previous handlers come back, the folder closes
    CrashCapture(const CrashCapture&) = delete;
    CrashCapture& operator=(const CrashCapture&) = delete;

    bool isActive() const { return active; }
    QString reportPath() const; // where the next report goes: folder + "/" + id + ".dmp"

    static void setHook(Hook hook);
    // What startReporter() runs: `program` with `arguments`; an empty program runs nothing.
    static void prepareReporter(const QString& program, const QStringList& arguments);
    // From the hook: starts the prepared reporter in a new session and does not wait for it.
    static void startReporter();
    // From the handler: one line in the main log's format to the main log and standard output.
    static void logFromHandler(QtMsgType type, const char* message);

    // The hexadecimal GNU build id of the program (empty when it has none).
    static QString programBuildId();
    // Makes the handler fault after its first section, so that a fault inside it can be tried.
    static void faultInsideHandler();

private:
    bool active = false;
};
