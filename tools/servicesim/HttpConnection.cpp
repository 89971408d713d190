#include "HttpConnection.h"

#include "HttpRequestParser.h"
#include "ServiceScript.h"

#include <QBuffer>
#include <QFile>
#include <QHash>
#include <QSslSocket>

namespace {

// Unpaced bodies go out in pieces of this size while less than the high-water mark waits in the
// socket, so that a large file never sits whole in memory.
constexpr qint64 kPieceBytes = 256 * 1024;
constexpr qint64 kHighWater = 1024 * 1024;

QByteArray reason(int status)
{
    static const QHash<int, QByteArray> reasons = {
        {200, "OK"},
        {201, "Created"},
        {204, "No Content"},
        {301, "Moved Permanently"},
        {302, "Found"},
        {303, "See Other"},
        {307, "Temporary Redirect"},
        {308, "Permanent Redirect"},
        {400, "Bad Request"},
        {403, "Forbidden"},
        {404, "Not Found"},
        {405, "Method Not Allowed"},
        {413, "Payload Too Large"},
        {500, "Internal Server Error"},
        {503, "Service Unavailable"},
    };
    return reasons.value(status, "Status");
}

} // namespace

HttpConnection::HttpConnection(QSslSocket* socket, int number, ServiceScript* script, QObject* parent)
    : QObject(parent)
    , socket(socket)
    , script(script)
    , number(number)
    , pacer(this)
{
    socket->setParent(this);
    pacer.setSingleShot(true);
    connect(&pacer, &QTimer::timeout, this, &HttpConnection::onPacer);
    connect(socket, &QSslSocket::readyRead, this, &HttpConnection::onReadyRead);
    // TLS reports the plain bytes taken and the encrypted bytes sent apart: either may free room.
    connect(socket, &QSslSocket::bytesWritten, this, &HttpConnection::onWritten);
    connect(socket, &QSslSocket::encryptedBytesWritten, this, &HttpConnection::onWritten);
    connect(socket, &QSslSocket::disconnected, this, &QObject::deleteLater);
    connect(socket, &QSslSocket::errorOccurred, this, [this] {
        if (this->socket->state() == QAbstractSocket::UnconnectedState) {
            deleteLater(); // a failed handshake may end without a disconnected signal
        }
    });
}

void HttpConnection::onReadyRead()
{
    const QByteArray bytes = socket->readAll();
    if (closing) {
        return; // what comes after a refused request is dropped
    }
    input.append(bytes);
    if (!replying) {
        processInput();
    }
}

void HttpConnection::processInput()
{
    while (!replying && !closing) {
        RecordedRequest request;
        switch (HttpRequestParser::take(input, &request)) {
        case HttpRequestParser::Result::Incomplete:
            return;
        case HttpRequestParser::Result::Malformed:
            reject(400);
            return;
        case HttpRequestParser::Result::TooLarge:
            reject(413);
            return;
        case HttpRequestParser::Result::Complete:
            request.connection = number;
            begin(request, script->answer(request));
            break;
        }
    }
}

void HttpConnection::reject(int status)
{
    const QByteArray text = reason(status) + '\n';
    socket->write("HTTP/1.1 " + QByteArray::number(status) + ' ' + reason(status) +
                  "\r\nContent-Type: text/plain\r\nConnection: close\r\nContent-Length: " +
                  QByteArray::number(text.size()) + "\r\n\r\n" + text);
    emit served(QStringLiteral("#%1 unreadable request -> %2").arg(number).arg(status));
    closing = true;
    input.clear();
    socket->disconnectFromHost();
}

void HttpConnection::begin(const RecordedRequest& request, const ScriptedReply& answer)
{
    replying = true;
    headSent = false;
    reply = answer;
    if (reply.file.isEmpty()) {
        auto* buffer = new QBuffer();
        buffer->setData(reply.body);
        body.reset(buffer);
    } else {
        body.reset(new QFile(reply.file));
    }
    if (!body->open(QIODevice::ReadOnly)) {
        const QString file = reply.file;
        reply = ScriptedReply();
        reply.status = 500;
        auto* buffer = new QBuffer();
        buffer->setData("cannot read " + file.toUtf8() + '\n');
        body.reset(buffer);
        body->open(QIODevice::ReadOnly);
    }
    const qint64 size = body->size();
    contentLength = reply.contentLength == ScriptedReply::kBodyLength ? size : reply.contentLength;
    bodyLimit = request.method == "HEAD" ? 0 : size;
    bodySent = 0;
    // The client cannot find the next reply after a body that ends otherwise than announced.
    closeAfter = request.header("Connection").toLower().contains("close") || request.version == "HTTP/1.0" ||
                 contentLength != size;
    if (reply.cutAfterBytes >= 0) {
        bodyLimit = qMin(bodyLimit, reply.cutAfterBytes);
        closeAfter = true;
    }
    // One arg() for all four: a target may hold "%1".
    emit served(QStringLiteral("#%1 %2 %3 -> %4")
                    .arg(QString::number(number), QString::fromLatin1(request.method),
                         QString::fromUtf8(request.target), QString::number(reply.status)));
    if (reply.delayMs > 0) {
        pacer.start(reply.delayMs);
    } else {
        sendHead();
    }
}

void HttpConnection::onWritten()
{
    if (reply.chunkBytes <= 0) { // paced pieces wait for the pacer instead
        pump();
    }
}

void HttpConnection::onPacer()
{
    if (!headSent) {
        sendHead();
    } else {
        pump();
    }
}

void HttpConnection::sendHead()
{
    QByteArray head = "HTTP/1.1 " + QByteArray::number(reply.status) + ' ' + reason(reply.status) + "\r\n";
    for (const auto& h : qAsConst(reply.headers)) {
        head += h.first + ": " + h.second + "\r\n";
    }
    if (contentLength != ScriptedReply::kNoLength) {
        head += "Content-Length: " + QByteArray::number(contentLength) + "\r\n";
    }
    if (closeAfter) {
        head += "Connection: close\r\n";
    }
    head += "\r\n";
    socket->write(head);
    headSent = true;
    pump();
}

void HttpConnection::pump()
{
    if (!replying || !headSent) {
        return;
    }
    const bool paced = reply.chunkBytes > 0;
    while (bodySent < bodyLimit) {
        if (paced ? pacer.isActive() : pendingBytes() > kHighWater) {
            return;
        }
        const qint64 want = qMin<qint64>(paced ? reply.chunkBytes : kPieceBytes, bodyLimit - bodySent);
        const QByteArray piece = body->read(want);
        if (piece.isEmpty()) {
            closeAfter = true; // the file shrank under us: end the body where it ends
            break;
        }
        socket->write(piece);
        bodySent += piece.size();
        if (paced && bodySent < bodyLimit) {
            pacer.start(qMax(0, reply.chunkIntervalMs));
            return;
        }
    }
    finish();
}

void HttpConnection::finish()
{
    replying = false;
    body.reset();
    if (closeAfter) {
        closing = true;
        socket->disconnectFromHost(); // after what is written has gone out
        return;
    }
    // Requests sent ahead of this answer wait in the input; taken from the event loop, so that a
    // long row of them does not nest.
    QMetaObject::invokeMethod(this, &HttpConnection::processInput, Qt::QueuedConnection);
}

qint64 HttpConnection::pendingBytes() const
{
    return socket->bytesToWrite() + socket->encryptedBytesToWrite();
}
