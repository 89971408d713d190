#pragma once

#include <QMutex>
#include <QString>
#include <QStringList>
#include <QtGlobal>

// Records every log message of the process (any thread) while it is installed, and passes
// each on to the handler that was there before.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();

    void clear();
    QStringList lines() const;
    // Messages containing `text`, at the given level or any level when type is -1.
    int count(const QString& text, int type = -1) const;
    bool contains(const QString& text, int type = -1) const { return count(text, type) > 0; }

private:
    static void handler(QtMsgType type, const QMessageLogContext& context, const QString& message);

    struct Entry
    {
        QtMsgType type;
        QString message;
    };
    mutable QMutex mutex;
    QList<Entry> entries;
    QtMessageHandler previous = nullptr;
};
