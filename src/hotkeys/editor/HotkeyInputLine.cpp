#include "hotkeys/editor/HotkeyInputLine.h"

#include <QKeyEvent>
#include <QKeySequence>

HotkeyInputLine::HotkeyInputLine(QWidget* parent)
    : QLineEdit(parent)
{
}

QString HotkeyInputLine::pressText(Qt::KeyboardModifiers modifiers, int key, const QString& platformName)
{
    QString text;
    if (modifiers & Qt::ControlModifier) {
        text += QLatin1String("Ctrl+");
    }
    if (modifiers & Qt::AltModifier) {
        text += QLatin1String("Alt+");
    }
    if (modifiers & Qt::ShiftModifier) {
        text += QLatin1String("Shift+");
    }
    if (key != Qt::Key_Control && key != Qt::Key_Alt && key != Qt::Key_Shift) {
        // Both names, one behind the other ("Ctrl+F10F10"): such a text parses to no keys, so a
        // pressed combination is refused on commit and only a typed or pasted text rebinds.
        text += platformName + QKeySequence(key).toString(QKeySequence::PortableText);
    }
    return text;
}

void HotkeyInputLine::keyPressEvent(QKeyEvent* event)
{
    const int key = event->key();
    const bool modifierKey = key == Qt::Key_Control || key == Qt::Key_Alt || key == Qt::Key_Shift;
    setText(pressText(event->modifiers(), key,
                      modifierKey ? QString() : platformKeyName(event->nativeScanCode())));
    event->accept();
}
