#include "crash/QBreakpadHttpUploader.h"

#include "crash/CrashReport.h"
#include "service/net/BoundedReader.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QHttpMultiPart>
#include <QMetaEnum>

#include <memory>

namespace {
constexpr char kTag[] = "[QBreakpadHttpUploader]";
} // namespace

QBreakpadHttpUploader::QBreakpadHttpUploader(const QUrl& url, QObject* parent)
    : QObject(parent)
{
    request.setUrl(url.isEmpty() ? manager.endpoint(QStringLiteral("/v1/crash")) : url);
}

QBreakpadHttpUploader::~QBreakpadHttpUploader()
{
    if (m_reply) {
        qDebug() << "m_reply is not NULL";
    }
}

void QBreakpadHttpUploader::uploadDump(QString abs_file_path)
{
    if (m_reply) {
        qDebug() << "m_reply is not NULL";
        emit done(false, QStringLiteral("an upload is running"));
        return;
    }
    const QFileInfo info(abs_file_path);
    const QString problem = !info.isFile()                  ? QStringLiteral("not a regular file")
                            : info.size() > kMaxUploadBytes ? QStringLiteral("over 1 MiB")
                                                            : CrashReport::readFile(abs_file_path).problem;
    if (!problem.isEmpty()) {
        const bool exists = info.exists();
        if (exists) {
            QFile::remove(abs_file_path + QStringLiteral(".bad"));
            QFile::rename(abs_file_path, abs_file_path + QStringLiteral(".bad"));
        }
        qWarning().noquote() << kTag << "Not sent:" << abs_file_path << "is" << problem
                             << (exists ? "- set aside as .bad" : "");
        emit done(false, problem);
        return;
    }

    auto multiPart = std::make_unique<QHttpMultiPart>(QHttpMultiPart::FormDataType);
    QHttpPart prod;
    prod.setHeader(QNetworkRequest::ContentDispositionHeader, QStringLiteral("form-data; name=\"prod\""));
    prod.setBody(QCoreApplication::applicationName().toLatin1());
    QHttpPart ver;
    ver.setHeader(QNetworkRequest::ContentDispositionHeader, QStringLiteral("form-data; name=\"ver\""));
    ver.setBody(QCoreApplication::applicationVersion().toLatin1());
    QHttpPart dump;
    dump.setHeader(QNetworkRequest::ContentDispositionHeader,
                   QString(QStringLiteral("form-data; name=\"upload_file_minidump\"; filename=\"") +
                           info.fileName() + QLatin1Char('"')));
    dump.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/octet-stream"));
    m_file = new QFile(abs_file_path, multiPart.get());
    if (!m_file->open(QIODevice::ReadOnly)) {
        const QString cause = m_file->errorString();
        multiPart.reset();
        m_file = nullptr;
        emit done(false, cause);
        return;
    }
    dump.setBodyDevice(m_file);
    multiPart->append(prod);
    multiPart->append(ver);
    multiPart->append(dump);

    const QByteArray userAgent =
        (QCoreApplication::applicationName() + QLatin1Char('/') + QCoreApplication::applicationVersion())
            .toLatin1();
    m_reply = manager.post(request.url(), multiPart.release(), userAgent);
    if (!m_reply) {
        m_file = nullptr; // went with the multipart
        emit done(false, manager.online() ? QStringLiteral("the URL is refused")
                                          : QStringLiteral("online services are off"));
        return;
    }
    connect(m_reply, &BoundedReader::uploadProgress, this, &QBreakpadHttpUploader::onUploadProgress);
    connect(m_reply, &BoundedReader::finished, this, &QBreakpadHttpUploader::onUploadFinished);
}

void QBreakpadHttpUploader::onUploadProgress(qint64 sent, qint64 total)
{
    qDebug("upload progress: %lld/%lld", sent, total);
}

void QBreakpadHttpUploader::onError(QNetworkReply::NetworkError err)
{
    qDebug().noquote() << QMetaEnum::fromType<QNetworkReply::NetworkError>().valueToKey(err);
}

void QBreakpadHttpUploader::onUploadFinished(const ServiceReply& reply)
{
    const QString answer = QString::fromUtf8(reply.body);
    const QString path = m_file ? m_file->fileName() : QString();
    qDebug() << "Upload finished";
    qDebug().noquote() << "Answer:" << answer;
    if (!reply.ok()) {
        onError(reply.error);
        qWarning("Upload error: %d - %s", int(reply.error), qPrintable(reply.cause));
    } else {
        qDebug().noquote() << "Upload to" << ServiceHttp::forLog(reply.url) << "success!";
        if (m_file) {
            m_file->close();
        }
        QFile::remove(path);
    }
    emit finished(answer);
    if (m_file) {
        m_file->close();
    }
    BoundedReader* done_ = m_reply;
    m_reply = nullptr;
    m_file = nullptr; // went with the multipart, the reader's child
    if (done_) {
        done_->deleteLater();
    }
    emit done(reply.ok(), reply.ok() ? QString() : reply.cause);
}
