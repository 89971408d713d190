#pragma once

#include <QImage>
#include <QMetaType>
#include <QString>
#include <QVector>
#include <cstdint>

// The settings record of one device; a blank id means invalid.
struct ControlOptions
{
    QString kindName;
    QString portName;
    QString model;
    QString serial;
    QString id;
    QImage icon;
    QImage image;
    uint32_t nbLeds = 0;
    QVector<uint32_t> lines;
    float brightness = 0.5f; // a JSON source without the key gives 0.8 instead
    bool enable = true;
    uint32_t status = 0;
    uint32_t installDirection = 0;
    QString workMode;
    QString subMode;
};

// The most LEDs a strip can have: a frame carries its count in 16 bits. LED counts, lines and
// indices from files are checked against it as well as against the strip's own length.
constexpr uint32_t kMaxLeds = 65535;

Q_DECLARE_METATYPE(ControlOptions)
