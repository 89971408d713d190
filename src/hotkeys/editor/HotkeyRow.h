#pragma once

#include <QKeySequence>
#include <QString>

// One row of the hotkey table: the keys bound now and the action's source-language description.
struct HotkeyRow
{
    QKeySequence keys;
    QString description;
};
