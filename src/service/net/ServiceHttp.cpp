#include "service/net/ServiceHttp.h"

#include "service/config/ConfigurationManager.h"
#include "service/net/BoundedReader.h"
#include "service/net/ServiceProxyFactory.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QHttpMultiPart>
#include <QSslCertificate>
#include <QtConcurrent>

#include <utility>

namespace {

constexpr char kTag[] = "[ServiceHttp]:";
// A CA file larger than this is no CA file.
constexpr qint64 kMaxCaFileBytes = 1024 * 1024;

ServiceHttp::Timeouts currentTimeouts;

// The certificates of ORVANTA_SERVICE_CA, read once per path; a problem is logged once.
QList<QSslCertificate> extraAuthorities(const QString& path)
{
    static QString readPath;
    static QList<QSslCertificate> read;
    if (path == readPath) {
        return read;
    }
    readPath = path;
    read.clear();
    const QFileInfo info(path);
    QFile file(path);
    if (!info.isFile() || info.size() > kMaxCaFileBytes || !file.open(QIODevice::ReadOnly)) {
        qWarning().noquote() << kTag << "ORVANTA_SERVICE_CA" << path
                             << "is not a readable PEM file of at most 1 MiB; only the system's CAs are used";
        return read;
    }
    read = QSslCertificate::fromData(file.readAll(), QSsl::Pem);
    if (read.isEmpty()) {
        qWarning().noquote() << kTag << "ORVANTA_SERVICE_CA" << path
                             << "holds no PEM certificate; only the system's CAs are used";
    }
    return read;
}

// Started by the first user that names an extra CA, and read by all.
QFuture<QList<QSslCertificate>> systemAuthorities()
{
    static const QFuture<QList<QSslCertificate>> future =
        QtConcurrent::run([] { return QSslConfiguration::systemCaCertificates(); });
    return future;
}

} // namespace

void ServiceHttp::setTimeouts(const Timeouts& timeouts)
{
    currentTimeouts = timeouts;
}

ServiceHttp::Timeouts ServiceHttp::timeouts()
{
    return currentTimeouts;
}

ServiceHttp::Base ServiceHttp::chooseBase(const QString& environment, const QJsonValue& stored,
                                          const QString& builtIn)
{
    Base base;
    QString value = environment.trimmed();
    base.source = QStringLiteral("ORVANTA_SERVICE_URL");
    if (value.isEmpty()) {
        if (!stored.isString() && !stored.isUndefined() && !stored.isNull()) {
            base.source = QStringLiteral("the global value \"serviceUrl\"");
            base.problem = base.source + QStringLiteral(" is not a string");
            base.refused = true;
            return base;
        }
        value = stored.toString().trimmed();
        base.source = QStringLiteral("the global value \"serviceUrl\"");
    }
    if (value.isEmpty()) {
        value = builtIn.trimmed();
        base.source = QStringLiteral("the build's default");
    }
    if (value.isEmpty()) {
        base.source.clear();
        base.problem = QStringLiteral("no service URL is configured");
        return base;
    }
    if (value.compare(QLatin1String("off"), Qt::CaseInsensitive) == 0) {
        base.problem = base.source + QStringLiteral(" is \"off\"");
        return base;
    }
    QUrl url(value, QUrl::StrictMode);
    QString why;
    if (!urlAllowed(url, &why)) {
        base.problem = QStringLiteral("the service URL of %1 is refused: %2").arg(base.source, why);
        base.refused = true;
        return base;
    }
    url = url.adjusted(QUrl::RemoveQuery | QUrl::RemoveFragment | QUrl::StripTrailingSlash);
    if (url.path() == QLatin1String("/")) {
        url.setPath(QString());
    }
    base.url = url;
    return base;
}

