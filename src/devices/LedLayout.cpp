#include "devices/LedLayout.h"

#include <QJsonArray>
#include <QJsonValue>

#include <cmath>

namespace {

// A number as the file holds it, for a log line: whole numbers in full, not as 2e+09.
QString shown(const QJsonValue& value)
{
    const double d = value.toDouble();
    return std::fabs(d) < 1e15 && d == std::trunc(d) ? QString::number(qint64(d))
                                                     : QString::number(d, 'g', 17);
}

} // namespace

QString LedLayout::problem(uint32_t nbLeds, const QVector<uint32_t>& lines)
{
    if (nbLeds == 0) {
        return QStringLiteral("\"nbLeds\" is 0");
    }
    if (nbLeds > maxLeds) {
        return QStringLiteral("\"nbLeds\" is %1, more than %2").arg(nbLeds).arg(maxLeds);
    }
    if (lines.isEmpty()) {
        return QStringLiteral("\"lines\" is empty");
    }
    if (uint32_t(lines.size()) > maxLeds) {
        return QStringLiteral("\"lines\" has %1 entries, more than %2").arg(lines.size()).arg(maxLeds);
    }
    uint64_t sum = 0;
    for (int i = 0; i < lines.size(); ++i) {
        if (lines[i] > maxLeds) {
            return QStringLiteral("line %1 is %2, more than %3").arg(i + 1).arg(lines[i]).arg(maxLeds);
        }
        sum += lines[i];
    }
    if (sum != nbLeds) {
        return QStringLiteral("\"lines\" add up to %1, not \"nbLeds\" %2").arg(sum).arg(nbLeds);
    }
    return QString();
}

bool LedLayout::readCount(const QJsonValue& value, uint32_t* count)
{
    *count = 0;
    if (!value.isDouble()) {
        return true;
    }
    const double d = std::trunc(value.toDouble());
    if (!(d >= 0.0 && d <= double(maxLeds))) {
        return false;
    }
    *count = uint32_t(d);
    return true;
}

bool LedLayout::read(const QJsonObject& object, uint32_t* nbLeds, QVector<uint32_t>* lines, QString* why)
{
    lines->clear();
    const QJsonValue count = object.value(QLatin1String("nbLeds"));
    if (!readCount(count, nbLeds)) {
        *why = QStringLiteral("\"nbLeds\" is %1, not a count from 0 to %2").arg(shown(count)).arg(maxLeds);
        return false;
    }
    const QJsonArray array = object.value(QLatin1String("lines")).toArray();
    if (uint32_t(array.size()) > maxLeds) {
        *nbLeds = 0;
        *why = QStringLiteral("\"lines\" has %1 entries, more than %2").arg(array.size()).arg(maxLeds);
        return false;
    }
    lines->reserve(array.size());
    for (int i = 0; i < array.size(); ++i) {
        uint32_t line = 0;
        if (!readCount(array.at(i), &line)) {
            *nbLeds = 0;
            lines->clear();
            *why = QStringLiteral("line %1 is %2, not a count from 0 to %3")
                       .arg(i + 1)
                       .arg(shown(array.at(i)))
                       .arg(maxLeds);
            return false;
        }
        lines->append(line);
    }
    return true;
}
