#pragma once

#include <QByteArray>
#include <QList>
#include <QNetworkProxy>
#include <QNetworkProxyFactory>
#include <QUrl>

// The proxy of the online services: the one `https_proxy` names, except for the hosts of
// `no_proxy` and never for the loopback addresses. Read from the environment when made.
class ServiceProxyFactory : public QNetworkProxyFactory
{
public:
    ServiceProxyFactory();

    QList<QNetworkProxy> queryProxy(const QNetworkProxyQuery& query) override;

    // The proxy for `url` under these two values, a pure function: NoProxy unless an https URL to
    // a host outside `noProxy` (comma-separated names, each matching itself and its subdomains, or
    // "*") meets a usable `httpsProxy` ("[http://][user:password@]host[:port]", port 3128 when
    // absent).
    static QNetworkProxy proxyFor(const QUrl& url, const QByteArray& httpsProxy, const QByteArray& noProxy);

private:
    QByteArray httpsProxy;
    QByteArray noProxy;
};
