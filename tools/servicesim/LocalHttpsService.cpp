#include "LocalHttpsService.h"

#include "HttpsListener.h"

#include <QHostAddress>

LocalHttpsService::LocalHttpsService(QObject* parent)
    : QObject(parent)
{
    thread.setObjectName(QStringLiteral("servicesim"));
}

LocalHttpsService::~LocalHttpsService()
{
    stop();
}

bool LocalHttpsService::start(const QString& root, quint16 port)
{
    stop();
    error.clear();
    if (!certificatesMade) {
        if (!certificates.create()) {
            error = certificates.errorString();
            return false;
        }
        certificatesMade = true;
    }
    script.setRoot(root);
    listener = new HttpsListener(&script);
    listener->moveToThread(&thread);
    connect(&thread, &QThread::finished, listener, &QObject::deleteLater);
    connect(listener, &HttpsListener::served, this, &LocalHttpsService::requestServed);
    thread.start();
    applySecurity();
    bool listening = false;
    QMetaObject::invokeMethod(
        listener,
        [this, port] {
            if (listener->listen(QHostAddress::LocalHost, port)) {
                boundPort = listener->serverPort();
                return true;
            }
            error =
                QStringLiteral("cannot listen on 127.0.0.1:%1: %2").arg(port).arg(listener->errorString());
            return false;
        },
        Qt::BlockingQueuedConnection, &listening);
    if (!listening) {
        const QString why = error;
        stop();
        error = why;
    }
    return listening;
}

void LocalHttpsService::stop()
{
    if (!listener) {
        return;
    }
    thread.quit();
    thread.wait(); // the listener and its connections are gone once it returns
    listener = nullptr;
    boundPort = 0;
}

QUrl LocalHttpsService::baseUrl() const
{
    const QString scheme =
        currentSecurity == Security::Plain ? QStringLiteral("http") : QStringLiteral("https");
    return QUrl(QStringLiteral("%1://127.0.0.1:%2").arg(scheme).arg(boundPort));
}

void LocalHttpsService::setSecurity(Security security)
{
    currentSecurity = security;
    applySecurity();
}

void LocalHttpsService::applySecurity()
{
    if (!listener) {
        return;
    }
    QSslCertificate certificate;
    QSslKey key;
    if (currentSecurity != Security::Plain) {
        const auto issuer = currentSecurity == Security::Trusted ? TestCertificates::Issuer::Trusted
                                                                 : TestCertificates::Issuer::Untrusted;
        certificate = certificates.serverCertificate(issuer);
        key = certificates.serverKey(issuer);
    }
    // Blocking, so that a connection made after this call returns is served with it.
    QMetaObject::invokeMethod(
        listener, [this, certificate, key] { listener->setCredentials(certificate, key); },
        Qt::BlockingQueuedConnection);
}
