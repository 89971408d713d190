#include "service/config/ConfigurationFile.h"

#ifdef ORVANTA_SOAK
#include "service/config/SoakFault.h"
#endif

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString systemError()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

QString kindOf(mode_t mode)
{
    if (S_ISDIR(mode)) {
        return QStringLiteral("a directory");
    }
    if (S_ISFIFO(mode)) {
        return QStringLiteral("a FIFO");
    }
    if (S_ISCHR(mode) || S_ISBLK(mode)) {
        return QStringLiteral("a device");
    }
    if (S_ISSOCK(mode)) {
        return QStringLiteral("a socket");
    }
    return QStringLiteral("not a regular file");
}

bool writeAll(int fd, const QByteArray& bytes)
{
    const char* data = bytes.constData();
    qint64 left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, data, size_t(left));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        data += n;
        left -= n;
    }
    return true;
}

#ifdef ORVANTA_SOAK
// The fault a soak proves it sees: the file itself emptied and written a line at a time, each line
// synced and a little apart, as a slow writer without its rename would, so that a kill leaves part
// of it.
bool writeInPlace(const QByteArray& name, const QByteArray& bytes, mode_t mode, QString* error)
{
    const int fd = ::open(name.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) {
        *error = QStringLiteral("cannot write: ") + systemError();
        return false;
    }
    bool ok = true;
    for (const QByteArray& line : bytes.split('\n')) {
        ok = ok && writeAll(fd, line + '\n') && ::fdatasync(fd) == 0 && ::usleep(2000) == 0;
    }
    ok = ::close(fd) == 0 && ok;
    if (!ok) {
        *error = QStringLiteral("cannot write: ") + systemError();
    }
    return ok;
}
#endif

} // namespace

ConfigurationFile::ReadResult ConfigurationFile::read(const QString& path, qint64 maxBytes)
{
#ifdef ORVANTA_SOAK
    if (SoakFault::on(SoakFault::Kind::StoreAnySize)) {
        maxBytes = std::numeric_limits<int>::max();
    }
#endif
    const QByteArray name = QFile::encodeName(path);
    struct stat info;
    if (::stat(name.constData(), &info) != 0) {
        // ENOTDIR: a folder on the way is a file, so this file cannot exist either.
        if (errno == ENOENT || errno == ENOTDIR) {
            return {};
        }
        return {Status::Unreadable, {}, systemError()};
    }
    if (!S_ISREG(info.st_mode)) {
        return {Status::NotRegular, {}, kindOf(info.st_mode)};
    }
    // Non-blocking and checked again, in case something else took the name in between.
    const int fd = ::open(name.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return {Status::Unreadable, {}, systemError()};
    }
    ReadResult result{Status::Read, {}, {}};
    if (::fstat(fd, &info) != 0) {
        result = {Status::Unreadable, {}, systemError()};
    } else if (!S_ISREG(info.st_mode)) {
        result = {Status::NotRegular, {}, kindOf(info.st_mode)};
    } else if (info.st_size > maxBytes) {
        result.status = Status::TooLarge;
    } else {
        // Read to the end, not to the size seen: the file may grow meanwhile, and past the cap
        // it is too large all the same.
        char chunk[64 * 1024];
        for (;;) {
            const ssize_t n = ::read(fd, chunk, sizeof(chunk));
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0) {
                result = {Status::Unreadable, {}, systemError()};
                break;
            }
            if (n == 0) {
                break;
            }
            if (result.bytes.size() + n > maxBytes) {
                result.status = Status::TooLarge;
                break;
            }
            result.bytes.append(chunk, int(n));
        }
    }
    if (result.status == Status::TooLarge) {
        result.bytes.clear();
        result.error = QStringLiteral("larger than %1 bytes").arg(maxBytes);
    }
    ::close(fd);
    return result;
}

bool ConfigurationFile::write(const QString& path, const QByteArray& bytes, QString* error)
{
    // A link is written through, as an editor would: the user's own arrangement stays.
    QString target = path;
    const QFileInfo link(path);
    if (link.isSymLink()) {
        target = link.canonicalFilePath();
        if (target.isEmpty()) {
            *error = QStringLiteral("it is a link to nothing");
            return false;
        }
    }
    const QString folder = QFileInfo(target).absolutePath();
    if (!QDir().mkpath(folder)) {
        *error = QStringLiteral("cannot create the folder ") + folder;
        return false;
    }
    const QByteArray targetName = QFile::encodeName(target);
    mode_t mode = S_IRUSR | S_IWUSR;
    struct stat info;
    if (::stat(targetName.constData(), &info) == 0) {
        if (!S_ISREG(info.st_mode)) {
            *error = QStringLiteral("it is ") + kindOf(info.st_mode);
            return false;
        }
        mode = info.st_mode & 07777;
    }
#ifdef ORVANTA_SOAK
    if (SoakFault::on(SoakFault::Kind::StoreInPlace)) {
        return writeInPlace(targetName, bytes, mode, error);
    }
#endif
    QByteArray temporary =
        QFile::encodeName(folder + QStringLiteral("/.") + QFileInfo(target).fileName()) + ".XXXXXX";
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        *error = QStringLiteral("cannot create a file in ") + folder + QStringLiteral(": ") + systemError();
        return false;
    }
    QString failed;
    if (::fchmod(fd, mode) != 0 || !writeAll(fd, bytes) || ::fdatasync(fd) != 0) {
        failed = QStringLiteral("cannot write in ") + folder + QStringLiteral(": ") + systemError();
    }
    if (::close(fd) != 0 && failed.isEmpty()) {
        failed = QStringLiteral("cannot write in ") + folder + QStringLiteral(": ") + systemError();
    }
    if (failed.isEmpty() && ::rename(temporary.constData(), targetName.constData()) != 0) {
        failed = QStringLiteral("cannot replace the file: ") + systemError();
    }
    if (!failed.isEmpty()) {
        ::unlink(temporary.constData());
        *error = failed;
        return false;
    }
    return true;
}

QStringList ConfigurationFile::removeTemporaries(const QString& folder)
{
    // The names write() gives: "." + the file's name + "." + mkostemp's six characters.
    static const QRegularExpression temporaryName(QStringLiteral("^\\..+\\.json\\.[A-Za-z0-9]{6}$"));
    QStringList folders{folder};
    const QDir root(folder);
    for (const QString& sub :
         root.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks | QDir::Hidden)) {
        folders.append(root.filePath(sub));
    }
    QStringList removed;
    for (const QString& path : qAsConst(folders)) {
        const QDir dir(path);
        for (const QString& name : dir.entryList(QDir::Files | QDir::Hidden | QDir::System)) {
            const QByteArray file = QFile::encodeName(dir.filePath(name));
            struct stat info;
            if (temporaryName.match(name).hasMatch() && ::lstat(file.constData(), &info) == 0 &&
                S_ISREG(info.st_mode) && ::unlink(file.constData()) == 0) {
                removed.append(dir.filePath(name));
            }
        }
    }
    return removed;
}
