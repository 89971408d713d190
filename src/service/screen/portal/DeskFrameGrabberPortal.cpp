#include "service/screen/portal/DeskFrameGrabberPortal.h"

#include "service/screen/portal/PortalFrameSlot.h"
#include "service/screen/portal/PortalSlotTable.h"

DeskFrameGrabberPortal::DeskFrameGrabberPortal(std::shared_ptr<PortalSlotTable> slotTable,
                                               const QString& name, std::shared_ptr<PortalFrameSlot> frames)
    : table(std::move(slotTable))
    , monitor(name)
    , slot(std::move(frames))
{
}

DeskFrameGrabberPortal::~DeskFrameGrabberPortal()
{
    slot->setListened(false);
}

DeskFrameGrabber::Result DeskFrameGrabberPortal::grab(const QRect&, const QSize& size, int, QImage* frame)
{
    PortalFrameSlot::Take taken = slot->take(size, frame, &how);
    if (taken == PortalFrameSlot::Take::Ended) {
        const auto newer = table->find(monitor);
        if (!newer || newer == slot || newer->isEnded()) {
            return Result::Lost;
        }
        slot = newer;
        slot->setListened(listened);
        taken = slot->take(size, frame, &how);
    }
    switch (taken) {
    case PortalFrameSlot::Take::Ended:
        return Result::Lost;
    case PortalFrameSlot::Take::None:
        return Result::Skip;
    case PortalFrameSlot::Take::Frame:
        break;
    }
    return Result::Frame;
}

QString DeskFrameGrabberPortal::technique(int) const
{
    return how;
}

void DeskFrameGrabberPortal::setListened(bool on)
{
    listened = on;
    slot->setListened(on);
}
