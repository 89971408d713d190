#include "LogCapture.h"

#include <QMutexLocker>

namespace {
LogCapture* current = nullptr;
}

LogCapture::LogCapture()
{
    current = this;
    previous = qInstallMessageHandler(&LogCapture::handler);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(previous);
    current = nullptr;
}

void LogCapture::handler(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    LogCapture* self = current;
    if (!self)
        return;
    {
        QMutexLocker locker(&self->mutex);
        self->entries.append(Entry{type, message});
    }
    if (self->previous)
        self->previous(type, context, message);
}

void LogCapture::clear()
{
    QMutexLocker locker(&mutex);
    entries.clear();
}

QStringList LogCapture::lines() const
{
    QMutexLocker locker(&mutex);
    QStringList out;
    for (const Entry& entry : entries)
        out << entry.message;
    return out;
}

int LogCapture::count(const QString& text, int type) const
{
    QMutexLocker locker(&mutex);
    int n = 0;
    for (const Entry& entry : entries) {
        if ((type < 0 || int(entry.type) == type) && entry.message.contains(text))
            ++n;
    }
    return n;
}
