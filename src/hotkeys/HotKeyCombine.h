#pragma once

#include "hotkeys/QHotkey.h"

#include <QKeySequence>
#include <QMetaType>
#include <QString>

#include <memory>

// One bound action's keys and its live hotkey; copies share the hotkey, which unregisters when the
// last copy goes.
struct HotKeyCombine
{
    QKeySequence keys;
    QString name; // stays empty
    std::shared_ptr<QHotkey> hotkey;
};

Q_DECLARE_METATYPE(HotKeyCombine)
