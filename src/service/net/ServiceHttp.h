#pragma once

#include <QByteArray>
#include <QFutureWatcher>
#include <QJsonValue>
#include <QList>
#include <QNetworkAccessManager>
#include <QNetworkRequest>
#include <QObject>
#include <QPointer>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QString>
#include <QUrl>

#include <functional>

class BoundedReader;
class QHttpMultiPart;

// The one HTTPS policy of the online services: where they are, which URLs may be fetched, how a
// request is made, and how much of an answer is read for how long. Each user owns one; main
// thread only, and nothing here waits.
class ServiceHttp : public QObject
{
    Q_OBJECT
public:
    // What is fetched decides the cap and the time allowed.
    enum class Kind
    {
        Json,    // a JSON document, or the feedback's answer: 64 KiB, 15 s in all
        Picture, // the advertisement's picture: 4 MiB, 30 s in all
        Package, // the update: the size it was announced with, 30 s without data
        Upload,  // a crash report going up: a 64 KiB answer, 30 s without progress either way
    };
    static constexpr qint64 kJsonCap = 64 * 1024;
    static constexpr qint64 kPictureCap = 4 * 1024 * 1024;
    static constexpr qint64 kPackageCap = 512 * 1024 * 1024;
    static constexpr int kMaxRedirects = 3;

    struct Timeouts
    {
        int jsonMs = 15000;
        int pictureMs = 30000;
        int packageIdleMs = 30000;
        int uploadIdleMs = 30000;
    };
    // For the tests: the requests made afterwards keep to these.
    static void setTimeouts(const Timeouts& timeouts);
    static Timeouts timeouts();

    // Where the services are: the first non-empty of ORVANTA_SERVICE_URL, the global value
    // "serviceUrl" and the build's default. Empty, or "off", turns them off; so does a URL that
    // fails the URL rule, or a stored value that is no string.
    struct Base
    {
        QUrl url;             // without a trailing "/"; empty while the services are off
        QString source;       // where the value came from, for the log
        QString problem;      // why the services are off
        bool refused = false; // off because the value given is unusable, not by choice
    };
    static Base chooseBase(const QString& environment, const QJsonValue& stored, const QString& builtIn);

    // Reads the three sources once; nothing goes on the network before a request.
    explicit ServiceHttp(QObject* parent = nullptr);
    ~ServiceHttp() override;

    const Base& base() const { return base_; }
    bool online() const { return !base_.url.isEmpty(); }
    // `path` ("/v1/feedback") below the base.
    QUrl endpoint(const QString& path) const;

    // Starts a request. The reader is a child of this object and reports once through its
    // finished(); the caller deletes it afterwards. Null, with nothing sent, while the services
    // are off or for a URL the rule refuses. `cap` 0 takes the kind's own.
    BoundedReader* get(const QUrl& url, Kind kind, qint64 cap = 0);
    BoundedReader* post(const QUrl& url, const QByteArray& body, const QByteArray& contentType, Kind kind);
    // A multipart upload (Kind::Upload) with a "User-Agent" of the caller's; the body becomes the
    // reader's child.
    BoundedReader* post(const QUrl& url, QHttpMultiPart* body, const QByteArray& userAgent);

    // The URL rule, pure: https to any host; http only to the literal addresses 127.0.0.1 and
    // [::1]; no other scheme. `why` gets the cause of a refusal.
    static bool urlAllowed(const QUrl& url, QString* why = nullptr);
    // A redirect keeps to the rule and never goes from https to http.
    static bool redirectAllowed(const QUrl& from, const QUrl& to, QString* why = nullptr);
    // "Orvanta/<version> (Linux; <arch>)": nothing that tells one user from another.
    static QByteArray userAgent();
    // The build's Debian architecture ("amd64").
    static QString architecture();
    // The URL as logs show it: no query, fragment or user.
    static QString forLog(const QUrl& url);

private:
    struct Waiting
    {
        QPointer<BoundedReader> reader;
        QUrl url;
        std::function<QNetworkReply*(const QUrl& url, bool asGet)> send;
    };

    QNetworkRequest request(const QUrl& url) const;
    // The reader at once; the request as soon as the CAs are known.
    BoundedReader* begin(const QUrl& url, Kind kind, qint64 cap,
                         std::function<QNetworkReply*(const QUrl& url, bool asGet)> send);
    void sendWaiting();
    // TLS 1.2 or later, the system's CAs plus those of ORVANTA_SERVICE_CA.
    static QSslConfiguration sslConfiguration();
    // With an extra CA the system's must be named too, and reading them takes a fifth of a
    // second: that happens on a pool thread, and requests wait for it, not the main loop.
    static bool authoritiesReady();

    Base base_;
    QNetworkAccessManager network;
    QFutureWatcher<QList<QSslCertificate>> authorities;
    QList<Waiting> waiting;
};
