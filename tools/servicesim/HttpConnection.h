#pragma once

#include "RecordedRequest.h"
#include "ScriptedReply.h"

#include <QByteArray>
#include <QIODevice>
#include <QObject>
#include <QScopedPointer>
#include <QTimer>

class QSslSocket;
class ServiceScript;

// One client connection of the local service, on the service's thread: reads the requests in turn
// and sends each its answer, paced, cut or with a lying length as the script says. It deletes itself
// when the connection ends.
class HttpConnection : public QObject
{
    Q_OBJECT
public:
    // Takes the socket, set up for TLS or not, as its child.
    HttpConnection(QSslSocket* socket, int number, ServiceScript* script, QObject* parent);

signals:
    void served(const QString& summary); // one line per request: what was asked and answered

private:
    void onReadyRead();
    void processInput();
    void reject(int status); // answers a request that cannot be read, then closes
    void begin(const RecordedRequest& request, const ScriptedReply& answer);
    void onWritten();
    void onPacer();
    void sendHead();
    void pump();
    void finish();
    qint64 pendingBytes() const;

    QSslSocket* socket;
    ServiceScript* script;
    int number;
    QByteArray input;
    QTimer pacer; // the delay before the head, then the gaps between paced pieces
    bool replying = false;
    bool closing = false;
    bool headSent = false;
    bool closeAfter = false;
    ScriptedReply reply;
    QScopedPointer<QIODevice> body;
    qint64 contentLength = 0; // as announced
    qint64 bodyLimit = 0;     // as sent
    qint64 bodySent = 0;
};
