#include "ScreenCastPortal.h"

#include <QDBusConnectionInterface>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusServiceWatcher>
#include <QDBusUnixFileDescriptor>
#include <QDBusVariant>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutexLocker>
#include <QRegularExpression>
#include <QTimer>
#include <QUuid>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const QString portalService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString portalPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString screenCast = QStringLiteral("org.freedesktop.portal.ScreenCast");
const QString requestInterface = QStringLiteral("org.freedesktop.portal.Request");
const QString sessionInterface = QStringLiteral("org.freedesktop.portal.Session");
const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
const QString invalidArgument = QStringLiteral("org.freedesktop.portal.Error.InvalidArgument");
const QString failed = QStringLiteral("org.freedesktop.portal.Error.Failed");
const QString notAllowed = QStringLiteral("org.freedesktop.portal.Error.NotAllowed");

const char* const screenCastXml = R"(  <interface name="org.freedesktop.portal.ScreenCast">
    <method name="CreateSession">
      <arg type="a{sv}" name="options" direction="in"/>
      <arg type="o" name="handle" direction="out"/>
    </method>
    <method name="SelectSources">
      <arg type="o" name="session_handle" direction="in"/>
      <arg type="a{sv}" name="options" direction="in"/>
      <arg type="o" name="handle" direction="out"/>
    </method>
    <method name="Start">
      <arg type="o" name="session_handle" direction="in"/>
      <arg type="s" name="parent_window" direction="in"/>
      <arg type="a{sv}" name="options" direction="in"/>
      <arg type="o" name="handle" direction="out"/>
    </method>
    <method name="OpenPipeWireRemote">
      <arg type="o" name="session_handle" direction="in"/>
      <arg type="a{sv}" name="options" direction="in"/>
      <arg type="h" name="fd" direction="out"/>
    </method>
    <property name="AvailableSourceTypes" type="u" access="read"/>
    <property name="AvailableCursorModes" type="u" access="read"/>
    <property name="version" type="u" access="read"/>
  </interface>
)";
const char* const requestXml = R"(  <interface name="org.freedesktop.portal.Request">
    <method name="Close"/>
    <signal name="Response">
      <arg type="u" name="response"/>
      <arg type="a{sv}" name="results"/>
    </signal>
  </interface>
)";
const char* const sessionXml = R"(  <interface name="org.freedesktop.portal.Session">
    <method name="Close"/>
    <signal name="Closed">
      <arg type="a{sv}" name="details"/>
    </signal>
    <property name="version" type="u" access="read"/>
  </interface>
)";
const char* const propertiesXml = R"(  <interface name="org.freedesktop.DBus.Properties">
    <method name="Get">
      <arg type="s" name="interface_name" direction="in"/>
      <arg type="s" name="property_name" direction="in"/>
      <arg type="v" name="value" direction="out"/>
    </method>
    <method name="GetAll">
      <arg type="s" name="interface_name" direction="in"/>
      <arg type="a{sv}" name="props" direction="out"/>
    </method>
    <method name="Set">
      <arg type="s" name="interface_name" direction="in"/>
      <arg type="s" name="property_name" direction="in"/>
      <arg type="v" name="value" direction="in"/>
    </method>
    <signal name="PropertiesChanged">
      <arg type="s" name="interface_name"/>
      <arg type="a{sv}" name="changed_properties"/>
      <arg type="as" name="invalidated_properties"/>
    </signal>
  </interface>
)";

// The type each known option must have, as D-Bus signatures.
const QHash<QString, int>& optionTypes()
{
    static const QHash<QString, int> types{
        {QStringLiteral("handle_token"), QMetaType::QString},
        {QStringLiteral("session_handle_token"), QMetaType::QString},
        {QStringLiteral("types"), QMetaType::UInt},
        {QStringLiteral("multiple"), QMetaType::Bool},
        {QStringLiteral("cursor_mode"), QMetaType::UInt},
        {QStringLiteral("restore_token"), QMetaType::QString},
        {QStringLiteral("persist_mode"), QMetaType::UInt},
    };
    return types;
}

QJsonObject monitorToJson(const SimulatedMonitor& m)
{
    return QJsonObject{{QStringLiteral("id"), m.id},
                       {QStringLiteral("x"), m.position.x()},
                       {QStringLiteral("y"), m.position.y()},
                       {QStringLiteral("sendPosition"), m.sendPosition},
                       {QStringLiteral("width"), m.size.width()},
                       {QStringLiteral("height"), m.size.height()},
                       {QStringLiteral("logicalWidth"), m.logicalSize.width()},
                       {QStringLiteral("logicalHeight"), m.logicalSize.height()},
                       {QStringLiteral("sendSize"), m.sendSize},
                       {QStringLiteral("order"), PixelOrders::name(m.order)}};
}

