#include "service/config/MessageHandler.h"

#include "service/config/ConsoleOutput.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QTextStream>
#include <QThread>

#include <atomic>

namespace {

QString& mainLog()
{
    static QString path;
    return path;
}

QString& loopLog()
{
    static QString path;
    return path;
}

const QString kLoopMarker = QStringLiteral("[[loop]]");
constexpr char kTag[] = "[MessageHandler]";

// Set once the loop log has reached its limit; cleared with new paths.
std::atomic<bool> loopLogFull{false};

// Appends prefix + message to the open file.
void appendLine(QFile& file, const QString& prefix, const QString& message)
{
    QTextStream stream(&file);
    stream.setCodec("UTF-8");
    stream << prefix << message << "\r\n";
    stream.flush();
}

} // namespace

void MessageHandler::setLogPaths(const QString& mainLogPath, const QString& loopLogPath)
{
    mainLog() = mainLogPath;
    loopLog() = loopLogPath;
    loopLogFull = false;
}

QString MessageHandler::mainLogPath()
{
    return mainLog();
}

QString MessageHandler::loopLogPath()
{
    return loopLog();
}

QString MessageHandler::threadTag()
{
    const QCoreApplication* app = QCoreApplication::instance();
    if (app && QThread::currentThread() == app->thread()) {
        return QStringLiteral("@main  ");
    }
    const auto id = reinterpret_cast<quintptr>(QThread::currentThreadId());
    return QStringLiteral("@0x") + QString::number(id, 16) + QStringLiteral("  ");
}

QString MessageHandler::levelTag(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return QStringLiteral("[Debug]: ");
    case QtWarningMsg:
        return QStringLiteral("[Warning]: ");
    case QtCriticalMsg:
        return QStringLiteral("[Critical]: ");
    case QtFatalMsg:
        return QStringLiteral("[Fatal]: ");
    case QtInfoMsg:
        return QStringLiteral("[Info]: ");
    }
    return QString();
}

QString MessageHandler::linePrefix(QtMsgType type)
{
    const QString time = QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz"));
    return QLatin1Char('[') + time + QLatin1Char(']') + threadTag() + levelTag(type);
}

bool MessageHandler::isLoopMessage(const QString& message)
{
    return message.startsWith(kLoopMarker, Qt::CaseSensitive);
}

QMutex& MessageHandler::logMutex()
{
    static QMutex mutex;
    return mutex;
}

void messageHandler(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    Q_UNUSED(context)
    // Computed before the lock, so a line's time may be earlier than the line above it.
    const QString prefix = MessageHandler::linePrefix(type);
    const bool loop = MessageHandler::isLoopMessage(message);
    if (!loop) {
        ConsoleOutput::write((prefix + message + QLatin1Char('\n')).toUtf8());
        if (type == QtFatalMsg) {
            ConsoleOutput::drain(1000); // the process ends next
        }
    }
    if (loop && loopLogFull) {
        return;
    }

    // A slow disk must not stall a streaming thread: past the bound the line is lost to the file.
    QMutex& mutex = MessageHandler::logMutex();
    if (!mutex.tryLock(MessageHandler::lockTimeoutMs)) {
        return;
    }
    // Opened and closed for every line, so that a crash loses nothing already logged.
    const QString path = loop ? MessageHandler::loopLogPath() : MessageHandler::mainLogPath();
    QFile file(path);
    // An empty name would make QFile warn, and so re-enter this handler with the lock held.
    if (!path.isEmpty() && file.open(QIODevice::Append | QIODevice::Text)) {
        // The size in bytes of UTF-8 is at most three per UTF-16 unit: a cheap upper bound.
        const qint64 lineBound = 3 * qint64(prefix.size() + message.size() + 2);
        if (loop && file.size() + lineBound > MessageHandler::loopLogLimitBytes) {
            loopLogFull = true;
            appendLine(file, prefix,
                       kLoopMarker + kTag +
                           QStringLiteral(" The loop log has reached its limit of 20 MB: no more per-frame "
                                          "statistics are written to it in this run"));
        } else {
            appendLine(file, prefix, message);
        }
        file.close();
    }
    mutex.unlock();
}
