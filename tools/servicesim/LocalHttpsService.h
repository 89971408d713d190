#pragma once

#include "RecordedRequest.h"
#include "ScriptedReply.h"
#include "ServiceScript.h"
#include "TestCertificates.h"

#include <QObject>
#include <QString>
#include <QThread>
#include <QUrl>
#include <QVector>

class HttpsListener;

// A local HTTPS service on 127.0.0.1 for the network tests, serving on a thread of its own so that
// it answers while the caller's thread is busy or blocked. It serves a folder and scripted routes
// (status, headers, body, pacing, a cut in mid-body, redirects, a lying length) and records every
// connection and request. Every call may come from any thread but the service's own.
class LocalHttpsService : public QObject
{
    Q_OBJECT
public:
    enum class Security
    {
        Trusted,   // a certificate signed by caFile()
        Untrusted, // a certificate signed by a CA no client is given
        Plain,     // no TLS: http://
    };

    explicit LocalHttpsService(QObject* parent = nullptr);
    ~LocalHttpsService() override;

    // Makes the certificates (once) and listens on 127.0.0.1 at `port`, 0 for any free one.
    // An empty root serves the routes alone. False with errorString() on failure.
    bool start(const QString& root = QString(), quint16 port = 0);
    void stop(); // closes every connection
    bool isRunning() const { return listener != nullptr; }
    QString errorString() const { return error; }

    QUrl baseUrl() const; // "https://127.0.0.1:<port>", "http://" when Plain
    quint16 port() const { return boundPort; }
    QString caFile() const { return certificates.caFile(); }
    QString untrustedCaFile() const { return certificates.untrustedCaFile(); }

    // For the connections accepted from now on.
    void setSecurity(Security security);
    Security security() const { return currentSecurity; }

    void setRoot(const QString& folder) { script.setRoot(folder); }
    void setRoute(const QString& path, const ScriptedReply& reply) { script.setRoute(path, reply); }
    void removeRoute(const QString& path) { script.removeRoute(path); }
    void clearRoutes() { script.clearRoutes(); }

    QVector<RecordedRequest> requests() const { return script.requests(); }
    int requestCount() const { return script.requestCount(); }
    int connectionCount() const { return script.connectionCount(); } // TCP connections accepted
    void clearRecords() { script.clearRecords(); }

signals:
    // One line per request, "#<connection> <method> <target> -> <status>", delivered to this
    // object's thread.
    void requestServed(const QString& summary);

private:
    void applySecurity();

    TestCertificates certificates;
    bool certificatesMade = false;
    ServiceScript script;
    QThread thread;
    HttpsListener* listener = nullptr; // lives on `thread`, deleted when it finishes
    quint16 boundPort = 0;
    Security currentSecurity = Security::Trusted;
    QString error;
};
