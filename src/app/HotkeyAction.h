#pragma once

#include <QKeySequence>
#include <QString>

#include <functional>

// What a hotkey action is: its source-language description, the keys bound to it, what it does.
struct HotkeyAction
{
    QString description;
    QKeySequence keys;
    std::function<void()> action;
};
