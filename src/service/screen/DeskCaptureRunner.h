#pragma once

#include <QObject>
#include <QString>
#include <QTimer>

#include <memory>

class DeskCapturer;
class DeskFrameGrabber;

// The part of a capture source that lives on its capture thread: the pace timer and the grabber.
// A grabber whose connection fails or drops is made again with back-off while the source is
// active; the failure and the recovery are logged once each and told through the capturer.
class DeskCaptureRunner : public QObject
{
    Q_OBJECT
public:
    explicit DeskCaptureRunner(DeskCapturer* capturer);
    ~DeskCaptureRunner() override;

    static constexpr int intervalMs = 33;
    static constexpr int firstRetryMs = 1000;
    static constexpr int lastRetryMs = 30000;

public slots:
    void recheck();
    void setActive(bool active, bool blackFrame);
    void shutdown();

private:
    void tick();
    void fail(const char* what);
    void sendBlack();

    DeskCapturer* capturer;
    QTimer timer;
    QTimer retryTimer;
    std::unique_ptr<DeskFrameGrabber> grabber;
    bool active = false;
    bool failing = false; // from a failed grabber until the next frame, across deactivation
    int retryMs = 0;      // the wait before the next attempt; doubles up to lastRetryMs
    QString loggedTechnique;
};
