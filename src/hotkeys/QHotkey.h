#pragma once

#include <QKeySequence>
#include <QLoggingCategory>
#include <QMetaType>
#include <QObject>

Q_DECLARE_LOGGING_CATEGORY(logQHotkey)

// One system-wide shortcut: set its keys, register it, and it signals when they go down and come
// up, whichever program has the focus. All hotkeys share one platform engine (QHotkeyPrivate),
// which keeps one native registration per key combination however many hotkeys use it.
class QHotkey : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool registered READ isRegistered WRITE setRegistered NOTIFY registeredChanged)
    Q_PROPERTY(QKeySequence shortcut READ shortcut WRITE setShortcut RESET resetShortcut)

public:
    // The platform's form of a combination: on X11 the key code and the core modifier mask.
    struct NativeShortcut
    {
        quint32 key = 0;
        quint32 modifier = 0;
        bool valid = false;

        NativeShortcut() = default;
        NativeShortcut(quint32 nativeKey, quint32 nativeModifier)
            : key(nativeKey)
            , modifier(nativeModifier)
            , valid(true)
        {
        }
        bool operator==(const NativeShortcut& other) const
        {
            return key == other.key && modifier == other.modifier && valid == other.valid;
        }
        bool operator!=(const NativeShortcut& other) const { return !(*this == other); }
    };

    // What the session lets a registration do.
    enum class Availability
    {
        Global,          // an X11 desktop: from any window
        WhileX11Focused, // Xwayland: only while one of its windows has the focus
        None,            // no X11 session: every registration fails
    };

    explicit QHotkey(QObject* parent = nullptr);
    explicit QHotkey(const QKeySequence& shortcut, bool autoRegister = false, QObject* parent = nullptr);
    QHotkey(Qt::Key key, Qt::KeyboardModifiers modifiers, bool autoRegister = false,
            QObject* parent = nullptr);
    explicit QHotkey(NativeShortcut shortcut, bool autoRegister = false, QObject* parent = nullptr);
    ~QHotkey() override;

    bool isRegistered() const { return registered; }
    // Empty while the key is Qt::Key_unknown (none, or set natively).
    QKeySequence shortcut() const;
    Qt::Key currentKeyCode() const { return keyCode; }
    Qt::KeyboardModifiers currentModifiers() const { return modifiers; }
    NativeShortcut currentNativeShortcut() const { return nativeShortcut; }

    static Availability availability();

public slots:
    bool setRegistered(bool registered);
    // The first step of a sequence; more steps are warned about and left out.
    bool setShortcut(const QKeySequence& shortcut, bool autoRegister = false);
    bool setShortcut(Qt::Key key, Qt::KeyboardModifiers modifiers, bool autoRegister = false);
    bool resetShortcut();
    bool setNativeShortcut(QHotkey::NativeShortcut nativeShortcut, bool autoRegister = false);

signals:
    void activated();
    void released();
    void registeredChanged(bool registered);

private:
    friend class QHotkeyPrivate;

    // A registered hotkey is unregistered first; false when it may not or could not be.
    bool prepareChange(bool autoRegister);
    bool registerNow();
    bool unregisterNow();

    Qt::Key keyCode = Qt::Key_unknown;
    Qt::KeyboardModifiers modifiers = Qt::NoModifier;
    NativeShortcut nativeShortcut;
    bool registered = false;
};

uint qHash(QHotkey::NativeShortcut key, uint seed = 0);

Q_DECLARE_METATYPE(QHotkey::NativeShortcut)
