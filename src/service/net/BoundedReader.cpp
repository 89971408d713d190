#include "service/net/BoundedReader.h"

#include "service/net/ServiceHttp.h"

#include <QSslCertificate>

namespace {
// The most read from the reply at a time; the reply buffers no more than this either.
constexpr qint64 kReadBufferBytes = 256 * 1024;
} // namespace

BoundedReader::BoundedReader(const QUrl& url, qint64 cap, int timeoutMs, Deadline deadline, QObject* parent)
    : QObject(parent)
    , cap(cap)
    , timeoutMs(timeoutMs)
    , deadline(deadline)
    , location(url)
{
    timer.setSingleShot(true);
    connect(&timer, &QTimer::timeout, this, [this] {
        fail(QNetworkReply::TimeoutError,
             this->deadline == Deadline::Total
                 ? QStringLiteral("time-out: no complete answer within %1 s").arg(this->timeoutMs / 1000.0)
                 : QStringLiteral("time-out: no data for %1 s").arg(this->timeoutMs / 1000.0));
    });
    timer.start(timeoutMs);
}

void BoundedReader::attach(QNetworkReply* reply, Resend resend)
{
    this->reply = reply;
    if (resend) {
        this->resend = std::move(resend);
    }
    reply->setReadBufferSize(kReadBufferBytes);
    connect(reply, &QNetworkReply::metaDataChanged, this, &BoundedReader::onMetaData);
    connect(reply, &QNetworkReply::readyRead, this, &BoundedReader::onReadyRead);
    connect(reply, &QNetworkReply::sslErrors, this, &BoundedReader::onSslErrors);
    connect(reply, &QNetworkReply::finished, this, &BoundedReader::onFinished);
    // An upload makes progress while nothing comes back yet.
    connect(reply, &QNetworkReply::uploadProgress, this, [this](qint64 sent, qint64 total) {
        if (deadline == Deadline::Idle && !done) {
            timer.start(timeoutMs);
        }
        emit uploadProgress(sent, total);
    });
}

BoundedReader::~BoundedReader()
{
    if (reply) {
        disconnect(reply, nullptr, this, nullptr);
        if (!reply->isFinished()) {
            reply->abort();
        }
        reply->deleteLater();
    }
}

void BoundedReader::fail(QNetworkReply::NetworkError error, const QString& cause)
{
    if (done) {
        return;
    }
    ownError = error;
    ownCause = cause;
    if (reply && !reply->isFinished()) {
        reply->abort(); // finishes the reply, and so reports, before it returns
    }
    if (!done) {
        report();
    }
}

void BoundedReader::onMetaData()
{
    result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QByteArray target = reply->rawHeader("Location");
    if ((result.status == 301 || result.status == 302 || result.status == 303 || result.status == 307 ||
         result.status == 308) &&
        !target.isEmpty()) {
        followRedirect(QUrl::fromEncoded(target));
        return;
    }
    if (deadline == Deadline::Idle) {
        timer.start(timeoutMs);
    }
    const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
    // An error page is reported by its status, whatever its length.
    if (result.status < 300 && length.isValid() && length.toLongLong() > cap) {
        fail(QNetworkReply::UnknownContentError,
             QStringLiteral("too large: Content-Length %1 is over the %2 bytes allowed")
                 .arg(length.toLongLong())
                 .arg(cap));
    }
}

void BoundedReader::onReadyRead()
{
    if (deadline == Deadline::Idle && !done) {
        timer.start(timeoutMs);
    }
    while (!done && reply && reply->bytesAvailable() > 0) {
        const QByteArray chunk = reply->read(kReadBufferBytes);
        if (chunk.isEmpty()) {
            break;
        }
        result.bytes += chunk.size();
        if (result.bytes > cap) {
            fail(QNetworkReply::UnknownContentError,
                 QStringLiteral("too large: the body goes past the %1 bytes allowed").arg(cap));
            return;
        }
        if (streaming) {
            emit received(chunk); // may end the exchange through fail()
        } else {
            result.body += chunk;
        }
    }
}

