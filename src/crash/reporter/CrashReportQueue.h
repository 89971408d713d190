#pragma once

#include <QString>
#include <QStringList>

// The reports in the dump folder and the user's decision on each, one file per state so that two
// reporters never disagree: undecided "<id>.dmp"; agreed, also "<id>.consent" (holding the count
// of failed attempts); declined "<id>.dmp.kept". Names are the reports' file names ("<id>.dmp").
class CrashReportQueue
{
public:
    static constexpr int kKeptReports = 10;
    static constexpr int kMaxAttempts = 5;

    explicit CrashReportQueue(const QString& folder);

    QString folder() const { return dir; }
    QString path(const QString& report) const;

    // Newest first.
    QStringList undecided() const;
    QStringList agreed() const;

    void agree(const QStringList& reports);
    void decline(const QStringList& reports);
    int attempts(const QString& report) const;
    // After a good reply: the consent goes (the report has gone already).
    void sent(const QString& report);
    // After a failed one: counted; at the last attempt the report is kept unsent. The count.
    int failed(const QString& report);
    // Deletes all but the newest kKeptReports reports, whatever their state. How many went.
    int prune();

private:
    QString consentPath(const QString& report) const;
    QStringList byAge(const QStringList& patterns) const;

    QString dir;
};
