#include "service/net/ServiceProxyFactory.h"

#include <QDebug>
#include <QHostAddress>
#include <QString>

namespace {

// Logs under the name of the policy it belongs to.
constexpr char kTag[] = "[ServiceHttp]:";

constexpr quint16 kDefaultProxyPort = 3128;

QByteArray environment(const char* lower, const char* upper)
{
    const QByteArray value = qgetenv(lower);
    return value.isEmpty() ? qgetenv(upper) : value;
}

bool isLoopback(const QString& host)
{
    const QHostAddress address(host);
    return host.compare(QLatin1String("localhost"), Qt::CaseInsensitive) == 0 ||
           (!address.isNull() && address.isLoopback());
}

bool excluded(const QString& host, const QByteArray& noProxy)
{
    for (const QByteArray& raw : noProxy.split(',')) {
        QString entry = QString::fromUtf8(raw).trimmed().toLower();
        if (entry == QLatin1String("*")) {
            return true;
        }
        if (entry.startsWith(QLatin1String("*."))) {
            entry.remove(0, 1);
        }
        if (entry.startsWith(QLatin1Char('.'))) {
            entry.remove(0, 1);
        }
        if (!entry.isEmpty() && (host == entry || host.endsWith(QLatin1Char('.') + entry))) {
            return true;
        }
    }
    return false;
}

} // namespace

ServiceProxyFactory::ServiceProxyFactory()
    : httpsProxy(environment("https_proxy", "HTTPS_PROXY"))
    , noProxy(environment("no_proxy", "NO_PROXY"))
{
    const QUrl probe(QStringLiteral("https://example.org/"));
    if (!httpsProxy.trimmed().isEmpty() && proxyFor(probe, httpsProxy, {}).type() == QNetworkProxy::NoProxy) {
        // Not its value: it may hold a password.
        qWarning().noquote() << kTag << "https_proxy names no http://host:port proxy and is not used";
    }
}

QList<QNetworkProxy> ServiceProxyFactory::queryProxy(const QNetworkProxyQuery& query)
{
    return {proxyFor(query.url(), httpsProxy, noProxy)};
}

QNetworkProxy ServiceProxyFactory::proxyFor(const QUrl& url, const QByteArray& httpsProxy,
                                            const QByteArray& noProxy)
{
    const QString host = url.host().toLower();
    if (url.scheme() != QLatin1String("https") || host.isEmpty() || isLoopback(host) ||
        excluded(host, noProxy) || httpsProxy.trimmed().isEmpty()) {
        return QNetworkProxy(QNetworkProxy::NoProxy);
    }
    QString proxyText = QString::fromUtf8(httpsProxy.trimmed());
    if (!proxyText.contains(QLatin1String("://"))) {
        proxyText.prepend(QLatin1String("http://"));
    }
    const QUrl proxy(proxyText, QUrl::StrictMode);
    if (!proxy.isValid() || proxy.host().isEmpty() || proxy.scheme() != QLatin1String("http")) {
        return QNetworkProxy(QNetworkProxy::NoProxy);
    }
    return QNetworkProxy(QNetworkProxy::HttpProxy, proxy.host(), quint16(proxy.port(kDefaultProxyPort)),
                         proxy.userName(), proxy.password());
}