ServiceHttp::ServiceHttp(QObject* parent)
    : QObject(parent)
    , base_(chooseBase(qEnvironmentVariable("ORVANTA_SERVICE_URL"),
                       ConfigurationManager::instance()->globalValue(QStringLiteral("serviceUrl")),
                       QStringLiteral(ORVANTA_SERVICE_URL_DEFAULT)))
{
    network.setProxyFactory(new ServiceProxyFactory);
    connect(&authorities, &QFutureWatcherBase::finished, this, &ServiceHttp::sendWaiting);
    if (online() && !authoritiesReady()) {
        authorities.setFuture(systemAuthorities());
    }
}

ServiceHttp::~ServiceHttp()
{
    // The readers abort their replies while the network manager that owns those still exists.
    const QList<BoundedReader*> readers = findChildren<BoundedReader*>(QString(), Qt::FindDirectChildrenOnly);
    qDeleteAll(readers);
}

QUrl ServiceHttp::endpoint(const QString& path) const
{
    if (!online()) {
        return QUrl();
    }
    QUrl url = base_.url;
    url.setPath(url.path() + path);
    return url;
}

BoundedReader* ServiceHttp::get(const QUrl& url, Kind kind, qint64 cap)
{
    QString why;
    if (!online() || !urlAllowed(url, &why)) {
        qWarning().noquote() << kTag
                             << "Not fetched: " + forLog(url) + ": " +
                                    (online() ? why : QStringLiteral("online services are off"));
        return nullptr;
    }
    return begin(url, kind, cap, [this](const QUrl& to, bool) { return network.get(request(to)); });
}

BoundedReader* ServiceHttp::post(const QUrl& url, const QByteArray& body, const QByteArray& contentType,
                                 Kind kind)
{
    QString why;
    if (!online() || !urlAllowed(url, &why)) {
        qWarning().noquote() << kTag
                             << "Not sent: " + forLog(url) + ": " +
                                    (online() ? why : QStringLiteral("online services are off"));
        return nullptr;
    }
    return begin(url, kind, 0, [this, body, contentType](const QUrl& to, bool asGet) {
        if (asGet) {
            return network.get(request(to));
        }
        QNetworkRequest r = request(to);
        r.setHeader(QNetworkRequest::ContentTypeHeader, contentType);
        return network.post(r, body);
    });
}

BoundedReader* ServiceHttp::post(const QUrl& url, QHttpMultiPart* body, const QByteArray& userAgent)
{
    QString why;
    if (!online() || !urlAllowed(url, &why)) {
        qWarning().noquote() << kTag
                             << "Not sent: " + forLog(url) + ": " +
                                    (online() ? why : QStringLiteral("online services are off"));
        delete body;
        return nullptr;
    }
    BoundedReader* reader = begin(url, Kind::Upload, 0, [this, body, userAgent](const QUrl& to, bool asGet) {
        QNetworkRequest r = request(to);
        r.setRawHeader("User-Agent", userAgent);
        return asGet ? network.get(r) : network.post(r, body);
    });
    body->setParent(reader);
    return reader;
}

BoundedReader* ServiceHttp::begin(const QUrl& url, Kind kind, qint64 cap,
                                  std::function<QNetworkReply*(const QUrl& url, bool asGet)> send)
{
    BoundedReader* reader = nullptr;
    switch (kind) {
    case Kind::Json:
        reader = new BoundedReader(url, cap > 0 ? cap : kJsonCap, currentTimeouts.jsonMs,
                                   BoundedReader::Deadline::Total, this);
        break;
    case Kind::Picture:
        reader = new BoundedReader(url, cap > 0 ? cap : kPictureCap, currentTimeouts.pictureMs,
                                   BoundedReader::Deadline::Total, this);
        break;
    case Kind::Package:
        reader = new BoundedReader(url, cap > 0 ? cap : kPackageCap, currentTimeouts.packageIdleMs,
                                   BoundedReader::Deadline::Idle, this);
        break;
    case Kind::Upload:
        reader = new BoundedReader(url, cap > 0 ? cap : kJsonCap, currentTimeouts.uploadIdleMs,
                                   BoundedReader::Deadline::Idle, this);
        break;
    }
    if (authoritiesReady()) {
        reader->attach(send(url, false), send);
    } else {
        waiting.append(Waiting{reader, url, std::move(send)});
        if (authorities.future() != systemAuthorities()) {
            authorities.setFuture(systemAuthorities());
        }
    }
    return reader;
}

