#pragma once

#include "service/screen/IDeskCapture.h"

#include <QMutex>
#include <QRect>
#include <QThread>

#include <atomic>

class DeskCaptureBackend;
class DeskCaptureOption;
class DeskCaptureRunner;

// One monitor as a capture source. It grabs on a thread of its own at 30 frames a second, and
// only while it is active and something listens to frameTick. Its output keeps the monitor's
// aspect: a resize or rotation changes the height at the next frame.
class DeskCapturer : public IDeskCapture
{
    Q_OBJECT
public:
    DeskCapturer(const DeskCaptureBackend* backend, const DeskCaptureOption* option, const QString& monitor,
                 const QRect& geometry, QObject* parent = nullptr);
    ~DeskCapturer() override; // joins the capture thread

    QSize outputSize() const override;
    QSize sourceSize() const override;
    void setOutputSize(int width, int height) override;

    // Main thread, by the registry.
    void setGeometry(const QRect& geometry); // acts at the next frame
    QRect geometry() const;
    // Inactive sources are silent; with blackFrame a listened source first sends one black frame
    // so the strip goes dark instead of freezing on the last picture.
    void setActive(bool active, bool blackFrame = false);
    void stop(); // ends the capture thread; for the exit

    bool hasListeners() const;
    int grabCount() const { return grabs.load(); }
    int connectCount() const { return connects.load(); } // grabber connections tried
    static QSize defaultOutputSize(const QSize& source);
    // The height that keeps the source's aspect at this width, as the screen workers ask for it.
    static int aspectHeight(int width, const QSize& source);

signals:
    // Emitted on the capture thread: the grabber's own connection failed or dropped (it is
    // retried with back-off), and the first frame after that.
    void grabberFailed();
    void grabberRecovered();

protected:
    void connectNotify(const QMetaMethod& signal) override;
    void disconnectNotify(const QMetaMethod& signal) override;

private:
    friend class DeskCaptureRunner;

    const DeskCaptureBackend* backend;
    const DeskCaptureOption* option;
    const QString monitor; // the backend's name of it
    mutable QMutex mutex;  // geometry and output size, read by the capture thread
    QRect area;
    QSize output;
    QThread thread;
    DeskCaptureRunner* runner; // gone once the thread has ended
    std::atomic<bool> stopped{false};
    std::atomic<int> grabs{0};
    std::atomic<int> connects{0};
};