SimulatedMonitor monitorFromJson(const QJsonObject& o)
{
    SimulatedMonitor m;
    m.id = o.value(QStringLiteral("id")).toString();
    m.position = QPoint(o.value(QStringLiteral("x")).toInt(), o.value(QStringLiteral("y")).toInt());
    m.sendPosition = o.value(QStringLiteral("sendPosition")).toBool(true);
    m.size =
        QSize(o.value(QStringLiteral("width")).toInt(1920), o.value(QStringLiteral("height")).toInt(1080));
    m.logicalSize = QSize(o.value(QStringLiteral("logicalWidth")).toInt(-1),
                          o.value(QStringLiteral("logicalHeight")).toInt(-1));
    m.sendSize = o.value(QStringLiteral("sendSize")).toBool(true);
    bool ok = false;
    m.order = PixelOrders::fromName(o.value(QStringLiteral("order")).toString(), &ok);
    return m;
}

} // namespace

ScreenCastPortal::ScreenCastPortal(QObject* parent)
    : QDBusVirtualObject(parent)
{
    qDBusRegisterMetaType<PortalStream>();
    qDBusRegisterMetaType<QList<PortalStream>>();
}

ScreenCastPortal::~ScreenCastPortal()
{
    kill();
}

bool ScreenCastPortal::start(const QString& busAddress, const QString& pipewireSocket, const QString& tokens)
{
    socketPath = pipewireSocket;
    tokenFile = tokens;
    loadTokens();
    if (!video.start(socketPath)) {
        error = video.errorString();
        return false;
    }
    if (connectionName.isEmpty()) {
        static int connections = 0;
        connectionName = QStringLiteral("orvanta-portalsim-%1").arg(++connections);
        bus = QDBusConnection::connectToBus(busAddress, connectionName);
        if (!bus.isConnected()) {
            error = QStringLiteral("cannot connect to ") + busAddress;
            kill();
            return false;
        }
        if (!bus.registerVirtualObject(portalPath, this, QDBusConnection::SubPath)) {
            error = QStringLiteral("cannot register ") + portalPath;
            kill();
            return false;
        }
        delete watcher;
        watcher = new QDBusServiceWatcher(QString(), bus, QDBusServiceWatcher::WatchForUnregistration, this);
        connect(watcher, &QDBusServiceWatcher::serviceUnregistered, this, &ScreenCastPortal::onSenderGone);
    }
    if (!bus.registerService(portalService)) {
        error = QStringLiteral("cannot own ") + portalService;
        return false;
    }
    return true;
}

void ScreenCastPortal::leaveBus()
{
    for (const QString& path : sessions.keys()) {
        endSession(path, false);
    }
    if (bus.isConnected()) {
        bus.unregisterService(portalService);
    }
}

void ScreenCastPortal::kill()
{
    sessions.clear(); // their streams go with the connection
    newestStarted.clear();
    video.stop();
    delete watcher;
    watcher = nullptr;
    if (!connectionName.isEmpty()) {
        bus.unregisterObject(portalPath, QDBusConnection::UnregisterTree);
        bus = QDBusConnection(QString());
        QDBusConnection::disconnectFromBus(connectionName);
        connectionName.clear();
    }
    for (auto it = tokens.begin(); it != tokens.end();) {
        it = it.value().persistMode == 2 ? std::next(it) : tokens.erase(it);
    }
}

QString ScreenCastPortal::introspect(const QString& path) const
{
    if (path == portalPath) {
        return QLatin1String(screenCastXml) + QLatin1String(propertiesXml);
    }
    if (path.startsWith(portalPath + QStringLiteral("/request/"))) {
        return QLatin1String(requestXml);
    }
    if (path.startsWith(portalPath + QStringLiteral("/session/"))) {
        return QLatin1String(sessionXml) + QLatin1String(propertiesXml);
    }
    return QString();
}

void ScreenCastPortal::record(const PortalCall& call)
{
    QMutexLocker locker(&callsMutex);
    received.append(call);
}

QList<PortalCall> ScreenCastPortal::calls() const
{
    QMutexLocker locker(&callsMutex);
    return received;
}

