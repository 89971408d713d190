#pragma once

#include <QElapsedTimer>
#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QTimer>

// Writes the store's files on a thread of its own, so that no caller waits on the disk. A lone
// change is written at once; what follows for the same file within the lag is written together
// when the lag is over, with the newest content. A write that fails stays pending and is tried
// again with a growing pause, and by writePending (the save at exit); a file counts as written
// only once it is. One warning per file and cause, however often it is tried.
class ConfigurationWriter : public QObject
{
    Q_OBJECT
public:
    explicit ConfigurationWriter(int lagMs, QObject* parent = nullptr);

    // The first pause after a failed write; it doubles at each failure up to the longest.
    static constexpr int firstRetryMs = 500;
    static constexpr int longestRetryMs = 30000;

    // False with the reason in `error`.
    static bool writeFile(const QString& path, const QJsonObject& object, QString* error);

public slots:
    // What a file held when it was read: asking for that same content writes nothing.
    void noteOnDisk(const QString& path, const QJsonObject& object);
    void enqueue(const QString& path, const QJsonObject& object);
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
        qint64 notBeforeMs = 0; // end of the lag after a write, or of the pause after a failure
        int failures = 0;
        QString warnedCause;
    };

    void writeOne(const QString& path, FileState& state);
    void writeDue();
    void schedule();

    const int lagMs;
    QElapsedTimer clock;
    QTimer timer;
    QHash<QString, FileState> files;
};
