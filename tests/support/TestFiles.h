#pragma once

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

// File helpers for suites that prepare or inspect files on disk.
namespace TestFiles {

// The whole file, or an empty array when it cannot be read.
inline QByteArray read(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline QJsonObject readJson(const QString& path)
{
    return QJsonDocument::fromJson(read(path)).object();
}

// Writes the file, creating its folder; false if anything failed.
inline bool write(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

// Copies a folder tree; false if anything could not be copied.
inline bool copyTree(const QString& from, const QString& to)
{
    bool ok = QDir(from).exists() && QDir().mkpath(to);
    QDirIterator it(from, QDir::Files, QDirIterator::Subdirectories);
    while (ok && it.hasNext()) {
        const QString path = it.next();
        const QString target = to + '/' + QDir(from).relativeFilePath(path);
        QDir().mkpath(QFileInfo(target).absolutePath());
        QFile::remove(target);
        ok = QFile::copy(path, target);
    }
    return ok;
}

// Runs pending deleteLater calls, including those queued by the deletions themselves.
inline void flushDeletes()
{
    for (int i = 0; i < 8; ++i) {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents();
    }
}

} // namespace TestFiles
