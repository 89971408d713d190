#pragma once

#include "service/screen/portal/PortalSources.h"

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QVariantMap>
#include <QVector>

#include <functional>

// One ScreenCast session of the desktop portal, on the main thread: CreateSession, SelectSources
// (monitors, several, the cursor hidden where offered, persistent from version 4 with the
// token), Start and OpenPipeWireRemote. Each request's Response is subscribed before its call,
// on the path its fresh handle_token gives.
class PortalSession : public QObject
{
    Q_OBJECT
public:
    static const QString service;
    static const QString objectPath;

    explicit PortalSession(const QDBusConnection& bus, QObject* parent = nullptr);
    ~PortalSession() override; // closes the session

    // Asynchronous: started or failed follows.
    void open(const QString& restoreToken);
    // Session.Close, once; nothing more is emitted.
    void close();
    bool persistent() const { return version >= 4; }

signals:
    // fd: the PipeWire remote, now the receiver's. token: the next restore token, or empty.
    void started(const QVector<PortalSource>& sources, const QString& token, int fd);
    // response 1 (declined) or 2 (cancelled) from the dialog, or 3 for any other failure.
    void failed(uint response, const QString& why);
    // The portal closed the session.
    void closed();

private slots:
    void onResponse(uint response, const QVariantMap& results);
    void onClosed(const QVariantMap& details);

private:
    using Next = std::function<void(const QVariantMap& results)>;

    // Subscribes to the request's Response, then calls method; next gets the results of 0.
    void request(const QString& method, const QList<QVariant>& arguments, QVariantMap options,
                 const Next& next);
    void unsubscribe();
    void fail(uint response, const QString& why);
    void selectSources(const QString& restoreToken);
    void startSession();
    void openRemote(const QVector<PortalSource>& sources, const QString& token);

    QDBusConnection bus;
    QString requestPath; // the Response we wait for
    Next pending;
    QString sessionPath;
    uint version = 0;
    uint cursorModes = 0;
    bool done = false; // closed, failed or handed over: nothing more to tell
};
