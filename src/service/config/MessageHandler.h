#pragma once

#include <QMutex>
#include <QString>
#include <QtGlobal>

class QDateTime;

// The one log handler of the process. Ordinary lines go to standard output (never waiting for it,
// see ConsoleOutput) and the main log; lines that begin with "[[loop]]" are per-frame statistics
// and go to the loop log only, until it reaches its limit.
class MessageHandler
{
public:
    // Set once, before the handler is installed; never changed afterwards.
    static void setLogPaths(const QString& mainLogPath, const QString& loopLogPath);
    static QString mainLogPath();
    static QString loopLogPath();

    // "[yyyy-MM-dd hh:mm:ss.zzz]" + thread tag + level tag, for the calling thread.
    static QString linePrefix(QtMsgType type);
    static QString threadTag();
    static QString levelTag(QtMsgType type);

    static bool isLoopMessage(const QString& message);

    // Serialises the appends to both files. Held for at most one open-write-close.
    static QMutex& logMutex();

    // How long a logging thread waits for the file before its line is dropped from it.
    static constexpr int lockTimeoutMs = 50;

    // A run's loop log ends with one line saying so before it would grow past this.
    static constexpr qint64 loopLogLimitBytes = 20 * 1000 * 1000;
};

// Installed with qInstallMessageHandler; the context is not used.
void messageHandler(QtMsgType type, const QMessageLogContext& context, const QString& message);