void BoundedReader::followRedirect(const QUrl& target)
{
    const QUrl to = location.resolved(target);
    QString why;
    if (!resend) {
        fail(QNetworkReply::ProtocolUnknownError,
             QStringLiteral("redirect to %1 not followed").arg(ServiceHttp::forLog(to)));
        return;
    }
    if (++redirects > ServiceHttp::kMaxRedirects) {
        fail(QNetworkReply::TooManyRedirectsError,
             QStringLiteral("too many redirects: more than %1").arg(ServiceHttp::kMaxRedirects));
        return;
    }
    if (!ServiceHttp::redirectAllowed(location, to, &why)) {
        fail(QNetworkReply::InsecureRedirectError,
             QStringLiteral("redirect to %1 refused: %2").arg(ServiceHttp::forLog(to), why));
        return;
    }
    // The answer so far was only the redirect: nothing of it counts.
    const bool asGet = result.status == 301 || result.status == 302 || result.status == 303;
    disconnect(reply, nullptr, this, nullptr);
    reply->abort();
    reply->deleteLater();
    location = to;
    result.status = 0;
    result.bytes = 0;
    result.body.clear();
    attach(resend(to, asGet));
}

void BoundedReader::onSslErrors(const QList<QSslError>& errors)
{
    if (errors.isEmpty() || !tlsProblem.isEmpty()) {
        return;
    }
    const QSslError& first = errors.first();
    QSslCertificate certificate = first.certificate();
    if (certificate.isNull()) {
        certificate = reply->sslConfiguration().peerCertificate();
    }
    const QString subject = certificate.isNull() ? QStringLiteral("none") : certificate.subjectDisplayName();
    tlsProblem = QStringLiteral("%1 (certificate subject: %2)").arg(first.errorString(), subject);
    // Not ignored: the reply ends with SslHandshakeFailedError.
}

void BoundedReader::onFinished()
{
    if (done) {
        return;
    }
    onReadyRead(); // what the reply still holds
    if (!done) {
        report();
    }
}

void BoundedReader::report()
{
    done = true;
    timer.stop();
    // The last place allowed: after a refused redirect the reply already names the refused one.
    result.url = location;
    if (reply) {
        if (result.status == 0) {
            result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        }
        result.error = ownError != QNetworkReply::NoError ? ownError : reply->error();
        disconnect(reply, nullptr, this, nullptr);
        reply->deleteLater();
    } else {
        result.error = ownError != QNetworkReply::NoError ? ownError : QNetworkReply::OperationCanceledError;
    }
    result.url = QUrl(ServiceHttp::forLog(result.url));
    if (result.error != QNetworkReply::NoError) {
        result.cause = causeInWords();
    }
    emit finished(result);
}

QString BoundedReader::causeInWords() const
{
    if (ownError != QNetworkReply::NoError) {
        return ownCause;
    }
    if (!reply) {
        return QStringLiteral("cancelled");
    }
    switch (reply->error()) {
    case QNetworkReply::ConnectionRefusedError:
        return QStringLiteral("connection refused");
    case QNetworkReply::HostNotFoundError:
        return QStringLiteral("host not found");
    case QNetworkReply::RemoteHostClosedError:
        return QStringLiteral("connection closed by the server");
    case QNetworkReply::TimeoutError:
        return QStringLiteral("time-out while connecting");
    case QNetworkReply::SslHandshakeFailedError:
        return QStringLiteral("TLS error: ") + (tlsProblem.isEmpty() ? reply->errorString() : tlsProblem);
    case QNetworkReply::OperationCanceledError:
        return QStringLiteral("cancelled");
    default:
        break;
    }
    if (result.status >= 300) {
        return QStringLiteral("HTTP status %1").arg(result.status);
    }
    return reply->errorString();
}
