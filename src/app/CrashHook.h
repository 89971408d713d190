#pragma once

#include <QString>
#include <QStringList>

// Steps 11 and 12 of the start: the dump folder for the crash handler, the crash hook and the
// reporter it starts; and, at a later start, the reporter that sends what the user agreed to.
class CrashHook
{
public:
    // The dump folder (AppConfigLocation + "/dumps"), the hook, the reporter's command line.
    static void install();
    // $ORVANTA_CRASH_REPORTER when set (empty: none), else "CrashReporter" beside the program.
    static QString reporterProgram();
    // "--file", the program's file name, "--path", the configuration folder.
    static QStringList reporterArguments();
    // Starts `CrashReporter --retry` detached when an agreed report waits in the dump folder.
    static bool startRetryIfAgreed();
};

// Registered with QBreakpadHandler; runs in the signal handler after the report is written.
void crashHook(const char* dumpPath);
