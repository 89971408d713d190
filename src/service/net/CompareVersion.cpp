#include "service/net/CompareVersion.h"

#include <QStringList>

namespace {
constexpr int kParts = 4;
constexpr int kMaxDigits = 9; // nine digits always fit in 32 bits
} // namespace

QVector<quint32> versionNumbers(const QString& version)
{
    const QStringList parts = version.split(QLatin1Char('.'));
    if (parts.size() != kParts) {
        return {};
    }
    QVector<quint32> numbers;
    for (const QString& part : parts) {
        if (part.isEmpty() || part.size() > kMaxDigits) {
            return {};
        }
        quint32 value = 0;
        for (const QChar c : part) {
            // Only ASCII digits: toUInt() would take signs, spaces and other scripts' digits.
            if (c < QLatin1Char('0') || c > QLatin1Char('9')) {
                return {};
            }
            value = value * 10 + quint32(c.unicode() - '0');
        }
        numbers.append(value);
    }
    return numbers;
}

bool compareVersion(QString newVersion, QString oldVersion)
{
    const QVector<quint32> newer = versionNumbers(newVersion);
    const QVector<quint32> older = versionNumbers(oldVersion);
    if (newer.isEmpty() || older.isEmpty()) {
        return false;
    }
    return newer > older; // lexicographic on the numbers
}
