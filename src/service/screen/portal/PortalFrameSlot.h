#pragma once

#include <QImage>
#include <QMutex>
#include <QSize>
#include <QString>

#include <cstdint>
#include <functional>

// The newest frame of one portal stream, averaged down, between the PipeWire loop that writes it
// and the capture thread that takes it. It outlives the stream: once the stream is gone it
// answers Ended, so a grabber never touches a dead session.
class PortalFrameSlot
{
public:
    enum class Take
    {
        None,  // no frame yet
        Frame, // the newest frame, again until a newer one comes
        Ended, // the stream is gone
    };

    explicit PortalFrameSlot(uint32_t node);

    uint32_t node() const { return nodeId; }

    // PipeWire loop thread: the size to average into, and the result.
    QSize outputSize() const;
    void put(const QImage& frame, const QString& technique);
    // Any thread: the stream ended; every later take() says so.
    void end();
    bool isEnded() const;

    // Capture thread: asks for frames of size from now on and takes the newest (scaled when it
    // predates the size).
    Take take(const QSize& size, QImage* frame, QString* technique);

    // The capture's hook that turns the stream on and off; an empty one detaches it. Kept under
    // a lock of its own, apart from the frame lock the loop thread takes, so that turning the
    // stream (which takes the loop's lock) never waits on a frame being put.
    void setControl(std::function<void(bool)> control);
    // Capture thread: a listener came or went.
    void setListened(bool listened);

private:
    const uint32_t nodeId;
    mutable QMutex frameMutex; // frame, output, ended, technique
    QImage frame;
    QSize output{120, 67};
    bool ended = false;
    QString technique;

    QMutex controlMutex; // control, listened
    std::function<void(bool)> control;
    bool listened = false;
};
