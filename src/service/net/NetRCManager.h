#pragma once

#include "service/net/ServiceHttp.h"
#include "service/net/VersionDocument.h"

#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QScopedPointer>
#include <QString>

#include <functional>
#include <map>

class BoundedReader;
class FeedbackManager;
class PackageDownload;
struct ServiceReply;

// The network half of the service layer: the version check, the verified download of a newer
// package, and the feedback. Talks only to the configured service (ServiceHttp), and to nothing
// while that is off. Main thread; every call returns at once and reports later.
class NetRCManager : public QObject
{
    Q_OBJECT
public:
    using SuccessFunction = std::function<void()>;
    using ErrorFunction = std::function<void(QNetworkReply::NetworkError)>;

    explicit NetRCManager(QObject* parent = nullptr);
    // Feedback still in flight gets its error function, with OperationCanceledError.
    ~NetRCManager() override;

    // Asks for the latest version; a newer one is kept, stored as "latestVerion/version" and
    // announced by hasNewAppVersion(). Clears what earlier downloads left in the updates folder.
    void checkVersion();
    // Downloads and verifies the newer version found by the check; newInstallationFileDownloaded()
    // once it is in place. Only a log line with no newer version known or a download running.
    void downloadLatestApp();
    // Copies the two texts before it returns, then posts them; later exactly one of the functions
    // runs, on the main thread, never inside this call.
    void sendFeedback(QPointer<FeedbackManager> feedback, SuccessFunction onSuccess, ErrorFunction onError);

    bool online() const { return http.online(); }
    // $XDG_CACHE_HOME/orvanta/updates
    static QString updatesFolder();
    // The feedback's JSON document, at most 64 KiB: the message, then the contact, is shortened
    // to fit. The texts are the user's; nothing else of theirs goes in.
    static QByteArray feedbackDocument(const QString& message, const QString& contact);

signals:
    void hasNewAppVersion();
    void newInstallationFileDownloaded(QString path);

private:
    struct PendingFeedback
    {
        BoundedReader* reader = nullptr; // null: fails without a request
        SuccessFunction onSuccess;
        ErrorFunction onError;
        QNetworkReply::NetworkError error = QNetworkReply::NoError;
    };

    void onVersionReply(const ServiceReply& reply);
    void onFeedbackReply(quint64 id, const ServiceReply& reply);
    void failFeedbackLater(SuccessFunction onSuccess, ErrorFunction onError,
                           QNetworkReply::NetworkError error);
    void finishFeedback(quint64 id, QNetworkReply::NetworkError error);
    void clearUpdates();

    ServiceHttp http;
    VersionDocument latest; // the newer version the check found; invalid before
    QPointer<BoundedReader> versionReader;
    QScopedPointer<PackageDownload> download; // the one running; handed to deleteLater when done
    std::map<quint64, PendingFeedback> feedbacks;
    quint64 nextFeedback = 1;
};
