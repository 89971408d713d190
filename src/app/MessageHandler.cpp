#include "MessageHandler.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QTextStream>
#include <QThread>

#include <cstdio>

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

} // namespace

void MessageHandler::setLogPaths(const QString& mainLogPath, const QString& loopLogPath)
{
    mainLog() = mainLogPath;
    loopLog() = loopLogPath;
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
        const QByteArray line = (prefix + message + QLatin1Char('\n')).toUtf8();
        std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stdout);
        std::fflush(stdout);
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
        QTextStream stream(&file);
        stream.setCodec("UTF-8");
        stream << prefix << message << "\r\n";
        stream.flush();
        file.close();
    }
    mutex.unlock();
}
