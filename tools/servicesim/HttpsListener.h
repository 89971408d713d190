#pragma once

#include <QSslCertificate>
#include <QSslKey>
#include <QTcpServer>

class ServiceScript;

// The listening socket of the local service, on the service's thread: each connection it accepts
// gets TLS with the current certificate (plain HTTP when there is none) and an HttpConnection.
class HttpsListener : public QTcpServer
{
    Q_OBJECT
public:
    explicit HttpsListener(ServiceScript* script, QObject* parent = nullptr);

    // For the connections accepted from now on; a null certificate serves plain HTTP.
    void setCredentials(const QSslCertificate& certificate, const QSslKey& key);

signals:
    void served(const QString& summary);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    ServiceScript* script;
    QSslCertificate certificate;
    QSslKey key;
};
