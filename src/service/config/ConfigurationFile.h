#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// Reads and replaces one file of the store with plain system calls. A read never opens what is
// not a regular file (a FIFO would block, a device might never end) and never takes more than its
// cap; a write replaces the file in one rename, so a process killed at any point leaves the old or
// the new content, never a mix.
class ConfigurationFile
{
public:
    enum class Status
    {
        Missing,
        Read,
        TooLarge,
        NotRegular,
        Unreadable
    };
    struct ReadResult
    {
        Status status = Status::Missing;
        QByteArray bytes;
        QString error; // why, for every status but Missing and Read
    };

    // Far more than any settings file holds, small enough to read at once.
    static constexpr qint64 maxJsonBytes = 4 * 1024 * 1024;

    static ReadResult read(const QString& path, qint64 maxBytes = maxJsonBytes);
    // False with `error` set to what failed and the system's reason. The text names no temporary
    // file, so that one cause reads the same at every try.
    static bool write(const QString& path, const QByteArray& bytes, QString* error);
    // Removes the temporaries of write() that a process killed in the middle left in folder and
    // its subfolders, and only those; the paths removed. Only while nothing else writes there.
    static QStringList removeTemporaries(const QString& folder);
};
