#pragma once

#include <QLineEdit>

// A line edit that shows the keys pressed instead of typing them: the modifiers, the platform's
// name of the key and Qt's. Its other inputs (an input method's commit, a paste from the context
// menu) still enter text.
class HotkeyInputLine : public QLineEdit
{
    Q_OBJECT
public:
    explicit HotkeyInputLine(QWidget* parent = nullptr);

    // The text a press shows: "Ctrl+", "Alt+", "Shift+" as held (Meta is left out), then for a
    // key that is no modifier of those three its platform name followed by its PortableText.
    static QString pressText(Qt::KeyboardModifiers modifiers, int key, const QString& platformName);
    // The X key symbol's name of a native scan code (an X key code), or the code in hexadecimal
    // when it has none. In HotkeyInputLineX11.cpp.
    static QString platformKeyName(quint32 nativeScanCode);

protected:
    void keyPressEvent(QKeyEvent* event) override;
};