QString ScreenCastPortal::senderElement(const QString& sender)
{
    QString element = sender.mid(sender.startsWith(QLatin1Char(':')) ? 1 : 0);
    return element.replace(QLatin1Char('.'), QLatin1Char('_'));
}

QString ScreenCastPortal::requestPath(const QString& sender, const QVariantMap& options)
{
    const QString token =
        options.value(QStringLiteral("handle_token"), QStringLiteral("t%1").arg(++serial)).toString();
    return portalPath + QStringLiteral("/request/") + senderElement(sender) + QLatin1Char('/') + token;
}

void ScreenCastPortal::reply(const QDBusMessage& message, const QList<QVariant>& arguments)
{
    QDBusMessage answer = message.createReply(arguments);
    bus.send(answer);
}

void ScreenCastPortal::fail(const QDBusMessage& message, const QString& name, const QString& text)
{
    bus.send(message.createErrorReply(name, text));
}

void ScreenCastPortal::respond(const QString& sender, const QString& request, uint code,
                               const QVariantMap& results)
{
    // After the method's reply, as a portal answers once the dialog closes.
    QTimer::singleShot(0, this, [this, sender, request, code, results] {
        QDBusMessage signal =
            QDBusMessage::createTargetedSignal(sender, request, requestInterface, QStringLiteral("Response"));
        signal << code << results;
        bus.send(signal);
    });
}

ScreenCastPortal::Session* ScreenCastPortal::ownedSession(const QDBusMessage& message, const QString& path)
{
    auto it = sessions.find(path);
    if (it == sessions.end() || it->sender != message.service()) {
        fail(message, invalidArgument, QStringLiteral("Invalid session"));
        return nullptr;
    }
    return &it.value();
}

void ScreenCastPortal::endSession(const QString& path, bool announce)
{
    auto it = sessions.find(path);
    if (it == sessions.end()) {
        return;
    }
    for (int handle : qAsConst(it->handles)) {
        video.remove(handle);
    }
    if (announce) {
        QDBusMessage signal =
            QDBusMessage::createTargetedSignal(it->sender, path, sessionInterface, QStringLiteral("Closed"));
        signal << QVariantMap();
        bus.send(signal);
    }
    sessions.erase(it);
    if (newestStarted == path) {
        newestStarted.clear();
    }
}

void ScreenCastPortal::onSenderGone(const QString& name)
{
    for (const QString& path : sessions.keys()) {
        if (sessions.value(path).sender == name) {
            endSession(path, false);
        }
    }
    for (auto it = tokens.begin(); it != tokens.end();) {
        it = it.value().persistMode == 1 && it.value().sender == name ? tokens.erase(it) : std::next(it);
    }
    watcher->removeWatchedService(name);
}

bool ScreenCastPortal::handleMessage(const QDBusMessage& message, const QDBusConnection&)
{
    const QString path = message.path();
    const QString interface = message.interface();
    const QString member = message.member();
    if (interface == propertiesInterface) {
        properties(message, path);
        return true;
    }
    if (path == portalPath && interface == screenCast) {
        // Every option of a known name must have its type, as the portal checks them.
        const QList<QVariant> args = message.arguments();
        for (const QVariant& arg : args) {
            if (arg.userType() != qMetaTypeId<QDBusArgument>() ||
                arg.value<QDBusArgument>().currentSignature() != QLatin1String("a{sv}")) {
                continue;
            }
            const QVariantMap options = qdbus_cast<QVariantMap>(arg);
            for (auto it = options.cbegin(); it != options.cend(); ++it) {
                const int type = optionTypes().value(it.key(), QMetaType::UnknownType);
                if (type != QMetaType::UnknownType && it.value().userType() != type) {
                    fail(message, invalidArgument,
                         QStringLiteral("Option %1 of the wrong type %2")
                             .arg(it.key(), it.value().typeName()));
                    return true;
                }
            }
        }
        if (member == QLatin1String("CreateSession") && message.signature() == QLatin1String("a{sv}")) {
            createSession(message);
        } else if (member == QLatin1String("SelectSources") &&
                   message.signature() == QLatin1String("oa{sv}")) {
            selectSources(message);
        } else if (member == QLatin1String("Start") && message.signature() == QLatin1String("osa{sv}")) {
            startSession(message);
        } else if (member == QLatin1String("OpenPipeWireRemote") &&
                   message.signature() == QLatin1String("oa{sv}")) {
            openPipeWireRemote(message);
        } else {
            fail(message, QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"),
                 QStringLiteral("No method %1(%2)").arg(member, message.signature()));
        }
        return true;
    }
    if (member == QLatin1String("Close") && path.startsWith(portalPath + QStringLiteral("/request/"))) {
        // A request closed by its caller sends no Response.
        record({QStringLiteral("Request.Close"), message.service(), path, QString(), {}, false, false});
        reply(message, {});
        return true;
    }
    if (member == QLatin1String("Close") && path.startsWith(portalPath + QStringLiteral("/session/"))) {
        record({QStringLiteral("Session.Close"), message.service(), path, QString(), {}, false, false});
        if (ownedSession(message, path)) {
            endSession(path, false);
            reply(message, {});
        }
        return true;
    }
    return false;
}

