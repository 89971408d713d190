#include "crash/reporter/CrashReportQueue.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace {
constexpr char kTag[] = "[CrashReporter]";
const QString kConsent = QStringLiteral(".consent");
const QString kKept = QStringLiteral(".kept");
} // namespace

CrashReportQueue::CrashReportQueue(const QString& folder)
    : dir(folder)
{
}

QString CrashReportQueue::path(const QString& report) const
{
    return dir + QLatin1Char('/') + report;
}

QString CrashReportQueue::consentPath(const QString& report) const
{
    return path(QFileInfo(report).completeBaseName() + kConsent);
}

QStringList CrashReportQueue::byAge(const QStringList& patterns) const
{
    return QDir(dir).entryList(patterns, QDir::Files, QDir::Time);
}

QStringList CrashReportQueue::undecided() const
{
    QStringList out;
    for (const QString& name : byAge({QStringLiteral("*.dmp")})) {
        if (!QFileInfo::exists(consentPath(name))) {
            out << name;
        }
    }
    return out;
}

QStringList CrashReportQueue::agreed() const
{
    QStringList out;
    for (const QString& name : byAge({QStringLiteral("*.dmp")})) {
        if (QFileInfo::exists(consentPath(name))) {
            out << name;
        }
    }
    return out;
}

void CrashReportQueue::agree(const QStringList& reports)
{
    for (const QString& report : reports) {
        QSaveFile file(consentPath(report));
        if (!file.open(QIODevice::WriteOnly) || file.write("0\n") != 2 || !file.commit()) {
            qWarning().noquote() << kTag << "Cannot record the consent for" << report << ":"
                                 << file.errorString();
        }
    }
}

void CrashReportQueue::decline(const QStringList& reports)
{
    for (const QString& report : reports) {
        QFile::rename(path(report), path(report) + kKept);
        QFile::remove(consentPath(report));
    }
}

int CrashReportQueue::attempts(const QString& report) const
{
    QFile file(consentPath(report));
    if (!file.open(QIODevice::ReadOnly)) {
        return 0;
    }
    return qMax(0, file.read(32).trimmed().toInt());
}

void CrashReportQueue::sent(const QString& report)
{
    QFile::remove(consentPath(report));
}

int CrashReportQueue::failed(const QString& report)
{
    const int count = attempts(report) + 1;
    if (count >= kMaxAttempts) {
        decline({report});
        qWarning().noquote() << kTag << report << "could not be sent in" << count
                             << "attempts; it is kept unsent as" << report + kKept;
        return count;
    }
    QSaveFile file(consentPath(report));
    if (file.open(QIODevice::WriteOnly)) {
        file.write(QByteArray::number(count) + '\n');
        file.commit();
    }
    return count;
}

int CrashReportQueue::prune()
{
    const QStringList all =
        byAge({QStringLiteral("*.dmp"), QStringLiteral("*.dmp.kept"), QStringLiteral("*.dmp.bad")});
    int removed = 0;
    for (int i = kKeptReports; i < all.size(); ++i) {
        const QString report = all.at(i);
        QFile::remove(consentPath(report.section(QLatin1Char('.'), 0, 0) + QStringLiteral(".dmp")));
        if (QFile::remove(path(report))) {
            removed += 1;
        }
    }
    if (removed > 0) {
        qInfo().noquote() << kTag << "Removed" << removed << "reports older than the newest" << kKeptReports;
    }
    return removed;
}
