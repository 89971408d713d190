#pragma once

#include <QMetaType>
#include <QVector>

// One analysis bin. Levels run from 0 (silence, or 60 dB below the recent peak) to 80 (the peak).
struct Spectrum
{
    float frequency = 0.0f; // centre of the bin in Hz
    float amplitude = 0.0f; // linear amplitude; a full-scale sine on the bin's centre reads 1.0
    float db = 0.0f;        // the level on the analyser's scale, which follows the recent peak
};
static_assert(sizeof(Spectrum) == 12, "Spectrum must be 12 bytes");

Q_DECLARE_METATYPE(Spectrum)
Q_DECLARE_METATYPE(QVector<Spectrum>)
