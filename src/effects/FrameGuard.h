#pragma once

#include "devices/OV_RGB.h"

#include <QVector>

#include <exception>

class IEffectWorker;

// Stands between a worker's frame making and the slot that runs it: an exception thrown while a
// frame is made (a failed allocation, a library's own exception) stays in the worker, is logged
// once per worker, and the strip gets the last frame that went out instead of the broken one.
// Lives in the worker and on the worker's thread.
class FrameGuard
{
public:
    explicit FrameGuard(IEffectWorker* worker);
    FrameGuard(const FrameGuard&) = delete;
    FrameGuard& operator=(const FrameGuard&) = delete;

    template <typename MakeFrame> void run(MakeFrame&& makeFrame)
    {
        try {
            makeFrame();
        } catch (const std::exception& e) {
            failed(e.what());
        }
    }

private:
    void failed(const char* what);

    IEffectWorker* worker;
    bool reported = false;
    // The last frame sent, in the shape it was sent in.
    QVector<QVector<OV_RGB>> lastLines;
    QVector<OV_RGB> lastFlat;
    bool lastWasFlat = false;
    bool anySent = false;
};
