#pragma once

#include <QHash>
#include <QMutex>
#include <QString>

#include <memory>

class PortalFrameSlot;

// The running session's frame entries by monitor name, shared by the backend (main thread) and its
// grabbers (capture threads), so that a grabber moves on to the same monitor's stream when a
// session is replaced by a restored one.
class PortalSlotTable
{
public:
    void set(const QHash<QString, std::shared_ptr<PortalFrameSlot>>& entries);
    std::shared_ptr<PortalFrameSlot> find(const QString& name) const;

private:
    mutable QMutex mutex;
    QHash<QString, std::shared_ptr<PortalFrameSlot>> byName;
};
