#include "crash/QBreakpadHandler.h"

#include "crash/CrashCapture.h"
#include "crash/QBreakpadHttpUploader.h"
#include "service/config/SignalStack.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {
constexpr char kTag[] = "[QBreakpadHandler]";
} // namespace

QBreakpadHandler* QBreakpadHandler::instance()
{
    // Thread-safe once-only. Never deleted: the capture stays attached through the static
    // destructors until the process dies.
    static QBreakpadHandler* const handler = new QBreakpadHandler;
    return handler;
}

QBreakpadHandler::~QBreakpadHandler() = default;

void QBreakpadHandler::setDumpPath(const QString& path)
{
    QString absolute = path;
    if (QFileInfo(path).isRelative()) {
        absolute = QDir::cleanPath(QCoreApplication::applicationDirPath() + QLatin1Char('/') + path);
    }
    d.exceptionHandler.reset();
    if (SignalStack::enabled()) {
        // The capture makes and opens the folder itself, with as few system calls as it can.
        auto capture = std::make_unique<CrashCapture>(absolute);
        if (capture->isActive()) {
            d.dumpPath = absolute;
            d.exceptionHandler = std::move(capture);
            return;
        }
    }
    QDir().mkpath(absolute);
    if (!QFileInfo(absolute).isDir()) {
        qDebug("Failed to set dump path which not exists: %s", qPrintable(absolute));
        return;
    }
    QFile::setPermissions(absolute, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    d.dumpPath = absolute;
    if (!SignalStack::enabled()) {
        // The sanitizers' own reports are richer, and their handlers must stay.
        qInfo().noquote() << kTag << "Crash capture is off in sanitizer builds";
    }
}

QString QBreakpadHandler::dumpPath() const
{
    return d.dumpPath;
}

void QBreakpadHandler::setUploadUrl(const QUrl& url)
{
    if (url.isValid() && !url.isEmpty()) {
        d.uploadUrl = url;
    }
}

QUrl QBreakpadHandler::uploadUrl() const
{
    return d.uploadUrl;
}

void QBreakpadHandler::setCrashHook(CrashHook hook)
{
    CrashCapture::setHook(hook);
}

QStringList QBreakpadHandler::dumpFileList() const
{
    if (d.dumpPath.isEmpty()) {
        return QStringList();
    }
    return QDir(d.dumpPath).entryList({QStringLiteral("*.dmp")}, QDir::Files);
}

QString QBreakpadHandler::nextReportPath() const
{
    return d.exceptionHandler ? d.exceptionHandler->reportPath() : QString();
}

bool QBreakpadHandler::capturing() const
{
    return d.exceptionHandler != nullptr;
}

QString QBreakpadHandler::version()
{
    return QStringLiteral("%1.%2.%3").arg(0).arg(4).arg(0);
}

void QBreakpadHandler::sendDumps()
{
    if (d.dumpPath.isEmpty()) {
        return;
    }
    for (const QString& name : dumpFileList()) {
        qDebug().noquote() << "Sending " + name;
        auto* uploader = new QBreakpadHttpUploader(d.uploadUrl, this);
        connect(uploader, &QBreakpadHttpUploader::finished, uploader, &QObject::deleteLater);
        uploader->uploadDump(d.dumpPath + QLatin1Char('/') + name);
    }
}
