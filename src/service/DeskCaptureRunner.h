#pragma once

#include <QObject>
#include <QString>
#include <QTimer>

#include <memory>

class DeskCapturer;
class DeskFrameGrabber;

// The part of a capture source that lives on its capture thread: the pace timer and the grabber.
class DeskCaptureRunner : public QObject
{
    Q_OBJECT
public:
    explicit DeskCaptureRunner(DeskCapturer* capturer);
    ~DeskCaptureRunner() override;

    static constexpr int intervalMs = 33;

public slots:
    void recheck();
    void setActive(bool active, bool blackFrame);
    void shutdown();

private:
    void tick();

    DeskCapturer* capturer;
    QTimer timer;
    std::unique_ptr<DeskFrameGrabber> grabber;
    bool active = false;
    bool broken = false; // the display went away under us; wait for the registry
    QString loggedTechnique;
};
