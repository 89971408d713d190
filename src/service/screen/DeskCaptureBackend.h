#pragma once

#include <QObject>
#include <QRect>
#include <QString>
#include <QVector>

#include <memory>

class DeskFrameGrabber;

struct DeskMonitor
{
    QString name;  // stable: a source found again under it keeps its id
    QString label; // shown instead of the name when set
    QRect geometry;
    bool primary = false;
};

// Where screen capture stands, for the user: a notice while a worker has no source.
enum class DeskCaptureState
{
    Ready,                  // sources are listed, or will be without asking anyone
    NoSource,               // neither an X11 display nor a portal
    XwaylandWithoutSharing, // a Wayland desktop whose portal shares no screens
    Asking,                 // the desktop asks the user which screens to share
    Declined,               // the user said no
    Stopped,                // the user stopped sharing from the desktop
    DisplayLost,            // the source went away; it is retried
};
Q_DECLARE_METATYPE(DeskCaptureState)

// One kind of screen source (an X11 display, the desktop portal). It tracks the monitors on the main
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
    // Any thread: a grabber of the monitor of that name for the calling thread, null when the
    // display can't be reached.
    virtual std::unique_ptr<DeskFrameGrabber> createGrabber(const QString& monitor) const = 0;
    // Main thread.
    virtual DeskCaptureState state() const = 0;
    virtual QString kind() const = 0; // for the log
    // Main thread: a worker needs sources; byUser: the user asked, after a refusal too.
    virtual void requestSources(bool byUser);
    // Main thread, at exit before the capture threads end.
    virtual void shutdown();

    // The session's backend: X11 on a real X11 display, else the desktop portal where it shares
    // monitors, else X11 where DISPLAY is set at all; null when none of them applies.
    static std::unique_ptr<DeskCaptureBackend> createDefault();
    // The state while createDefault finds nothing.
    static DeskCaptureState noBackendState();

signals:
    // The monitor list was read anew: at start, after a change settled, after a reconnect.
    void monitorsChanged();
    // The display went away; monitorsChanged follows when it is back.
    void connectionLost();
    void stateChanged();
};
