#include "DeskCaptureRunner.h"

#include "DeskCaptureBackend.h"
#include "DeskCaptureOption.h"
#include "DeskCapturer.h"
#include "DeskFrameGrabber.h"

#include <QtDebug>

DeskCaptureRunner::DeskCaptureRunner(DeskCapturer* capturer)
    : capturer(capturer)
    , timer(this)
{
    // A grab that overruns makes the timer skip the ticks it missed; nothing piles up.
    timer.setTimerType(Qt::PreciseTimer);
    timer.setInterval(intervalMs);
    connect(&timer, &QTimer::timeout, this, &DeskCaptureRunner::tick);
}

DeskCaptureRunner::~DeskCaptureRunner() = default;

void DeskCaptureRunner::recheck()
{
    const bool run = active && !broken && capturer->hasListeners();
    if (run && !timer.isActive()) {
        timer.start();
    } else if (!run && timer.isActive()) {
        timer.stop();
    }
    if (!run && !active) {
        grabber.reset(); // an inactive source holds no connection
    }
}

void DeskCaptureRunner::setActive(bool on, bool blackFrame)
{
    if (!on && active && blackFrame && capturer->hasListeners()) {
        QImage black(capturer->outputSize(), QImage::Format_RGBA8888);
        black.fill(QColor(0, 0, 0, 255));
        emit capturer->frameTick(black);
    }
    active = on;
    broken = false;
    if (!on) {
        grabber.reset();
    }
    recheck();
}

void DeskCaptureRunner::shutdown()
{
    timer.stop();
    grabber.reset();
    active = false;
}

void DeskCaptureRunner::tick()
{
    // A receiver that dies drops its connection without a disconnect notice.
    if (!capturer->hasListeners()) {
        timer.stop();
        return;
    }
    if (!grabber) {
        grabber.reset(capturer->backend->createGrabber());
        if (!grabber) {
            broken = true;
            recheck();
            return;
        }
    }
    QRect area;
    QSize size;
    {
        QMutexLocker locker(&capturer->mutex);
        area = capturer->area;
        size = capturer->output;
    }
    const int mode = capturer->option ? capturer->option->curMode() : 0;
    QImage frame;
    const DeskFrameGrabber::Result result = grabber->grab(area, size, mode, &frame);
    if (result == DeskFrameGrabber::Result::Lost) {
        grabber.reset();
        broken = true; // the registry tells us when the display is back
        recheck();
        return;
    }
    if (result != DeskFrameGrabber::Result::Frame) {
        return;
    }
    const QString technique = grabber->technique(mode);
    if (technique != loggedTechnique) {
        loggedTechnique = technique;
        qInfo().noquote() << "[DeskDuplManager]: Capture of" << area << "in mode" << mode << "by"
                          << technique;
    }
    capturer->grabs.fetch_add(1);
    emit capturer->frameTick(frame);
}
