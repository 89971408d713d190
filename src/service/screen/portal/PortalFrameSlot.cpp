#include "service/screen/portal/PortalFrameSlot.h"

#include <QMutexLocker>

PortalFrameSlot::PortalFrameSlot(uint32_t node)
    : nodeId(node)
{
}

QSize PortalFrameSlot::outputSize() const
{
    QMutexLocker locker(&frameMutex);
    return output;
}

void PortalFrameSlot::put(const QImage& newest, const QString& how)
{
    QMutexLocker locker(&frameMutex);
    if (ended) {
        return;
    }
    frame = newest;
    technique = how;
}

void PortalFrameSlot::end()
{
    QMutexLocker locker(&frameMutex);
    ended = true;
    frame = QImage();
}

bool PortalFrameSlot::isEnded() const
{
    QMutexLocker locker(&frameMutex);
    return ended;
}

PortalFrameSlot::Take PortalFrameSlot::take(const QSize& size, QImage* out, QString* how)
{
    QImage newest;
    {
        QMutexLocker locker(&frameMutex);
        if (ended) {
            return Take::Ended;
        }
        if (size.isValid() && !size.isEmpty()) {
            output = size;
        }
        newest = frame;
        *how = technique;
    }
    if (newest.isNull()) {
        return Take::None;
    }
    // A still screen sends nothing new after a size change: the last frame, scaled, until it does.
    *out = newest.size() == size || !size.isValid() || size.isEmpty()
               ? newest
               : newest.scaled(size, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    return Take::Frame;
}

void PortalFrameSlot::setControl(std::function<void(bool)> hook)
{
    QMutexLocker locker(&controlMutex);
    control = std::move(hook);
}

void PortalFrameSlot::setListened(bool on)
{
    QMutexLocker locker(&controlMutex);
    if (listened == on) {
        return;
    }
    listened = on;
    if (control) {
        control(on);
    }
}