void ScreenCastPortal::properties(const QDBusMessage& message, const QString& path)
{
    const QList<QVariant> args = message.arguments();
    const QString interface = args.value(0).toString();
    QVariantMap all;
    if (path == portalPath && interface == screenCast) {
        all = {{QStringLiteral("AvailableSourceTypes"), sourceTypes},
               {QStringLiteral("AvailableCursorModes"), cursorModes},
               {QStringLiteral("version"), version}};
    } else if (sessions.contains(path) && interface == sessionInterface) {
        all = {{QStringLiteral("version"), 1u}};
    } else {
        fail(message, QStringLiteral("org.freedesktop.DBus.Error.UnknownInterface"),
             QStringLiteral("No interface ") + interface);
        return;
    }
    record({message.member(),
            message.service(),
            path,
            QString(),
            {{QStringLiteral("interface"), interface}, {QStringLiteral("name"), args.value(1)}},
            false,
            false});
    if (message.member() == QLatin1String("GetAll")) {
        reply(message, {all});
    } else if (message.member() == QLatin1String("Get") && all.contains(args.value(1).toString())) {
        reply(message, {QVariant::fromValue(QDBusVariant(all.value(args.value(1).toString())))});
    } else if (message.member() == QLatin1String("Set")) {
        fail(message, QStringLiteral("org.freedesktop.DBus.Error.PropertyReadOnly"),
             QStringLiteral("Read-only"));
    } else {
        fail(message, QStringLiteral("org.freedesktop.DBus.Error.UnknownProperty"),
             QStringLiteral("No property ") + args.value(1).toString());
    }
}

void ScreenCastPortal::createSession(const QDBusMessage& message)
{
    const QVariantMap options = qdbus_cast<QVariantMap>(message.arguments().value(0));
    const QString sender = message.service();
    record({QStringLiteral("CreateSession"), sender, portalPath, QString(), options, false, false});
    const QRegularExpression element(QStringLiteral("^[A-Za-z0-9_]+$"));
    const QString token =
        options.value(QStringLiteral("session_handle_token"), QStringLiteral("s%1").arg(++serial)).toString();
    if (!element.match(token).hasMatch() ||
        !element.match(options.value(QStringLiteral("handle_token"), QStringLiteral("t")).toString())
             .hasMatch()) {
        fail(message, invalidArgument, QStringLiteral("Invalid token"));
        return;
    }
    const QString path =
        portalPath + QStringLiteral("/session/") + senderElement(sender) + QLatin1Char('/') + token;
    if (sessions.contains(path)) {
        fail(message, invalidArgument, QStringLiteral("Session exists"));
        return;
    }
    Session session;
    session.path = path;
    session.sender = sender;
    sessions.insert(path, session);
    watcher->addWatchedService(sender);
    const QString request = requestPath(sender, options);
    reply(message, {QVariant::fromValue(QDBusObjectPath(request))});
    const QVariant handle =
        sessionHandleAsString ? QVariant(path) : QVariant::fromValue(QDBusObjectPath(path));
    respond(sender, request, 0, {{QStringLiteral("session_handle"), handle}});
}

