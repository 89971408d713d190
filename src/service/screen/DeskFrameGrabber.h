#pragma once

#include <QImage>
#include <QRect>
#include <QSize>
#include <QString>

// Grabs frames of one display on the capture thread that made it, over a connection of its own.
class DeskFrameGrabber
{
public:
    enum class Result
    {
        Frame, // the image holds the frame
        Skip,  // nothing this time (the screen changes under the grab); try again next tick
        Lost,  // the display is gone; this grabber is dead
    };

    virtual ~DeskFrameGrabber() = default;

    // area: the monitor in root coordinates; size: the output size. The frame is a new
    // Format_RGBA8888 image, alpha 255.
    virtual Result grab(const QRect& area, const QSize& size, int mode, QImage* frame) = 0;
    // How mode is grabbed, for the log.
    virtual QString technique(int mode) const = 0;
    // Whether frames are wanted now; a stream that costs while idle pauses.
    virtual void setListened(bool) {}
};
