#include "service/screen/portal/PortalSession.h"

#include <QCoreApplication>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>
#include <QDBusVariant>
#include <QtDebug>

#include <fcntl.h>

namespace {

constexpr char kTag[] = "[PortalSession]:";
const QString screenCast = QStringLiteral("org.freedesktop.portal.ScreenCast");
const QString requestInterface = QStringLiteral("org.freedesktop.portal.Request");
const QString sessionInterface = QStringLiteral("org.freedesktop.portal.Session");

constexpr uint kMonitor = 1;
constexpr uint kCursorHidden = 1; // the strip shows the screen, not the pointer
constexpr uint kPersistUntilRevoked = 2;

QString freshToken()
{
    static int serial = 0;
    return QStringLiteral("orvanta%1_%2").arg(QCoreApplication::applicationPid()).arg(++serial);
}

} // namespace

const QString PortalSession::service = QStringLiteral("org.freedesktop.portal.Desktop");
const QString PortalSession::objectPath = QStringLiteral("/org/freedesktop/portal/desktop");

PortalSession::PortalSession(const QDBusConnection& connection, QObject* parent)
    : QObject(parent)
    , bus(connection)
{
}

PortalSession::~PortalSession()
{
    close();
}

void PortalSession::open(const QString& restoreToken)
{
    // The portal's properties first: the version decides persistence, the modes the cursor.
    QDBusMessage get = QDBusMessage::createMethodCall(
        service, objectPath, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("GetAll"));
    get << screenCast;
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(get), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, restoreToken](QDBusPendingCallWatcher* w) {
                w->deleteLater();
                const QDBusPendingReply<QVariantMap> reply = *w;
                if (reply.isError()) {
                    fail(3, reply.error().message());
                    return;
                }
                const QVariantMap properties = reply.value();
                version = properties.value(QStringLiteral("version")).toUInt();
                cursorModes = properties.value(QStringLiteral("AvailableCursorModes")).toUInt();
                if (!(properties.value(QStringLiteral("AvailableSourceTypes")).toUInt() & kMonitor)) {
                    fail(3, QStringLiteral("the portal shares no monitors"));
                    return;
                }
                request(QStringLiteral("CreateSession"), {},
                        {{QStringLiteral("session_handle_token"), freshToken()}},
                        [this, restoreToken](const QVariantMap& results) {
                            const QVariant handle = results.value(QStringLiteral("session_handle"));
                            // Some portals send the handle as a string.
                            sessionPath = handle.userType() == qMetaTypeId<QDBusObjectPath>()
                                              ? handle.value<QDBusObjectPath>().path()
                                              : handle.toString();
                            if (sessionPath.isEmpty()) {
                                fail(3, QStringLiteral("CreateSession gave no session"));
                                return;
                            }
                            bus.connect(QString(), sessionPath, sessionInterface, QStringLiteral("Closed"),
                                        this, SLOT(onClosed(QVariantMap)));
                            selectSources(restoreToken);
                        });
            });
}

void PortalSession::selectSources(const QString& restoreToken)
{
    QVariantMap options{{QStringLiteral("types"), kMonitor}, {QStringLiteral("multiple"), true}};
    if (cursorModes & kCursorHidden) {
        options.insert(QStringLiteral("cursor_mode"), kCursorHidden);
    }
    if (version >= 4) {
        options.insert(QStringLiteral("persist_mode"), kPersistUntilRevoked);
        if (!restoreToken.isEmpty()) {
            options.insert(QStringLiteral("restore_token"), restoreToken);
        }
    }
    request(QStringLiteral("SelectSources"), {QVariant::fromValue(QDBusObjectPath(sessionPath))}, options,
            [this](const QVariantMap&) { startSession(); });
}

void PortalSession::startSession()
{
    request(QStringLiteral("Start"), {QVariant::fromValue(QDBusObjectPath(sessionPath)), QString()}, {},
            [this](const QVariantMap& results) {
                const QVector<PortalSource> sources = PortalSources::sourcesOf(
                    PortalSources::entriesOf(results.value(QStringLiteral("streams"))));
                if (sources.isEmpty()) {
                    fail(3, QStringLiteral("Start shared no screen"));
                    return;
                }
                openRemote(sources, results.value(QStringLiteral("restore_token")).toString());
            });
}

