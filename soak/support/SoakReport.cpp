#include "SoakReport.h"

#include <cstdio>

SoakReport::SoakReport(const QString& name)
    : soak(name)
{
    clock.start();
}

void SoakReport::line(const QString& text)
{
    std::printf("[%s %6.1f s] %s\n", qPrintable(soak), clock.elapsed() / 1000.0, qPrintable(text));
    std::fflush(stdout);
}

void SoakReport::broken(const QString& promise)
{
    problems.append(promise);
    std::printf("[%s %6.1f s] BROKEN: %s\n", qPrintable(soak), clock.elapsed() / 1000.0, qPrintable(promise));
    std::fflush(stdout);
}

void SoakReport::figure(const QString& name, const QString& value)
{
    for (auto& entry : figures) {
        if (entry.first == name) {
            entry.second = value;
            return;
        }
    }
    figures.append({name, value});
}

int SoakReport::finish()
{
    QString text = QStringLiteral("SUMMARY %1 %2").arg(soak, problems.isEmpty() ? "ok" : "broken");
    for (const auto& entry : figures) {
        text += QLatin1Char(' ') + entry.first + QLatin1Char('=') + entry.second;
    }
    text += QStringLiteral(" seconds=%1").arg(clock.elapsed() / 1000);
    std::printf("%s\n", qPrintable(text));
    if (!problems.isEmpty()) {
        std::printf("%d promise(s) broken; the first: %s\n", int(problems.size()),
                    qPrintable(problems.first()));
    }
    std::fflush(stdout);
    return problems.isEmpty() ? 0 : 1;
}
