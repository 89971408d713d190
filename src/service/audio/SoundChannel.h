#pragma once

#include "service/audio/Spectrum.h"

#include <QMetaType>
#include <QVector>
#include <QtGlobal>

// The spectrum of one audio channel; a delivery holds the left channel first, then the right.
struct alignas(8) SoundChannel
{
    QVector<Spectrum> spectrums; // sorted by rising frequency
    qint64 captureTimeNs = 0;    // steady-clock time of the newest sample analysed
};
static_assert(sizeof(SoundChannel) == 16, "SoundChannel must be 16 bytes");
static_assert(alignof(SoundChannel) == 8, "SoundChannel must be aligned to 8");

Q_DECLARE_METATYPE(SoundChannel)
Q_DECLARE_METATYPE(QVector<SoundChannel>)