void PortalSession::openRemote(const QVector<PortalSource>& sources, const QString& token)
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(service, objectPath, screenCast, QStringLiteral("OpenPipeWireRemote"));
    call << QVariant::fromValue(QDBusObjectPath(sessionPath)) << QVariantMap();
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, sources, token](QDBusPendingCallWatcher* w) {
                w->deleteLater();
                const QDBusPendingReply<QDBusUnixFileDescriptor> reply = *w;
                const int fd = reply.isError() || !reply.value().isValid()
                                   ? -1
                                   : fcntl(reply.value().fileDescriptor(), F_DUPFD_CLOEXEC, 0);
                if (fd < 0) {
                    fail(3, reply.isError() ? reply.error().message() : QStringLiteral("no PipeWire remote"));
                    return;
                }
                emit started(sources, token, fd);
            });
}

void PortalSession::request(const QString& method, const QList<QVariant>& arguments, QVariantMap options,
                            const Next& next)
{
    unsubscribe();
    const QString token = freshToken();
    options.insert(QStringLiteral("handle_token"), token);
    QString sender = bus.baseService().mid(1);
    sender.replace(QLatin1Char('.'), QLatin1Char('_'));
    requestPath = objectPath + QStringLiteral("/request/") + sender + QLatin1Char('/') + token;
    pending = next;
    // Matched by the path (our unique name, a fresh token), not by the portal's name: a match on a
    // well-known name waits for its owner to be looked up again whenever the last such match
    // went, and a Response sent meanwhile was lost.
    bus.connect(QString(), requestPath, requestInterface, QStringLiteral("Response"), this,
                SLOT(onResponse(uint, QVariantMap)));

    QDBusMessage call = QDBusMessage::createMethodCall(service, objectPath, screenCast, method);
    QList<QVariant> all = arguments;
    all.append(options);
    call.setArguments(all);
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, method, expected = requestPath](QDBusPendingCallWatcher* w) {
                w->deleteLater();
                const QDBusPendingReply<QDBusObjectPath> reply = *w;
                if (reply.isError()) {
                    fail(3, method + QStringLiteral(": ") + reply.error().message());
                    return;
                }
                // The Response may have come first, and the next request be on its way: only a
                // request still awaited moves, when a portal older than handle_token answers on
                // a path of its own.
                const QString path = reply.value().path();
                if (!done && requestPath == expected && path != expected) {
                    const Next next = pending;
                    unsubscribe();
                    pending = next;
                    requestPath = path;
                    bus.connect(QString(), requestPath, requestInterface, QStringLiteral("Response"), this,
                                SLOT(onResponse(uint, QVariantMap)));
                }
            });
}

void PortalSession::unsubscribe()
{
    if (!requestPath.isEmpty()) {
        bus.disconnect(QString(), requestPath, requestInterface, QStringLiteral("Response"), this,
                       SLOT(onResponse(uint, QVariantMap)));
        requestPath.clear();
    }
    pending = nullptr;
}

void PortalSession::onResponse(uint response, const QVariantMap& results)
{
    if (done || !pending) {
        return;
    }
    const Next next = pending;
    unsubscribe();
    if (response != 0) {
        fail(response == 1 || response == 2 ? response : 3, response == 1   ? QStringLiteral("declined")
                                                            : response == 2 ? QStringLiteral("cancelled")
                                                                            : QStringLiteral("failed"));
        return;
    }
    next(results);
}

void PortalSession::onClosed(const QVariantMap&)
{
    if (done) {
        return;
    }
    sessionPath.clear(); // gone already: nothing to close
    close();
    emit closed();
}

void PortalSession::fail(uint response, const QString& why)
{
    if (done) {
        return;
    }
    qInfo().noquote() << kTag << "Screen sharing did not start:" << why;
    close();
    emit failed(response, why);
}

void PortalSession::close()
{
    done = true;
    unsubscribe();
    if (sessionPath.isEmpty()) {
        return;
    }
    bus.disconnect(QString(), sessionPath, sessionInterface, QStringLiteral("Closed"), this,
                   SLOT(onClosed(QVariantMap)));
    QDBusMessage call =
        QDBusMessage::createMethodCall(service, sessionPath, sessionInterface, QStringLiteral("Close"));
    bus.send(call);
    sessionPath.clear();
}
