#include "service/screen/DeskCaptureRunner.h"

#include "service/screen/DeskCaptureBackend.h"
#include "service/screen/DeskCaptureOption.h"
#include "service/screen/DeskCapturer.h"
#include "service/screen/DeskFrameGrabber.h"

#include <QtDebug>

#include <algorithm>

// Logs under DeskDuplManager's name: the log texts of this part are fixed that way.
constexpr char kTag[] = "[DeskDuplManager]:";

DeskCaptureRunner::DeskCaptureRunner(DeskCapturer* capturer)
    : capturer(capturer)
    , timer(this)
    , retryTimer(this)
{
    // A grab that overruns makes the timer skip the ticks it missed; nothing piles up.
    timer.setTimerType(Qt::PreciseTimer);
    timer.setInterval(intervalMs);
    connect(&timer, &QTimer::timeout, this, &DeskCaptureRunner::tick);
    retryTimer.setSingleShot(true);
    connect(&retryTimer, &QTimer::timeout, this, &DeskCaptureRunner::recheck);
}

DeskCaptureRunner::~DeskCaptureRunner() = default;

void DeskCaptureRunner::recheck()
{
    const bool run = active && !retryTimer.isActive() && capturer->hasListeners();
    if (grabber) {
        grabber->setListened(run);
    }
    if (run && !timer.isActive()) {
        timer.start();
    } else if (!run && timer.isActive()) {
        timer.stop();
    }
    if (!run && !active) {
        grabber.reset(); // an inactive source holds no connection
    }
}

void DeskCaptureRunner::sendBlack()
{
    QImage black(capturer->outputSize(), QImage::Format_RGBA8888);
    black.fill(QColor(0, 0, 0, 255));
    emit capturer->frameTick(black);
}

void DeskCaptureRunner::setActive(bool on, bool blackFrame)
{
    // A failed source already went dark.
    if (!on && active && blackFrame && !failing && capturer->hasListeners()) {
        sendBlack();
    }
    active = on;
    retryTimer.stop();
    retryMs = 0; // a source listed again starts its back-off afresh
    if (!on) {
        grabber.reset();
    }
    recheck();
}

void DeskCaptureRunner::shutdown()
{
    timer.stop();
    retryTimer.stop();
    grabber.reset();
    active = false;
}

void DeskCaptureRunner::fail(const char* what)
{
    grabber.reset();
    timer.stop();
    retryMs = std::clamp(retryMs * 2, int(firstRetryMs), int(lastRetryMs));
    retryTimer.start(retryMs);
    if (failing) {
        return;
    }
    failing = true;
    qWarning().noquote() << kTag << "Capture of" << capturer->geometry() << what
                         << "- retrying in 1 s, then less often, up to every 30 s";
    // Dark rather than frozen on the last picture.
    if (capturer->hasListeners()) {
        sendBlack();
    }
    emit capturer->grabberFailed();
}

void DeskCaptureRunner::tick()
{
    // A receiver that dies drops its connection without a disconnect notice.
    if (!capturer->hasListeners()) {
        timer.stop();
        return;
    }
    if (!grabber) {
        capturer->connects.fetch_add(1);
        grabber = capturer->backend->createGrabber(capturer->monitor);
        if (!grabber) {
            fail("cannot connect to the display");
            return;
        }
        grabber->setListened(true);
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
        fail("lost its connection to the display");
        return;
    }
    if (result != DeskFrameGrabber::Result::Frame) {
        return;
    }
    if (failing) {
        failing = false;
        retryMs = 0;
        qInfo().noquote() << kTag << "Capture of" << area << "is back";
        emit capturer->grabberRecovered();
    }
    const QString technique = grabber->technique(mode);
    if (technique != loggedTechnique) {
        loggedTechnique = technique;
        qInfo().noquote() << kTag << "Capture of" << area << "in mode" << mode << "by" << technique;
    }
    capturer->grabs.fetch_add(1);
    emit capturer->frameTick(frame);
}
