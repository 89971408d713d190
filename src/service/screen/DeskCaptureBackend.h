#pragma once

#include <QObject>
#include <QRect>
#include <QString>
#include <QVector>

#include <memory>

class DeskFrameGrabber;

struct DeskMonitor
{
    QString name;
    QRect geometry;
    bool primary = false;
};

// One kind of screen source (an X11 display; later a portal). It tracks the monitors on the main
// thread and makes grabbers, each with a connection of its own, for the capture threads.
class DeskCaptureBackend : public QObject
{
    Q_OBJECT
public:
    explicit DeskCaptureBackend(QObject* parent = nullptr);
    ~DeskCaptureBackend() override;

    // Main thread: connects and enumerates at once when the display is reachable.
    virtual void start() = 0;
    // Main thread: the monitors now, empty while disconnected.
    virtual QVector<DeskMonitor> monitors() const = 0;
    // Any thread: a grabber for the calling thread, null when the display can't be reached.
    virtual std::unique_ptr<DeskFrameGrabber> createGrabber() const = 0;

    // The display's own monitors and the X11 backend for the display named by DISPLAY.
    static DeskCaptureBackend* createDefault(QObject* parent = nullptr);

signals:
    // The monitor list was read anew: at start, after a change settled, after a reconnect.
    void monitorsChanged();
    // The display went away; monitorsChanged follows when it is back.
    void connectionLost();
};
