#include "hotkeys/X11KeySymbols.h"

#include <QHash>

#define XK_MISCELLANY
#define XK_LATIN1
#include <X11/XF86keysym.h>
#include <X11/keysym.h>

namespace {

const QHash<int, quint32>& specialKeys()
{
    static const QHash<int, quint32> table = [] {
        QHash<int, quint32> t{
            {Qt::Key_Escape, XK_Escape},
            {Qt::Key_Tab, XK_Tab},
            {Qt::Key_Backtab, XK_ISO_Left_Tab},
            {Qt::Key_Backspace, XK_BackSpace},
            {Qt::Key_Return, XK_Return},
            {Qt::Key_Enter, XK_KP_Enter},
            {Qt::Key_Insert, XK_Insert},
            {Qt::Key_Delete, XK_Delete},
            {Qt::Key_Pause, XK_Pause},
            {Qt::Key_Print, XK_Print},
            {Qt::Key_SysReq, XK_Sys_Req},
            {Qt::Key_Clear, XK_Clear},
            {Qt::Key_Home, XK_Home},
            {Qt::Key_End, XK_End},
            {Qt::Key_Left, XK_Left},
            {Qt::Key_Up, XK_Up},
            {Qt::Key_Right, XK_Right},
            {Qt::Key_Down, XK_Down},
            {Qt::Key_PageUp, XK_Prior},
            {Qt::Key_PageDown, XK_Next},
            {Qt::Key_CapsLock, XK_Caps_Lock},
            {Qt::Key_NumLock, XK_Num_Lock},
            {Qt::Key_ScrollLock, XK_Scroll_Lock},
            {Qt::Key_Menu, XK_Menu},
            {Qt::Key_Help, XK_Help},
            {Qt::Key_Back, XF86XK_Back},
            {Qt::Key_Forward, XF86XK_Forward},
            {Qt::Key_Stop, XF86XK_Stop},
            {Qt::Key_Refresh, XF86XK_Refresh},
            {Qt::Key_VolumeDown, XF86XK_AudioLowerVolume},
            {Qt::Key_VolumeMute, XF86XK_AudioMute},
            {Qt::Key_VolumeUp, XF86XK_AudioRaiseVolume},
            {Qt::Key_MediaPlay, XF86XK_AudioPlay},
            {Qt::Key_MediaStop, XF86XK_AudioStop},
            {Qt::Key_MediaPrevious, XF86XK_AudioPrev},
            {Qt::Key_MediaNext, XF86XK_AudioNext},
            {Qt::Key_MediaPause, XF86XK_AudioPause},
            {Qt::Key_HomePage, XF86XK_HomePage},
            {Qt::Key_Favorites, XF86XK_Favorites},
            {Qt::Key_Search, XF86XK_Search},
            {Qt::Key_LaunchMail, XF86XK_Mail},
            {Qt::Key_LaunchMedia, XF86XK_AudioMedia},
            {Qt::Key_Launch0, XF86XK_MyComputer},
            {Qt::Key_Launch1, XF86XK_Calculator},
            {Qt::Key_Calculator, XF86XK_Calculator},
            {Qt::Key_Explorer, XF86XK_Explorer},
            {Qt::Key_Sleep, XF86XK_Sleep},
            {Qt::Key_PowerOff, XF86XK_PowerOff},
            {Qt::Key_Standby, XF86XK_Standby},
        };
        for (int n = 0; n < 35; ++n) {
            t.insert(Qt::Key_F1 + n, XK_F1 + quint32(n));
        }
        return t;
    }();
    return table;
}

} // namespace

quint32 X11KeySymbols::keysymOf(int qtKey)
{
    if (qtKey >= Qt::Key_A && qtKey <= Qt::Key_Z) {
        return quint32(qtKey - Qt::Key_A) + XK_a; // the key's own symbol, not its shifted one
    }
    if (qtKey >= Qt::Key_Space && qtKey <= 0xff) {
        return quint32(qtKey); // Latin-1 symbols are their characters
    }
    if (qtKey > 0xff && qtKey <= 0xffff) {
        return 0x01000000u | quint32(qtKey); // the Unicode symbols
    }
    return specialKeys().value(qtKey, 0);
}
