#pragma once

#include "PortalScript.h"
#include "ScreenStreams.h"

#include <QDBusConnection>
#include <QDBusVirtualObject>
#include <QHash>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QString>
#include <QVector>

class QDBusServiceWatcher;

// The ScreenCast interface of org.freedesktop.portal.Desktop with its Request and Session
// objects, from the portal's published D-Bus interface, answering with a scripted choice and serving
// the chosen monitors as ScreenStreams. Lives on the simulator's own thread; PortalSimulator calls
// it there.
class ScreenCastPortal : public QDBusVirtualObject
{
    Q_OBJECT

public:
    explicit ScreenCastPortal(QObject* parent = nullptr);
    ~ScreenCastPortal() override;

    // Connects to the bus and PipeWire, owns the name; false with errorString().
    bool start(const QString& busAddress, const QString& pipewireSocket, const QString& tokenFile);
    // The name leaves the bus; sessions and their streams end without Closed.
    void leaveBus();
    // As a crash: the bus and PipeWire connections drop, in-memory tokens are lost.
    void kill();
    QString errorString() const { return error; }

    QString introspect(const QString& path) const override;
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;

    // The script, read when the dialog shows.
    PortalChoice choice;
    uint version = 4;
    uint sourceTypes = 1 | 2;
    uint cursorModes = 1 | 2 | 4;
    bool sessionHandleAsString = false; // some portals send the session handle as a string

    // Closes every session from the portal's side (Closed), ending its streams.
    void closeSessions();
    // The streams of the newest started session, in Start's order.
    void endStream(int index);
    void resizeStream(int index, QSize size);
    void setContent(int index, const ScreenContent& content);
    void sendBroken(int index, ScreenStreams::Broken kind);
    struct StreamInfo
    {
        quint32 node = 0; // 0 once ended
        QString state;    // PipeWire's name of the stream's state, or "ended"
        quint64 frames = 0;
        QSize negotiated;
        qint64 contentQueuedNs = 0; // the first frame of the content last set (steady clock)
    };
    QVector<StreamInfo> streams();
    QStringList validTokens() const;
    int openSessions() const { return sessions.size(); }

    QList<PortalCall> calls() const; // any thread

private:
    struct Session
    {
        enum class Stage
        {
            Created,
            Selected,
            Starting,
            Started,
        };
        QString path;
        QString sender;
        Stage stage = Stage::Created;
        bool multiple = false;
        uint persistMode = 0;
        QVector<SimulatedMonitor> restoreFrom; // from a valid restore token
        bool restoring = false;
        QVector<int> handles; // ScreenStreams handles, in Start's order
    };
    struct Token
    {
        QVector<SimulatedMonitor> monitors;
        uint persistMode = 0;
        QString sender;
    };

    void record(const PortalCall& call);
    static QString senderElement(const QString& sender);
    QString requestPath(const QString& sender, const QVariantMap& options);
    void respond(const QString& sender, const QString& request, uint code, const QVariantMap& results);
    void reply(const QDBusMessage& message, const QList<QVariant>& arguments);
    void fail(const QDBusMessage& message, const QString& name, const QString& text);
    Session* ownedSession(const QDBusMessage& message, const QString& path);
    void endSession(const QString& path, bool announce);
    void onSenderGone(const QString& name);

    void createSession(const QDBusMessage& message);
    void selectSources(const QDBusMessage& message);
    void startSession(const QDBusMessage& message);
    void openPipeWireRemote(const QDBusMessage& message);
    void properties(const QDBusMessage& message, const QString& path);

    void loadTokens();
    void saveTokens() const;

    QDBusConnection bus{QString()};
    QString connectionName;
    QString socketPath;
    QString tokenFile;
    ScreenStreams video;
    QDBusServiceWatcher* watcher = nullptr;
    QMap<QString, Session> sessions;
    QString newestStarted;
    QHash<QString, Token> tokens;
    QVector<ScreenContent> contents;
    int serial = 0;
    QString error;

    mutable QMutex callsMutex;
    QList<PortalCall> received; // guarded by callsMutex
};
