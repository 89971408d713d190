#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

// File helpers for suites that prepare or inspect files on disk.
namespace TestFiles {
// The whole file, or an empty array when it cannot be read.
QByteArray read(const QString& path);
QJsonObject readJson(const QString& path);
// Writes the file, creating its folder; false if anything failed.
bool write(const QString& path, const QByteArray& bytes);
// Copies a folder tree; false if anything could not be copied.
bool copyTree(const QString& from, const QString& to);
// Runs pending deleteLater calls, including those queued by the deletions themselves.
void flushDeletes();
} // namespace TestFiles
