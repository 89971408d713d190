#pragma once

#include "service/screen/DeskFrameGrabber.h"

#include <memory>

class PortalFrameSlot;
class PortalSlotTable;

// Takes a portal stream's newest frame from its slot at the capture runner's pace: Skip before
// the first, the last again while nothing new came, Lost once the stream ended and no newer
// session shows the monitor. The area and
// the mode don't apply: the stream is the monitor and is averaged on arrival.
class DeskFrameGrabberPortal : public DeskFrameGrabber
{
public:
    DeskFrameGrabberPortal(std::shared_ptr<PortalSlotTable> table, const QString& monitor,
                           std::shared_ptr<PortalFrameSlot> slot);
    ~DeskFrameGrabberPortal() override; // no longer listened

    Result grab(const QRect& area, const QSize& size, int mode, QImage* frame) override;
    QString technique(int mode) const override;
    void setListened(bool listened) override;

private:
    std::shared_ptr<PortalSlotTable> table;
    QString monitor;
    std::shared_ptr<PortalFrameSlot> slot;
    bool listened = false;
    QString how;
};
