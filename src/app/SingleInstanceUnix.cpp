#include "app/SingleInstance.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

uint SingleInstance::userId()
{
    return uint(::getuid());
}

QString SingleInstance::privateFolderProblem(const QString& folder)
{
    const QByteArray name = QFile::encodeName(folder);
    if (::mkdir(name.constData(), 0700) == 0) {
        ::chmod(name.constData(), 0700); // whatever the umask took away
    } else if (errno != EEXIST) {
        return QStringLiteral("it cannot be made (%1)").arg(QString::fromLocal8Bit(std::strerror(errno)));
    }
    struct stat info;
    if (::lstat(name.constData(), &info) != 0) {
        return QStringLiteral("it cannot be looked at (%1)")
            .arg(QString::fromLocal8Bit(std::strerror(errno)));
    }
    if (S_ISLNK(info.st_mode)) {
        return QStringLiteral("it is a symbolic link");
    }
    if (!S_ISDIR(info.st_mode)) {
        return QStringLiteral("it is not a folder");
    }
    if (info.st_uid != ::getuid()) {
        return QStringLiteral("it belongs to user %1, not to you (user %2)").arg(info.st_uid).arg(::getuid());
    }
    if ((info.st_mode & 07777) != 0700) {
        return QStringLiteral("its mode is %1, not 0700").arg(info.st_mode & 07777, 4, 8, QLatin1Char('0'));
    }
    return QString();
}
