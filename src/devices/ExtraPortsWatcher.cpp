#include "devices/ExtraPortsWatcher.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QSet>

#include <sys/stat.h>

namespace {

constexpr char kTag[] = "[ExtraPortsWatcher]:";

bool hasWildcard(const QString& name)
{
    return name.contains(QLatin1Char('*')) || name.contains(QLatin1Char('?')) ||
           name.contains(QLatin1Char('['));
}

QString folderOf(const QString& entry)
{
    return QFileInfo(entry).absolutePath();
}

// The paths one entry names now. A symlink counts only while its target exists.
QStringList expandEntry(const QString& entry)
{
    const QFileInfo info(entry);
    const QString name = info.fileName();
    if (!hasWildcard(name)) {
        return info.exists() ? QStringList{info.absoluteFilePath()} : QStringList{};
    }

    QStringList paths;
    const QDir folder(info.absolutePath());
    const QStringList names =
        folder.entryList(QStringList{name}, QDir::Files | QDir::System | QDir::Hidden, QDir::Name);
    for (const QString& match : names) {
        const QFileInfo matchInfo(folder.absoluteFilePath(match));
        if (matchInfo.exists()) {
            paths << matchInfo.absoluteFilePath();
        }
    }
    return paths;
}

// The link itself, not its target: a fresh link to a reused pty number still differs. Inode
// numbers are reused at once and change times are coarse, so size and both times count too.
QByteArray identityOf(const QString& path)
{
    struct stat st;
    if (::lstat(QFile::encodeName(path).constData(), &st) != 0) {
        return QByteArray();
    }
    const qlonglong fields[] = {qlonglong(st.st_dev),          qlonglong(st.st_ino),
                                qlonglong(st.st_size),         qlonglong(st.st_ctim.tv_sec),
                                qlonglong(st.st_ctim.tv_nsec), qlonglong(st.st_mtim.tv_sec),
                                qlonglong(st.st_mtim.tv_nsec)};
    QByteArray identity;
    for (qlonglong field : fields) {
        identity += QByteArray::number(field) + '/';
    }
    return identity;
}

} // namespace

ExtraPortsWatcher::ExtraPortsWatcher(QObject* parent)
    : ExtraPortsWatcher(configuredEntries(), parent)
{
}

ExtraPortsWatcher::ExtraPortsWatcher(const QStringList& entries, QObject* parent)
    : PortArrivalWatcher(parent)
    , entries(entries)
    , watcher(new QFileSystemWatcher(this))
{
    QStringList folders;
    for (const QString& entry : entries) {
        const QString folder = folderOf(entry);
        if (!folders.contains(folder)) {
            folders << folder;
        }
    }
    for (const QString& folder : qAsConst(folders)) {
        if (!QFileInfo(folder).isDir()) {
            qWarning().noquote() << kTag << "Cannot watch the folder" << folder
                                 << "of ORVANTA_EXTRA_PORTS: it does not exist";
            continue;
        }
        if (!watcher->addPath(folder)) {
            qWarning().noquote() << kTag << "Cannot watch the folder" << folder;
            continue;
        }
        known.insert(matchesIn(folder));
    }
    connect(watcher, &QFileSystemWatcher::directoryChanged, this, &ExtraPortsWatcher::onFolderChanged);
}

ExtraPortsWatcher::~ExtraPortsWatcher() = default;

QStringList ExtraPortsWatcher::configuredEntries()
{
    const QString value = qEnvironmentVariable("ORVANTA_EXTRA_PORTS");
    return value.split(QLatin1Char(':'), Qt::SkipEmptyParts);
}

QStringList ExtraPortsWatcher::expandEntries(const QStringList& entries)
{
    QStringList paths;
    QSet<QString> seen;
    for (const QString& entry : entries) {
        for (const QString& path : expandEntry(entry)) {
            if (!seen.contains(path)) {
                seen.insert(path);
                paths << path;
            }
        }
    }
    return paths;
}

QStringList ExtraPortsWatcher::watchedFolders() const
{
    return watcher->directories();
}

QHash<QString, QByteArray> ExtraPortsWatcher::matchesIn(const QString& folder) const
{
    QHash<QString, QByteArray> matches;
    for (const QString& entry : entries) {
        if (folderOf(entry) != folder) {
            continue;
        }
        for (const QString& path : expandEntry(entry)) {
            matches.insert(path, identityOf(path));
        }
    }
    return matches;
}

void ExtraPortsWatcher::onFolderChanged(const QString& folder)
{
    const QHash<QString, QByteArray> now = matchesIn(folder);

    // Forget what went away, so that its return is an arrival.
    for (auto it = known.begin(); it != known.end();) {
        if (folderOf(it.key()) == folder && !now.contains(it.key())) {
            it = known.erase(it);
        } else {
            ++it;
        }
    }

    QStringList arrived;
    for (auto it = now.cbegin(); it != now.cend(); ++it) {
        const auto old = known.constFind(it.key());
        if (old == known.cend() || old.value() != it.value()) {
            arrived << it.key();
        }
        known.insert(it.key(), it.value());
    }
    arrived.sort();
    for (const QString& path : qAsConst(arrived)) {
        qInfo().noquote() << kTag << "A watched port appeared:" << path;
        emit portArrived(path);
    }

    // A folder that was removed and recreated drops out of the watch list; take it back.
    if (!watcher->directories().contains(folder) && QFileInfo(folder).isDir()) {
        watcher->addPath(folder);
    }
}
