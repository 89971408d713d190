#pragma once

#include <QJsonObject>
#include <QString>
#include <QVector>

#include <cstdint>

// The limits of a strip's layout. The frame carries the LED count in 16 bits, so no count, line
// or index beyond maxLeds can reach a device; a layout outside them counts as not configured.
class LedLayout
{
public:
    static constexpr uint32_t maxLeds = 65535;

    // Why nbLeds and lines do not describe a strip a frame can carry, naming the value; empty
    // when they do.
    static QString problem(uint32_t nbLeds, const QVector<uint32_t>& lines);

    // Reads "nbLeds" and "lines" of a layout read from a file: a missing or non-numeric value is
    // 0, a fraction is cut. A count outside 0..maxLeds, or more lines than that, leaves both empty
    // and returns false with the value named in *why; lines that don't add up are kept.
    static bool read(const QJsonObject& object, uint32_t* nbLeds, QVector<uint32_t>* lines, QString* why);

    // One count read from a file, cut to an integer; false when it lies outside 0..maxLeds.
    static bool readCount(const QJsonValue& value, uint32_t* count);
};
