#include "crash/reporter/CrashSender.h"

#include "crash/CrashReport.h"
#include "crash/QBreakpadHttpUploader.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFileInfo>
#include <QLockFile>
#include <QTimer>

namespace {
constexpr char kTag[] = "[CrashReporter]";
} // namespace

CrashSender::CrashSender(CrashReportQueue* queue, QObject* parent)
    : QObject(parent)
    , queue(queue)
    , uploader(new QBreakpadHttpUploader(QUrl(), this))
{
    connect(uploader, &QBreakpadHttpUploader::done, this, &CrashSender::onDone);
}

CrashSender::~CrashSender() = default;

bool CrashSender::online() const
{
    return uploader->online();
}

void CrashSender::start()
{
    if (running) {
        return;
    }
    running = true;
    result = Outcome();
    pending = queue->agreed();
    if (!online()) {
        result.offline = true;
        if (!pending.isEmpty()) {
            qInfo().noquote() << kTag << "Online services are off:" << pending.size() << "reports wait";
        }
        pending.clear();
    }
    // From the loop, so that a caller connects before the first report goes.
    QTimer::singleShot(0, this, &CrashSender::next);
}

void CrashSender::next()
{
    while (!pending.isEmpty()) {
        current = pending.takeFirst();
        lock = std::make_unique<QLockFile>(
            queue->path(QFileInfo(current).completeBaseName() + QStringLiteral(".lock")));
        if (!lock->tryLock(0)) {
            qInfo().noquote() << kTag << current << "is being sent by another reporter";
            continue;
        }
        // Another reporter may have sent it between the listing and the lock.
        if (!queue->agreed().contains(current)) {
            lock.reset();
            continue;
        }
        // The upload describes the program that crashed.
        const CrashReport report = CrashReport::readFile(queue->path(current));
        if (report.valid) {
            QCoreApplication::setApplicationVersion(report.version);
        }
        qInfo().noquote() << kTag << "Sending" << current << "(attempt" << queue->attempts(current) + 1
                          << ")";
        uploader->uploadDump(queue->path(current));
        return;
    }
    running = false;
    emit finished();
}

void CrashSender::onDone(bool sent, const QString& cause)
{
    if (sent) {
        result.sent += 1;
        queue->sent(current);
        qInfo().noquote() << kTag << current << "was sent";
    } else if (QFileInfo::exists(queue->path(current) + QStringLiteral(".bad"))) {
        result.setAside += 1;
        queue->sent(current); // nothing left to send
    } else {
        result.failed += 1;
        const int attempts = queue->failed(current);
        qWarning().noquote() << kTag << current << "was not sent (" + cause + "), attempt" << attempts;
    }
    lock.reset();
    QTimer::singleShot(0, this, &CrashSender::next);
}
