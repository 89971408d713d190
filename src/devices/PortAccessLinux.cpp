#include "devices/PortAccess.h"

#include <QFile>
#include <QVector>

#include <cerrno>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString groupName(gid_t gid)
{
    group entry{};
    group* found = nullptr;
    QByteArray buffer(16384, '\0');
    if (::getgrgid_r(gid, &entry, buffer.data(), size_t(buffer.size()), &found) == 0 && found) {
        return QString::fromLocal8Bit(found->gr_name);
    }
    return QString::number(gid);
}

QStringList groupNames(const QVector<gid_t>& gids)
{
    QStringList names;
    for (gid_t gid : gids) {
        const QString name = groupName(gid);
        if (!names.contains(name)) {
            names << name;
        }
    }
    return names;
}

// The groups the group database gives the real user now, which a new log-in would get.
QStringList userGroups()
{
    passwd entry{};
    passwd* found = nullptr;
    QByteArray buffer(16384, '\0');
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), size_t(buffer.size()), &found) != 0 || !found) {
        return {};
    }
    int count = 64;
    QVector<gid_t> gids(count);
    while (::getgrouplist(found->pw_name, found->pw_gid, gids.data(), &count) < 0) {
        if (count <= gids.size()) { // no growth asked for: give up rather than loop
            return {};
        }
        gids.resize(count);
    }
    gids.resize(count);
    return groupNames(gids);
}

QStringList processGroups()
{
    const int count = ::getgroups(0, nullptr);
    QVector<gid_t> gids(qMax(0, count));
    if (count > 0 && ::getgroups(count, gids.data()) != count) {
        gids.clear();
    }
    gids.prepend(::getegid());
    return groupNames(gids);
}

} // namespace

PortAccess::Facts PortAccess::facts(const QString& port)
{
    Facts facts;
    const QByteArray path = QFile::encodeName(port);
    facts.accessError = ::access(path.constData(), R_OK | W_OK) == 0 ? 0 : errno;
    struct stat node = {};
    if (::stat(path.constData(), &node) == 0) {
        facts.nodeGroup = groupName(node.st_gid);
    }
    facts.userGroups = userGroups();
    facts.processGroups = processGroups();
    return facts;
}
