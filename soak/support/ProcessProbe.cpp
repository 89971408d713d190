#include "ProcessProbe.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>

namespace {

int entries(const QString& folder)
{
    const QDir dir(folder);
    return dir.exists() ? int(dir.entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System).size())
                        : -1;
}

} // namespace

int ProcessProbe::openDescriptors(qint64 pid)
{
    return entries(QStringLiteral("/proc/%1/fd").arg(pid));
}

int ProcessProbe::threads(qint64 pid)
{
    return entries(QStringLiteral("/proc/%1/task").arg(pid));
}

qint64 ProcessProbe::residentKb(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly)) {
        return -1;
    }
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:")) {
            return line.mid(6).trimmed().split(' ').first().toLongLong();
        }
    }
    return -1;
}

int ProcessProbe::filesUnder(const QString& folder)
{
    int n = 0;
    QDirIterator it(folder, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        ++n;
    }
    return n;
}
