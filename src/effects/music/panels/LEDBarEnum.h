#pragma once

#include <QMetaType>

// A bar of the music panels' signals; the modes themselves name bars by fragment only.
enum class LEDBarEnum
{
    Bass,
    Middle,
    Treble
};

Q_DECLARE_METATYPE(LEDBarEnum)