void ServiceHttp::sendWaiting()
{
    const QList<Waiting> ready = std::exchange(waiting, {});
    for (const Waiting& w : ready) {
        // One that timed out while it waited has reported already.
        if (w.reader && !w.reader->isDone()) {
            w.reader->attach(w.send(w.url, false), w.send);
        }
    }
}

bool ServiceHttp::authoritiesReady()
{
    return qEnvironmentVariableIsEmpty("ORVANTA_SERVICE_CA") || systemAuthorities().isFinished();
}

QNetworkRequest ServiceHttp::request(const QUrl& url) const
{
    QNetworkRequest r(url);
    r.setHeader(QNetworkRequest::UserAgentHeader, userAgent());
    // Bytes as the server holds them: the caps and the package's hash count what was sent.
    r.setRawHeader("Accept-Encoding", "identity");
    // Redirects are BoundedReader's to follow, by the URL rule.
    r.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    // No cookie goes out or is kept: nothing tells one run or user from another.
    r.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
    r.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
    r.setSslConfiguration(sslConfiguration());
    return r;
}

QSslConfiguration ServiceHttp::sslConfiguration()
{
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setProtocol(QSsl::TlsV1_2OrLater);
    configuration.setPeerVerifyMode(QSslSocket::VerifyPeer);
    const QString caFile = qEnvironmentVariable("ORVANTA_SERVICE_CA");
    if (!caFile.isEmpty()) {
        const QList<QSslCertificate> extra = extraAuthorities(caFile);
        if (!extra.isEmpty()) {
            // Naming any CA ends the system's loading on demand: they are named as well.
            configuration.setCaCertificates(systemAuthorities().result() + extra);
        }
    }
    return configuration;
}

bool ServiceHttp::urlAllowed(const QUrl& url, QString* why)
{
    QString problem;
    const QString scheme = url.scheme().toLower();
    const QString host = url.host();
    if (!url.isValid()) {
        problem = QStringLiteral("not a valid URL");
    } else if (scheme.isEmpty()) {
        problem = QStringLiteral("no scheme");
    } else if (scheme == QLatin1String("https")) {
        if (host.isEmpty()) {
            problem = QStringLiteral("no host");
        }
    } else if (scheme == QLatin1String("http")) {
        // Literal addresses only: a name could be made to point anywhere.
        if (host != QLatin1String("127.0.0.1") && host != QLatin1String("::1")) {
            problem = QStringLiteral("http is allowed only to 127.0.0.1 and [::1], not to %1")
                          .arg(host.isEmpty() ? QStringLiteral("no host") : host);
        }
    } else {
        problem = QStringLiteral("the scheme %1 is not allowed").arg(scheme);
    }
    if (why) {
        *why = problem;
    }
    return problem.isEmpty();
}

bool ServiceHttp::redirectAllowed(const QUrl& from, const QUrl& to, QString* why)
{
    if (!urlAllowed(to, why)) {
        return false;
    }
    if (from.scheme().toLower() == QLatin1String("https") &&
        to.scheme().toLower() != QLatin1String("https")) {
        if (why) {
            *why = QStringLiteral("from https to %1").arg(to.scheme());
        }
        return false;
    }
    return true;
}

QByteArray ServiceHttp::userAgent()
{
    return QStringLiteral("Orvanta/%1 (Linux; %2)")
        .arg(QCoreApplication::applicationVersion(), architecture())
        .toUtf8();
}

QString ServiceHttp::architecture()
{
    return QStringLiteral(ORVANTA_DEB_ARCH);
}

QString ServiceHttp::forLog(const QUrl& url)
{
    return url.adjusted(QUrl::RemoveQuery | QUrl::RemoveFragment | QUrl::RemoveUserInfo).toString();
}
