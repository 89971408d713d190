#include "service/net/NetRCManager.h"

#include "service/config/ConfigurationManager.h"
#include "service/net/BoundedReader.h"
#include "service/net/CompareVersion.h"
#include "service/net/FeedbackManager.h"
#include "service/net/PackageDownload.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QDirIterator>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QStandardPaths>
#include <QSysInfo>
#include <QTimer>

#include <cmath>

namespace {
constexpr char kTag[] = "[NetRCManager]:";
constexpr int kMaxFeedbackBytes = 64 * 1024;
} // namespace

NetRCManager::NetRCManager(QObject* parent)
    : QObject(parent)
{
    const ServiceHttp::Base& base = http.base();
    if (http.online()) {
        qInfo().noquote() << kTag << "Online services at" << ServiceHttp::forLog(base.url) << "from"
                          << base.source;
    } else if (base.refused) {
        qWarning().noquote() << kTag << "Online services are off:" << base.problem;
    } else {
        qInfo().noquote() << kTag << "Online services are off:" << base.problem << "- nothing is sent";
    }
}

NetRCManager::~NetRCManager()
{
    // Taken out first: an error function that ends up here again finds nothing.
    std::map<quint64, PendingFeedback> pending;
    pending.swap(feedbacks);
    for (auto& entry : pending) {
        PendingFeedback& feedback = entry.second;
        const bool inFlight = feedback.reader != nullptr;
        delete feedback.reader;
        if (feedback.onError) {
            feedback.onError(inFlight ? QNetworkReply::OperationCanceledError : feedback.error);
        }
    }
}

QString NetRCManager::updatesFolder()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
           QStringLiteral("/orvanta/updates");
}

void NetRCManager::checkVersion()
{
    if (!download) {
        clearUpdates();
    }
    if (!http.online()) {
        return;
    }
    if (versionReader) {
        qInfo().noquote() << kTag << "A version check is running already";
        return;
    }
    const QUrl url =
        http.endpoint(QStringLiteral("/v1/linux-%1/latest.json").arg(ServiceHttp::architecture()));
    versionReader = http.get(url, ServiceHttp::Kind::Json);
    if (versionReader) {
        connect(versionReader, &BoundedReader::finished, this, &NetRCManager::onVersionReply);
    }
}

void NetRCManager::onVersionReply(const ServiceReply& reply)
{
    versionReader->deleteLater();
    versionReader.clear();
    const QString url = ServiceHttp::forLog(reply.url);
    if (!reply.ok()) {
        qWarning().noquote() << kTag << "Version check failed: " + url + ": " + reply.cause;
        return;
    }
    if (reply.status != 200) {
        qWarning().noquote() << kTag
                             << "Version check failed: " + url + ": HTTP status " +
                                    QString::number(reply.status);
        return;
    }
    QString why;
    const VersionDocument document = VersionDocument::parse(reply.body, reply.url, &why);
    if (!document.isValid()) {
        qWarning().noquote() << kTag << "Version check failed: " + url + ": " + why;
        return;
    }
    const QString running = QCoreApplication::applicationVersion();
    if (!compareVersion(document.version, running)) {
        qInfo().noquote() << kTag << "No newer version: the service has" << document.version << "and this is"
                          << running;
        return;
    }
    qInfo().noquote() << kTag << "A newer version is available:" << document.version << "(this is"
                      << running + ")";
    latest = document;
    ConfigurationManager* config = ConfigurationManager::instance();
    config->setGlobalValue(QStringList{QStringLiteral("latestVerion"), QStringLiteral("version")},
                           document.version);
    config->saveGlobalValues();
    emit hasNewAppVersion();
}

void NetRCManager::downloadLatestApp()
{
    if (!latest.isValid()) {
        qInfo().noquote() << kTag << "No newer version is known, nothing to download";
        return;
    }
    if (download) {
        qInfo().noquote() << kTag << "The download of" << latest.version << "is running already";
        return;
    }
    download.reset(new PackageDownload(http, latest, updatesFolder()));
    const QString url = ServiceHttp::forLog(latest.url);
    connect(download.data(), &PackageDownload::finished, this, [this](const QString& path) {
        download.take()->deleteLater();
        qInfo().noquote() << kTag << "The update is downloaded and verified:" << path;
        emit newInstallationFileDownloaded(path);
    });
    connect(download.data(), &PackageDownload::failed, this, [this, url](const QString& cause) {
        download.take()->deleteLater();
        qWarning().noquote() << kTag << "Download failed: " + url + ": " + cause;
    });
    qInfo().noquote() << kTag << "Downloading" << latest.version << "from" << url;
    if (!download->start()) {
        download.reset();
    }
}