void ScreenCastPortal::selectSources(const QDBusMessage& message)
{
    const QString path = message.arguments().value(0).value<QDBusObjectPath>().path();
    const QVariantMap options = qdbus_cast<QVariantMap>(message.arguments().value(1));
    const QString sender = message.service();
    record({QStringLiteral("SelectSources"), sender, path, QString(), options, false, false});
    Session* session = ownedSession(message, path);
    if (!session) {
        return;
    }
    if (session->stage != Session::Stage::Created) {
        fail(message, failed, QStringLiteral("Sources already selected"));
        return;
    }
    const uint types = options.value(QStringLiteral("types"), 1u).toUInt();
    const uint persist = options.value(QStringLiteral("persist_mode"), 0u).toUInt();
    if ((types & ~sourceTypes) || types == 0 || persist > 2 ||
        (version < 4 && (options.contains(QStringLiteral("persist_mode")) ||
                         options.contains(QStringLiteral("restore_token"))))) {
        fail(message, invalidArgument, QStringLiteral("Unsupported sources or persistence"));
        return;
    }
    if (options.contains(QStringLiteral("cursor_mode")) &&
        !(options.value(QStringLiteral("cursor_mode")).toUInt() & cursorModes)) {
        fail(message, invalidArgument, QStringLiteral("Unavailable cursor mode"));
        endSession(path, true); // a refused request ends its session too
        return;
    }
    session->stage = Session::Stage::Selected;
    session->multiple = options.value(QStringLiteral("multiple"), false).toBool();
    session->persistMode = persist;
    const QString restore = options.value(QStringLiteral("restore_token")).toString();
    const auto token = tokens.constFind(restore);
    if (!restore.isEmpty() && token != tokens.constEnd() &&
        (token->persistMode == 2 || token->sender == sender)) {
        session->restoreFrom = token->monitors;
        session->restoring = true;
    }
    if (!restore.isEmpty()) {
        tokens.remove(restore); // single use, valid or not
        saveTokens();
    }
    const QString request = requestPath(sender, options);
    reply(message, {QVariant::fromValue(QDBusObjectPath(request))});
    respond(sender, request, 0, {});
}

void ScreenCastPortal::startSession(const QDBusMessage& message)
{
    const QList<QVariant> args = message.arguments();
    const QString path = args.value(0).value<QDBusObjectPath>().path();
    const QVariantMap options = qdbus_cast<QVariantMap>(args.value(2));
    const QString sender = message.service();
    Session* session = sessions.contains(path) && sessions[path].sender == sender ? &sessions[path] : nullptr;
    PortalCall call{QStringLiteral("Start"),       sender,  path,
                    args.value(1).toString(),      options, session && session->restoring,
                    session && !session->restoring};
    record(call);
    if (!ownedSession(message, path)) {
        return;
    }
    if (session->stage != Session::Stage::Selected) {
        fail(message, failed, QStringLiteral("Cannot start"));
        return;
    }
    session->stage = Session::Stage::Starting;
    const QString request = requestPath(sender, options);
    reply(message, {QVariant::fromValue(QDBusObjectPath(request))});
    const PortalChoice answer =
        session->restoring ? PortalChoice{PortalChoice::Share, session->restoreFrom} : choice;
    if (answer.answer != PortalChoice::Share || answer.monitors.isEmpty()) {
        // The session is gone with the dialog, and says nothing.
        respond(sender, request, answer.answer != PortalChoice::Share ? uint(answer.answer) : 2u, {});
        endSession(path, false);
        return;
    }
    const QVector<SimulatedMonitor> chosen = session->multiple ? answer.monitors : answer.monitors.mid(0, 1);
    QList<PortalStream> streams;
    for (int i = 0; i < chosen.size(); ++i) {
        const SimulatedMonitor& m = chosen[i];
        ScreenContent content;
        content.colour = QColor(128, 128, 128);
        const int handle = video.add(QStringLiteral("portalsim-screen-%1").arg(i + 1), m.size, m.order,
                                     contents.value(i, content));
        if (handle == 0) {
            respond(sender, request, 2, {});
            endSession(path, false);
            return;
        }
        session->handles << handle;
        PortalStream stream;
        stream.node = video.nodeId(handle);
        if (version >= 4 && !m.id.isEmpty()) {
            stream.properties.insert(QStringLiteral("id"), m.id);
        }
        if (m.sendPosition) {
            stream.properties.insert(QStringLiteral("position"), m.position);
        }
        if (m.sendSize) {
            stream.properties.insert(QStringLiteral("size"),
                                     m.logicalSize.isValid() ? m.logicalSize : m.size);
        }
        if (version >= 3) {
            stream.properties.insert(QStringLiteral("source_type"), 1u);
        }
        streams << stream;
    }
    session->stage = Session::Stage::Started;
    newestStarted = path;
    QVariantMap results{{QStringLiteral("streams"), QVariant::fromValue(streams)}};
    if (version >= 4 && session->persistMode > 0) {
        const QString token = QUuid::createUuid().toString(QUuid::WithoutBraces);
        tokens.insert(token, Token{chosen, session->persistMode, sender});
        saveTokens();
        results.insert(QStringLiteral("restore_token"), token);
        results.insert(QStringLiteral("persist_mode"), session->persistMode);
    }
    respond(sender, request, 0, results);
}

