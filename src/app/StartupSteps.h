#pragma once

#include <QCommandLineOption>
#include <QList>
#include <QString>

class QCommandLineParser;
class QCoreApplication;

// The pieces of the start-up sequence that main runs in order.
class StartupSteps
{
public:
    static const char* const appVersion;
    static constexpr int lockTimeoutMs = 100;

    // The five flags, in the order they are added to the parser.
    static QList<QCommandLineOption> commandLineOptions();

    // --help and --version need no display: argv is looked at before any application object
    // exists, and the answer comes from a plain QCoreApplication (the parser ends the process).
    static bool asksForHelpOrVersion(int argc, char** argv);
    static int answerHelpOrVersion(int& argc, char** argv);
    // Whether the platform the GUI application will load can reach its display; when it cannot,
    // `why` holds the one line to print, since the platform plug-in would abort the process.
    static bool displayReachable(int argc, char** argv, QString* why);
    // Every one of the five properties is set, true or false.
    static void applyOptionProperties(QCoreApplication& app, const QCommandLineParser& parser);

    // Each name takes its own reading of the clock.
    static QString mainLogFilePath(const QString& logsPath);
    static QString loopLogFilePath(const QString& logsPath);
    // Deletes the log pairs of all but the newest `keepRuns` runs, this run (its main log path)
    // counted, whether or not its files exist yet. Other files are left alone. Returns how many
    // files went.
    static int removeOldLogs(const QString& logsPath, const QString& currentMainLog, int keepRuns);
    static constexpr int keptLogRuns = 10;

    // Wipes the configuration when the previous run asked for it; the request is used up.
    static void honourCleanStartup();

    static QString startupParametersText();
    static QString buildInfoText();
    static void logStartupInfo();

private:
    // Platform probes, in StartupStepsX11.cpp.
    static bool x11DisplayReachable(const QByteArray& display);
    static bool waylandDisplayReachable();
};
