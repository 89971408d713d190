#pragma once

#include <QMutex>
#include <QPair>
#include <QStringList>
#include <QtGlobal>

#include <algorithm>

// Records every log message of the process (any thread) while it is installed, and passes each
// on to the handler that was there before.
class LogCapture
{
public:
    LogCapture()
    {
        QMutexLocker locker(&gate);
        current = this;
        previous = qInstallMessageHandler(&LogCapture::handler);
    }
    // Other threads (the configuration writer, capture threads) may be logging right now: the
    // gate keeps the handler off this object once the destructor has begun.
    ~LogCapture()
    {
        QMutexLocker locker(&gate);
        qInstallMessageHandler(previous);
        current = nullptr;
    }

    void clear()
    {
        QMutexLocker locker(&mutex);
        entries.clear();
    }
    QStringList lines() const
    {
        QMutexLocker locker(&mutex);
        QStringList out;
        for (const auto& entry : entries) {
            out << entry.second;
        }
        return out;
    }
    // Messages containing `text`, at the given level or any level when type is -1.
    int count(const QString& text, int type = -1) const
    {
        QMutexLocker locker(&mutex);
        return int(std::count_if(entries.begin(), entries.end(), [&](const QPair<int, QString>& entry) {
            return (type < 0 || entry.first == type) && entry.second.contains(text);
        }));
    }
    bool contains(const QString& text, int type = -1) const { return count(text, type) > 0; }

private:
    static void handler(QtMsgType type, const QMessageLogContext& context, const QString& message)
    {
        QtMessageHandler next = nullptr;
        {
            QMutexLocker locker(&gate);
            if (LogCapture* self = current) {
                QMutexLocker entriesLocker(&self->mutex);
                self->entries.append({int(type), message});
                next = self->previous;
            }
        }
        if (next) {
            next(type, context, message);
        }
    }

    static inline QMutex gate;
    static inline LogCapture* current = nullptr;
    mutable QMutex mutex;
    QList<QPair<int, QString>> entries;
    QtMessageHandler previous = nullptr;
};
