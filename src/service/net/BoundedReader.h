#pragma once

#include "service/net/ServiceReply.h"

#include <QList>
#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QSslError>
#include <QTimer>

#include <functional>

// Reads one answer of the online services within its cap and its time, and reports it once:
// what a Content-Length over the cap announces ends at the headers, a body without one ends one
// byte past the cap; redirects are followed here, at most three and only where the URL rule allows.
// Main thread.
class BoundedReader : public QObject
{
    Q_OBJECT
public:
    enum class Deadline
    {
        Total, // the whole exchange within the time
        Idle,  // never longer than the time without data
    };

    // For a request to `url`; the time runs from here, the reply may come later.
    BoundedReader(const QUrl& url, qint64 cap, int timeoutMs, Deadline deadline, QObject* parent);
    // An exchange still running is aborted without a report.
    ~BoundedReader() override;

    // Sends the request again to a redirect's target; `asGet` after a 301, 302 or 303.
    using Resend = std::function<QNetworkReply*(const QUrl& url, bool asGet)>;

    // Takes the reply, which goes with deleteLater once reported; `resend` follows redirects,
    // which end the exchange without it.
    void attach(QNetworkReply* reply, Resend resend = {});
    // The body goes out through received() as it arrives instead of being kept.
    void setStreaming(bool on) { streaming = on; }
    // Ends the exchange with this failure, reported through finished() before this returns.
    void fail(QNetworkReply::NetworkError error, const QString& cause);
    bool isDone() const { return done; }

signals:
    void received(const QByteArray& bytes);
    void uploadProgress(qint64 sent, qint64 total);
    void finished(const ServiceReply& reply);

private:
    void onMetaData();
    void onReadyRead();
    // Qt's own following of a user-verified redirect sends the second one twice: done here.
    void followRedirect(const QUrl& target);
    void onSslErrors(const QList<QSslError>& errors);
    void onFinished();
    void report();
    QString causeInWords() const;

    QPointer<QNetworkReply> reply;
    qint64 cap;
    int timeoutMs;
    Deadline deadline;
    QUrl location; // where the exchange is now, redirects allowed so far included
    Resend resend;
    int redirects = 0;
    QTimer timer;
    bool streaming = false;
    bool done = false;
    ServiceReply result;
    QString tlsProblem; // the first certificate error, with the certificate's subject
    // A failure of our own (cap, time, redirect, the caller's), set before the reply is aborted.
    QNetworkReply::NetworkError ownError = QNetworkReply::NoError;
    QString ownCause;
};