void NetRCManager::sendFeedback(QPointer<FeedbackManager> feedback, SuccessFunction onSuccess,
                                ErrorFunction onError)
{
    if (!feedback) {
        qWarning().noquote() << kTag << "Feedback not sent: no feedback was given";
        return failFeedbackLater(onSuccess, onError, QNetworkReply::ProtocolInvalidOperationError);
    }
    // Never the texts themselves in the log: they are the user's.
    const QByteArray body = feedbackDocument(feedback->userMsg(), feedback->userContactInfo());
    if (!http.online()) {
        qInfo().noquote() << kTag << "Feedback not sent: online services are off";
        return failFeedbackLater(onSuccess, onError, QNetworkReply::ProtocolUnknownError);
    }
    BoundedReader* reader = http.post(http.endpoint(QStringLiteral("/v1/feedback")), body,
                                      QByteArrayLiteral("application/json"), ServiceHttp::Kind::Json);
    if (!reader) {
        return failFeedbackLater(onSuccess, onError, QNetworkReply::ProtocolUnknownError);
    }
    const quint64 id = nextFeedback++;
    feedbacks[id] = PendingFeedback{reader, onSuccess, onError, QNetworkReply::NoError};
    connect(reader, &BoundedReader::finished, this,
            [this, id](const ServiceReply& reply) { onFeedbackReply(id, reply); });
}

void NetRCManager::onFeedbackReply(quint64 id, const ServiceReply& reply)
{
    const auto it = feedbacks.find(id);
    if (it == feedbacks.end()) {
        return;
    }
    it->second.reader->deleteLater();
    it->second.reader = nullptr;
    QNetworkReply::NetworkError error = reply.error;
    if (reply.ok() && (reply.status < 200 || reply.status > 299)) {
        error = QNetworkReply::UnknownServerError;
    }
    if (error != QNetworkReply::NoError) {
        qWarning().noquote() << kTag
                             << "Feedback failed: " + ServiceHttp::forLog(reply.url) + ": " +
                                    (reply.ok() ? QStringLiteral("HTTP status %1").arg(reply.status)
                                                : reply.cause);
    }
    finishFeedback(id, error);
}

void NetRCManager::failFeedbackLater(SuccessFunction onSuccess, ErrorFunction onError,
                                     QNetworkReply::NetworkError error)
{
    const quint64 id = nextFeedback++;
    feedbacks[id] = PendingFeedback{nullptr, onSuccess, onError, error};
    QTimer::singleShot(0, this, [this, id] {
        const auto it = feedbacks.find(id);
        if (it != feedbacks.end()) {
            finishFeedback(id, it->second.error);
        }
    });
}

void NetRCManager::finishFeedback(quint64 id, QNetworkReply::NetworkError error)
{
    const auto it = feedbacks.find(id);
    if (it == feedbacks.end()) {
        return;
    }
    const PendingFeedback feedback = it->second;
    feedbacks.erase(it);
    if (error == QNetworkReply::NoError) {
        if (feedback.onSuccess) {
            feedback.onSuccess();
        }
    } else if (feedback.onError) {
        feedback.onError(error);
    }
}

QByteArray NetRCManager::feedbackDocument(const QString& message, const QString& contact)
{
    QString language =
        ConfigurationManager::instance()->AppConfigJsonObj().value(QLatin1String("language")).toString();
    if (language.isEmpty()) {
        language = QLocale::system().name();
    }
    QJsonObject document{
        {QStringLiteral("message"), message},
        {QStringLiteral("contact"), contact},
        {QStringLiteral("appVersion"), QCoreApplication::applicationVersion()},
        {QStringLiteral("arch"), ServiceHttp::architecture()},
        {QStringLiteral("os"),
         QString(QSysInfo::prettyProductName() + QStringLiteral("; Linux ") + QSysInfo::kernelVersion())},
        {QStringLiteral("language"), language},
    };
    QByteArray body = QJsonDocument(document).toJson(QJsonDocument::Compact);
    // Too long: the message is shortened first, then the contact, by about the excess, judged by
    // the text's own bytes per character; escapes make the cut too small, never too large.
    for (const QString& key : {QStringLiteral("message"), QStringLiteral("contact")}) {
        QString text = document.value(key).toString();
        while (body.size() > kMaxFeedbackBytes && !text.isEmpty()) {
            const double perChar = qMax(1.0, double(text.toUtf8().size()) / text.size());
            const int cut = int(std::ceil((body.size() - kMaxFeedbackBytes) / perChar));
            text.chop(qBound(1, cut, int(text.size())));
            if (!text.isEmpty() && text.at(text.size() - 1).isHighSurrogate()) {
                text.chop(1);
            }
            document.insert(key, text);
            body = QJsonDocument(document).toJson(QJsonDocument::Compact);
        }
    }
    return body;
}

void NetRCManager::clearUpdates()
{
    QDirIterator it(updatesFolder(), {QStringLiteral("*.part"), QStringLiteral("*.deb")},
                    QDir::Files | QDir::System | QDir::Hidden);
    int removed = 0;
    while (it.hasNext()) {
        removed += QFile::remove(it.next()) ? 1 : 0;
    }
    if (removed > 0) {
        qInfo().noquote() << kTag << "Removed" << removed << "files of earlier downloads from"
                          << updatesFolder();
    }
}
