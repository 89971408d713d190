#include "HttpsListener.h"

#include "HttpConnection.h"
#include "ServiceScript.h"

#include <QSslSocket>

HttpsListener::HttpsListener(ServiceScript* script, QObject* parent)
    : QTcpServer(parent)
    , script(script)
{
}

void HttpsListener::setCredentials(const QSslCertificate& newCertificate, const QSslKey& newKey)
{
    certificate = newCertificate;
    key = newKey;
}

void HttpsListener::incomingConnection(qintptr descriptor)
{
    auto* socket = new QSslSocket();
    if (!socket->setSocketDescriptor(descriptor)) {
        delete socket;
        return;
    }
    auto* connection = new HttpConnection(socket, script->connectionAccepted(), script, this);
    connect(connection, &HttpConnection::served, this, &HttpsListener::served);
    if (!certificate.isNull()) {
        socket->setLocalCertificate(certificate);
        socket->setPrivateKey(key);
        socket->setProtocol(QSsl::TlsV1_2OrLater);
        socket->setPeerVerifyMode(QSslSocket::VerifyNone); // no client certificates
        socket->startServerEncryption();
    }
}
