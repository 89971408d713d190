#pragma once

#include <QtGlobal>

// Qt's keys as X key symbols (X11/keysym.h, X11/XF86keysym.h). No X connection is involved: which
// key code carries a symbol is the server's map's business.
namespace X11KeySymbols {

// 0 for a key with no symbol.
quint32 keysymOf(int qtKey);

} // namespace X11KeySymbols
