#pragma once

#include "service/net/ServiceHttp.h"
#include "service/net/ServiceReply.h"

#include <QByteArray>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QStringList>

// Fills the home page's picture panel: asks the service whether an advertisement is on and which
// version it is, downloads its picture when the version differs from the one kept, and hands the
// page a picture file and a click target. Every failure is a log line; the panel stays as it is.
// Main thread.
class ADManager : public QObject
{
    Q_OBJECT
public:
    explicit ADManager(QObject* parent = nullptr);

    void start();
    void getAdvertisementInfo();
    bool checkNeedUpdate(int serverVersion);
    void downloadFiles(QStringList urls, QStringList localNames, QString href);
    QJsonObject readLocalJson();

    // A picture the panel may show: PNG or JPEG, at most 4096 x 4096 as declared (read before
    // anything is decoded), and decodable. Empty when sound, else why not.
    static QString pictureProblem(const QByteArray& bytes);

signals:
    void sendUpadteDone(QString image_filename, QString hrefUrl);

public slots:
    void requestFinished(const ServiceReply& reply);

private:
    void onDownloaded(const ServiceReply& reply, const QString& href, const QStringList& localNames,
                      int index);
    void storeReply(const QByteArray& body);
    // The folder of `path` made if missing, logged the Part's way.
    static void makeFolderOf(const QString& path);
    static QString dataFolder();

    ServiceHttp network;
    QString jsonPath;
};
