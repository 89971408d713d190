#include "service/config/DefaultsFile.h"

#include <QCoreApplication>
#include <QFileInfo>

QString locateDefaultsFile(const QString& name)
{
    if (QFileInfo(name).isAbsolute() || QFileInfo::exists(name)) {
        return name;
    }
    const QString besideProgram = QCoreApplication::applicationDirPath() + QLatin1Char('/') + name;
    if (QFileInfo::exists(besideProgram)) {
        return besideProgram;
    }
    return name;
}
