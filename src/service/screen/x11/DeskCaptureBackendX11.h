#pragma once

#include "service/screen/DeskCaptureBackend.h"

#include <QTimer>

#include <xcb/xcb.h>

class QSocketNotifier;

// Monitors of one X11 display: RandR 1.5 monitors, else the whole root. Its own connection
// listens for RandR and root configure notices on the main thread; a burst settles for 200 ms
// before the list is read again. A lost or absent server is retried every 2 s.
class DeskCaptureBackendX11 : public DeskCaptureBackend
{
    Q_OBJECT
public:
    explicit DeskCaptureBackendX11(const QString& displayName, QObject* parent = nullptr);
    ~DeskCaptureBackendX11() override;

    void start() override;
    QVector<DeskMonitor> monitors() const override;
    std::unique_ptr<DeskFrameGrabber> createGrabber() const override;

    static constexpr int settleMs = 200;
    static constexpr int retryMs = 2000;

private:
    bool connectServer();
    void disconnectServer();
    void onReadable();
    void drainEvents();
    void enumerate();
    void onLost();
    void onRetry();

    QString display;
    xcb_connection_t* connection = nullptr;
    xcb_window_t root = 0;
    bool randr15 = false;
    uint8_t randrEventBase = 0;
    QSocketNotifier* notifier = nullptr;
    QTimer settleTimer;
    QTimer retryTimer;
    bool warned = false;    // one warning per outage
    bool connected = false; // once connected, a failure is an outage
    QVector<DeskMonitor> list;
};
