#pragma once

#include "service/net/ServiceHttp.h"
#include "service/net/ServiceReply.h"

#include <QNetworkReply>
#include <QNetworkRequest>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

class BoundedReader;
class QFile;

// Posts one crash report at a time to the crash endpoint under the online services' HTTPS rules.
// A good answer deletes the report; a failed one keeps it. A report over 1 MiB, or one that is
// not a report, is renamed "<name>.bad" and not sent. Main thread.
class QBreakpadHttpUploader : public QObject
{
    Q_OBJECT
public:
    static constexpr qint64 kMaxUploadBytes = 1024 * 1024;

    // An empty url takes the online services' crash endpoint ("<base>/v1/crash").
    explicit QBreakpadHttpUploader(const QUrl& url, QObject* parent = nullptr);
    ~QBreakpadHttpUploader() override;

    // The services' base, for the reporter's window.
    bool online() const { return manager.online(); }
    QUrl url() const { return request.url(); }

signals:
    void finished(QString answer);
    // Once per uploadDump: sent (and deleted), or why not.
    void done(bool sent, QString cause);

public slots:
    void uploadDump(QString abs_file_path);

private slots:
    void onUploadProgress(qint64 sent, qint64 total);
    void onError(QNetworkReply::NetworkError err);
    void onUploadFinished(const ServiceReply& reply);

private:
    ServiceHttp manager;
    QNetworkRequest request;
    QFile* m_file = nullptr;
    QPointer<BoundedReader> m_reply;
};
