#pragma once

#include "service/net/ServiceReply.h"
#include "service/net/VersionDocument.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QFile>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QProcess>
#include <QString>
#include <QTimer>

class BoundedReader;
class ServiceHttp;

// One download of an announced package: streamed into "<name>.part" in the updates folder under
// the program's own name, hashed as it arrives, and renamed into place only once its size, its
// SHA-256 and the package's own name and version (dpkg-deb) are what was announced. Anything
// else removes the file. Reports once; main thread, nothing waits.
class PackageDownload : public QObject
{
    Q_OBJECT
public:
    PackageDownload(ServiceHttp& http, const VersionDocument& document, const QString& folder,
                    QObject* parent = nullptr);
    ~PackageDownload() override; // a download still running is abandoned and its file removed

    // Checks the free space, opens the file and sends the request; false (and logged, nothing
    // reported) when it could not start.
    bool start();

    // "orvanta_<version>_<arch>.deb"
    static QString fileName(const QString& version);
    // "Package: orvanta" and the like, as dpkg-deb --field prints them: name to value.
    static QMap<QString, QString> fields(const QByteArray& output);

signals:
    void finished(const QString& path);
    void failed(const QString& cause);

private:
    void onReceived(const QByteArray& bytes);
    void onTransferred(const ServiceReply& reply);
    void onInspected(int exitCode, QProcess::ExitStatus status);
    void fail(const QString& cause);

    ServiceHttp& http;
    VersionDocument document;
    QString target;   // the verified package
    QString partPath; // where it grows until verified
    QFile part;
    QCryptographicHash hash{QCryptographicHash::Sha256};
    QPointer<BoundedReader> reader;
    QProcess inspector; // dpkg-deb --field
    QTimer inspectorLimit;
    bool reported = false;
};
