#pragma once

#include <QByteArray>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSaveFile>
#include <QString>
#include <QStringList>
#include <QUrl>

// The program's store as files, for a soak to prepare and to check: names as the store makes
// them (a key percent-encoded outside [A-Za-z0-9-._~]).
namespace SoakStore {

inline QString controllerFile(const QString& id)
{
    return QStringLiteral("controllers/") + QString::fromLatin1(QUrl::toPercentEncoding(id)) +
           QStringLiteral(".json");
}

inline QString effectFile(const QString& effectId)
{
    return QStringLiteral("effects/") + QString::fromLatin1(QUrl::toPercentEncoding(effectId)) +
           QStringLiteral(".json");
}

inline bool write(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.commit();
}

inline bool writeJson(const QString& path, const QJsonObject& object)
{
    return write(path, QJsonDocument(object).toJson());
}

inline QByteArray read(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Files under the store's folder that are none of its own: a writer's temporary (".<name>.XXXXXX"),
// a file set aside (".corrupt-<when>"), anything else; relative paths.
inline QStringList strayFiles(const QString& storeDir)
{
    static const QRegularExpression own(
        QStringLiteral("^((global|app)\\.json|(controllers|effects|groups)/[^./][^/]*\\.json)$"));
    QStringList stray;
    const QDir root(storeDir);
    QDirIterator it(storeDir, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString relative = root.relativeFilePath(it.next());
        if (!own.match(relative).hasMatch()) {
            stray.append(relative);
        }
    }
    return stray;
}

} // namespace SoakStore
