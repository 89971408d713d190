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

Q_DECLARE_METATYPE(ControlOptions)
