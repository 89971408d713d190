#pragma once

#include "service/screen/DeskCaptureBackend.h"

#include <QList>
#include <QVariant>
#include <QVariantMap>
#include <QVector>

#include <cstdint>

// One entry of a ScreenCast Start reply's "streams" (a(ua{sv})): the PipeWire node and its
// properties ("id", "position", "size", ...).
struct PortalStreamEntry
{
    uint32_t node = 0;
    QVariantMap properties;
};

// A shared screen: its PipeWire node and the monitor it shows.
struct PortalSource
{
    uint32_t node = 0;
    DeskMonitor monitor;
};

// What a Start reply means, apart from the bus: pure functions of the reply.
namespace PortalSources {

// The "streams" value as it comes off the bus; entries of the wrong shape are left out.
QList<PortalStreamEntry> entriesOf(const QVariant& streams);
// One monitor per stream: named "portal:" and its "id" (stable across restores), else its index
// from 1; at its "position", else left to right; of its "size", else invalid until the stream
// tells its size; labelled "Screen <n>".
QVector<PortalSource> sourcesOf(const QList<PortalStreamEntry>& entries);

} // namespace PortalSources
