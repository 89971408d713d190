#include "DiscoveryFixture.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QEvent>
#include <QFile>
#include <QFileInfo>

void DiscoveryFixture::flushDeletes()
{
    for (int i = 0; i < 8; ++i) {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents();
    }
}

bool DiscoveryFixture::copyTree(const QString& from, const QString& to)
{
    const QDir source(from);
    if (!source.exists() || !QDir().mkpath(to))
        return false;
    QDirIterator it(from, QDir::Files | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QString target = to + QLatin1Char('/') + source.relativeFilePath(path);
        QDir().mkpath(QFileInfo(target).absolutePath());
        QFile::remove(target);
        if (!QFile::copy(path, target))
            return false;
    }
    return true;
}

bool DiscoveryFixture::installDeviceData(const QString& sourceDataDir, const QString& folder)
{
    return copyTree(sourceDataDir + QStringLiteral("/controler_config"),
                    folder + QStringLiteral("/controler_config")) &&
           copyTree(sourceDataDir + QStringLiteral("/images"), folder + QStringLiteral("/images"));
}