void ScreenCastPortal::openPipeWireRemote(const QDBusMessage& message)
{
    const QString path = message.arguments().value(0).value<QDBusObjectPath>().path();
    record({QStringLiteral("OpenPipeWireRemote"), message.service(), path, QString(),
            qdbus_cast<QVariantMap>(message.arguments().value(1)), false, false});
    Session* session = ownedSession(message, path);
    if (!session) {
        return;
    }
    if (session->stage != Session::Stage::Started) {
        fail(message, notAllowed, QStringLiteral("Session not started"));
        return;
    }
    const QByteArray name = QFile::encodeName(socketPath);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, name.constData(), size_t(qMin<int>(name.size(), sizeof(address.sun_path) - 1)));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        if (fd >= 0) {
            ::close(fd);
        }
        fail(message, failed, QStringLiteral("No PipeWire"));
        return;
    }
    const QDBusUnixFileDescriptor handed(fd); // a copy travels; ours closes here
    ::close(fd);
    reply(message, {QVariant::fromValue(handed)});
}

void ScreenCastPortal::closeSessions()
{
    for (const QString& path : sessions.keys()) {
        endSession(path, true);
    }
}

void ScreenCastPortal::endStream(int index)
{
    auto it = sessions.find(newestStarted);
    if (it != sessions.end() && index >= 0 && index < it->handles.size() && it->handles[index] > 0) {
        video.remove(it->handles[index]);
        it->handles[index] = 0;
    }
}

void ScreenCastPortal::resizeStream(int index, QSize size)
{
    const Session session = sessions.value(newestStarted);
    if (index >= 0 && index < session.handles.size()) {
        video.resize(session.handles[index], size);
    }
}

void ScreenCastPortal::setContent(int index, const ScreenContent& content)
{
    if (index < 0) {
        return;
    }
    while (contents.size() <= index) {
        ScreenContent grey;
        grey.colour = QColor(128, 128, 128);
        contents.append(grey);
    }
    contents[index] = content;
    const Session session = sessions.value(newestStarted);
    if (index < session.handles.size()) {
        video.setContent(session.handles[index], content);
    }
}

void ScreenCastPortal::sendBroken(int index, ScreenStreams::Broken kind)
{
    const Session session = sessions.value(newestStarted);
    if (index >= 0 && index < session.handles.size()) {
        video.sendBroken(session.handles[index], kind);
    }
}

QVector<ScreenCastPortal::StreamInfo> ScreenCastPortal::streams()
{
    QVector<StreamInfo> out;
    for (int handle : sessions.value(newestStarted).handles) {
        if (handle == 0) {
            out.append(StreamInfo{0, QStringLiteral("ended"), 0, QSize(), 0}); // keeps the indices
        } else {
            out.append(StreamInfo{video.nodeId(handle), video.state(handle), video.framesSent(handle),
                                  video.negotiatedSize(handle), video.contentQueuedNs(handle)});
        }
    }
    return out;
}

QStringList ScreenCastPortal::validTokens() const
{
    return tokens.keys();
}

void ScreenCastPortal::loadTokens()
{
    QFile file(tokenFile);
    if (tokenFile.isEmpty() || !file.open(QIODevice::ReadOnly)) {
        return;
    }
    const QJsonObject all = QJsonDocument::fromJson(file.readAll()).object();
    for (auto it = all.begin(); it != all.end(); ++it) {
        Token token;
        token.persistMode = 2;
        for (const QJsonValue& m : it.value().toArray()) {
            token.monitors << monitorFromJson(m.toObject());
        }
        tokens.insert(it.key(), token);
    }
}

void ScreenCastPortal::saveTokens() const
{
    if (tokenFile.isEmpty()) {
        return;
    }
    // Only tokens that outlive the portal, as its permission store keeps them.
    QJsonObject all;
    for (auto it = tokens.cbegin(); it != tokens.cend(); ++it) {
        if (it->persistMode == 2) {
            QJsonArray monitors;
            for (const SimulatedMonitor& m : it->monitors) {
                monitors.append(monitorToJson(m));
            }
            all.insert(it.key(), monitors);
        }
    }
    QFile file(tokenFile);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        file.write(QJsonDocument(all).toJson());
    }
}
