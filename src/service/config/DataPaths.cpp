#include "service/config/DataPaths.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

QStringList DataPaths::places(First first)
{
    const QString program = QCoreApplication::applicationDirPath();
    QStringList result{QStringLiteral("."), program};
    if (first == First::ProgramFolder) {
        result.swapItemsAt(0, 1);
    }
    result << QDir::cleanPath(program + QStringLiteral("/" ORVANTA_DATA_FROM_PROGRAM));
    // Started from its own folder, the working directory and the program's folder are one.
    const QString working = QDir::currentPath();
    QStringList distinct;
    QStringList seen;
    for (const QString& place : qAsConst(result)) {
        const QString absolute = place == QLatin1String(".") ? working : place;
        if (!seen.contains(absolute)) {
            seen << absolute;
            distinct << place;
        }
    }
    return distinct;
}

QString DataPaths::inPlace(const QString& place, const QString& name)
{
    return place == QLatin1String(".") ? name : place + QLatin1Char('/') + name;
}

QString DataPaths::locate(const QString& name, First first)
{
    if (QFileInfo(name).isAbsolute()) {
        return name;
    }
    const QStringList folders = places(first);
    for (const QString& place : folders) {
        const QString path = inPlace(place, name);
        if (QFileInfo::exists(path)) {
            return path;
        }
    }
    return inPlace(folders.first(), name);
}

QString DataPaths::folderWith(const QString& name, const QString& pattern, First first)
{
    QString existing;
    const QStringList folders = places(first);
    for (const QString& place : folders) {
        const QDir dir(inPlace(place, name));
        if (!dir.exists()) {
            continue;
        }
        if (!dir.entryList({pattern}, QDir::Files).isEmpty()) {
            return dir.path();
        }
        if (existing.isEmpty()) {
            existing = dir.path();
        }
    }
    return existing;
}

QString DataPaths::dataFolder()
{
    const QString defaults = locate(QStringLiteral("controler_config/OVController.json"));
    if (!QFileInfo::exists(defaults)) {
        return QString();
    }
    return QDir::cleanPath(QFileInfo(defaults).absolutePath() + QStringLiteral("/.."));
}
