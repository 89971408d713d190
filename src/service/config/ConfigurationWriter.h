#pragma once

#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QTimer>

// Writes the store's files on a thread of its own, so that no caller waits on the disk. A lone
// change is written at once; what follows for the same file is written together, with the newest
// content, a little before the lag has passed since the previous write began. The promise: a
// change's write begins within the lag of the change being asked for, the length of earlier writes
// not added, unless one is still under way then (files are written one at a time) or the file's
// last write failed.
// A write that fails stays pending and is tried again with a growing pause, and by writePending
// (the save at exit); a file counts as written only once it is. One warning per file and cause,
// however often it is tried.
class ConfigurationWriter : public QObject
{
    Q_OBJECT
public:
    explicit ConfigurationWriter(int lagMs, QObject* parent = nullptr);

    // The first pause after a failed write; it doubles at each failure up to the longest.
    static constexpr int firstRetryMs = 500;
    static constexpr int longestRetryMs = 30000;

    // The monotonic clock of requests and writes, in milliseconds, the same on every thread.
    static qint64 nowMs();
    // False with the reason in `error`.
    static bool writeFile(const QString& path, const QJsonObject& object, QString* error);

public slots:
    // What a file held when it was read: asking for that same content writes nothing.
    void noteOnDisk(const QString& path, const QJsonObject& object);
    // requestedMs: when the caller asked (nowMs()), which may be well before the call arrives
    // here if the thread was busy writing.
    void enqueue(const QString& path, const QJsonObject& object, qint64 requestedMs = nowMs());
    // Writes every pending file now, those that failed before included.
    void writePending();
    // Forgets everything pending and everything known about the files.
    void discardPending();

private:
    struct FileState
    {
        QJsonObject onDisk;
        bool known = false; // onDisk holds what the file has
        QJsonObject wanted;
        bool pending = false;
        qint64 requestedMs = 0; // when the oldest change still pending was asked for
        qint64 startedMs = 0;   // when the last write began
        bool started = false;   // startedMs holds a time
        qint64 retryMs = 0;     // after a failure: not before the end of the pause
        int failures = 0;
        QString warnedCause;
    };

    qint64 dueMs(const FileState& state) const;
    void writeOne(const QString& path, FileState& state);
    void postWrite();
    void writeDue();
    void schedule();

    // A tenth short of the lag: a wake-up or a request late by a few milliseconds on a loaded
    // machine still begins within the lag.
    const int aimMs;
    QTimer timer;
    bool writePosted = false;
    QHash<QString, FileState> files;
};
