#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

// The CrashReporter program: its command line, its logging and language, and its three ways of
// running: the window after a crash, --retry (no window: send what was agreed to) and --print.
class CrashReporterProgram
{
public:
    enum class Mode
    {
        Usage, // anything else: usage, exit status 2
        Window,
        Retry,
        Print,
    };
    struct Options
    {
        Mode mode = Mode::Usage;
        QString file;   // the crashed program's file name
        QString path;   // its configuration folder
        QString report; // the report just written (window), or the one to print
        QString problem;
    };

    static Options parse(const QStringList& arguments);
    static QString usage();
    static int main(int argc, char** argv);

    // Starts `<own folder>/<file>` detached once the crashed process `pid` has gone, so that the
    // new start can take the lock the crash left. False when it could not be started.
    static bool restart(const QString& file, quint32 pid);
    // "CrashReporter_<start time>.log" in the program's log folder.
    static void startLogging();
    // "language" from the store, never saved back; its translation, if there is one.
    static void loadTranslation();
};
