#pragma once

#include <QElapsedTimer>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

// What a soak program prints: a line per checkpoint, a line per broken promise (at once, with
// "BROKEN:"), and at the end one summary line, "SUMMARY <soak> ok|broken <name>=<value>...", that
// make soak gathers into its table. The exit code is 1 once a promise broke.
class SoakReport
{
public:
    explicit SoakReport(const QString& soak);

    void line(const QString& text);
    void broken(const QString& promise);
    bool isBroken() const { return !problems.isEmpty(); }
    void figure(const QString& name, const QString& value);
    // Prints the summary; the exit code.
    int finish();

private:
    QString soak;
    QStringList problems;
    QList<QPair<QString, QString>> figures;
    QElapsedTimer clock;
};
