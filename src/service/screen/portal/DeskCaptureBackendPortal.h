#pragma once

#include "service/screen/DeskCaptureBackend.h"
#include "service/screen/portal/PortalSources.h"

#include <QDBusConnection>
#include <QHash>
#include <QPointer>
#include <QSet>
#include <QTimer>

#include <memory>

class PipeWireCapture;
class PortalSession;
class PortalSlotTable;
class QDBusServiceWatcher;

// Screens shared through the desktop portal's ScreenCast, on the main thread. A session opens
// only when a worker asks; with a restore token (kept in "screenCastRestoreToken") it opens
// without a dialog and closes 10 s after its last listener. A session that ends on its own (the
// portal gone, every stream ended) is asked again with the token while a worker wants it, from
// 2 s up to every 30 s; a session the user stopped or declined waits for the user.
class DeskCaptureBackendPortal : public DeskCaptureBackend
{
    Q_OBJECT
public:
    explicit DeskCaptureBackendPortal(const QDBusConnection& bus, QObject* parent = nullptr);
    ~DeskCaptureBackendPortal() override;

    void start() override;
    QVector<DeskMonitor> monitors() const override;
    std::unique_ptr<DeskFrameGrabber> createGrabber(const QString& monitor) const override;
    DeskCaptureState state() const override { return current; }
    QString kind() const override { return QStringLiteral("the desktop portal"); }
    void requestSources(bool byUser) override;
    void shutdown() override;

    // The bus has a portal (running or activatable) that shares monitors.
    static bool available(const QDBusConnection& bus);

    static constexpr int idleCloseMs = 10000;
    static constexpr int firstRetryMs = 2000;
    static constexpr int lastRetryMs = 30000;
    static constexpr int closedGraceMs = 500;

private:
    void open();
    void onStarted(PortalSession* opened, const QVector<PortalSource>& sources, const QString& token, int fd);
    void onFailed(PortalSession* opened, uint response);
    void onClosed();
    void onPortalGone();
    void onPortalBack();
    void onStreamEnded(uint32_t node);
    void onNegotiated(uint32_t node, QSize size);
    void onListened(uint32_t node, bool listened);
    // Ends the session and its video; the sources go.
    void endSession();
    void scheduleRetry();
    void setState(DeskCaptureState state);
    void storeToken(const QString& token);

    QDBusConnection bus;
    QDBusServiceWatcher* watcher = nullptr;
    QPointer<PortalSession> session; // running
    QPointer<PortalSession> pending; // being opened; replaces the running one when it starts
    std::unique_ptr<PipeWireCapture> capture;
    QVector<PortalSource> sources; // of the running session; those without a size yet are not listed
    QSet<uint32_t> listenedNodes;
    QSet<uint32_t> endedNodes;        // of the running session, as their ends reached the main thread
    QHash<QString, QSize> knownSizes; // by monitor name, as its stream last agreed
    bool wanted = false;              // a worker waits for sources
    bool persistent = false;          // the running session came with a token: it can close when idle
    int generation = 0;               // of the video: events of an ended one are dropped
    QTimer idleTimer;
    QTimer lossTimer; // every stream ended: the session's Closed may still come
    QTimer retryTimer;
    int retryMs = 0;
    // Until a worker asks, and after an idle close, sources come without a word to anyone.
    DeskCaptureState current = DeskCaptureState::Ready;

    std::shared_ptr<PortalSlotTable> slotTable;
};
