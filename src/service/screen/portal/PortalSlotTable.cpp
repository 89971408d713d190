#include "service/screen/portal/PortalSlotTable.h"

#include "service/screen/portal/PortalFrameSlot.h"

#include <QMutexLocker>

void PortalSlotTable::set(const QHash<QString, std::shared_ptr<PortalFrameSlot>>& entries)
{
    QMutexLocker locker(&mutex);
    byName = entries;
}

std::shared_ptr<PortalFrameSlot> PortalSlotTable::find(const QString& name) const
{
    QMutexLocker locker(&mutex);
    return byName.value(name);
}
