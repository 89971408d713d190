#include "online/ADManager.h"

#include "online/AdReply.h"
#include "service/net/BoundedReader.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImageReader>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QSaveFile>
#include <QStandardPaths>

namespace {
constexpr char kTag[] = "[ADManager]:";
constexpr int kMaxPictureSide = 4096;
} // namespace

ADManager::ADManager(QObject* parent)
    : QObject(parent)
{
}

QString ADManager::dataFolder()
{
    return QStandardPaths::standardLocations(QStandardPaths::AppConfigLocation).value(0);
}

void ADManager::start()
{
    jsonPath = dataFolder() + QStringLiteral("/image/ad_images/ad.json");
    getAdvertisementInfo();
}

void ADManager::getAdvertisementInfo()
{
    qDebug().noquote() << "ADManager::getAdvertisementInfo()";
    if (!network.online()) {
        return; // NetRCManager has said so at start
    }
    const QJsonObject request{
        {QStringLiteral("var"), QCoreApplication::applicationVersion()},
        {QStringLiteral("app_name"), QFileInfo(QCoreApplication::applicationFilePath()).fileName()},
    };
    // Named as Qt would name it unasked, so that the request is the same bytes without Qt's
    // warning about a POST without a type.
    BoundedReader* reader =
        network.post(network.endpoint(QStringLiteral("/app/get_advertisement_info.php")),
                     QJsonDocument(request).toJson(QJsonDocument::Compact),
                     QByteArrayLiteral("application/x-www-form-urlencoded"), ServiceHttp::Kind::Json);
    if (reader) {
        connect(reader, &BoundedReader::finished, this, [this, reader](const ServiceReply& reply) {
            reader->deleteLater();
            requestFinished(reply);
        });
    }
}

void ADManager::requestFinished(const ServiceReply& reply)
{
    if (!reply.ok()) {
        qDebug().noquote() << "***ADManager::requestFinished requestFinished Error:" << reply.error;
        qWarning().noquote() << kTag
                             << "Advertisement request failed: " + ServiceHttp::forLog(reply.url) + ": " +
                                    reply.cause;
        return;
    }
    qDebug().noquote() << "ADManager::requestFinished";
    const AdReply ad = AdReply::parse(reply.body, reply.url);
    if (ad.enable != 1) {
        qDebug().noquote() << "ADManager::requestFinished ad enable:" << ad.enable;
        return;
    }
    if (checkNeedUpdate(ad.vertion)) {
        if (!ad.refusal.isEmpty()) {
            // Nothing from this reply is downloaded or stored: no server names a file of the store.
            qWarning().noquote() << kTag
                                 << "Advertisement refused: " + ServiceHttp::forLog(reply.url) + ": " +
                                        ad.refusal;
            return;
        }
        downloadFiles({ad.imageUrl.toString()}, {ad.localFileName}, ad.href);
        storeReply(reply.body);
        return;
    }
    const QJsonObject local = readLocalJson();
    const QString name = local.value(QLatin1String("ad1_local_file_name")).toString();
    const QString href = local.value(QLatin1String("ad1_image_href")).toString();
    const QString image = dataFolder() + QLatin1Char('/') + name;
    qDebug().noquote() << "ADManager::requestFinished use local ad state:" << image << "ulr:" << href;
    emit sendUpadteDone(image, href);
}

void ADManager::storeReply(const QByteArray& body)
{
    makeFolderOf(jsonPath);
    QFile file(jsonPath);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        qDebug().noquote() << "ADManager::requestFinished Failed to open file for writing." << jsonPath;
        return;
    }
    if (file.write(body) == -1) {
        qDebug().noquote() << "ADManager::requestFinished Failed to write JSON data to file." << jsonPath;
    } else {
        qDebug().noquote() << "ADManager::requestFinished JSON data written to file successfully."
                           << jsonPath;
    }
    file.close();
}

bool ADManager::checkNeedUpdate(int serverVersion)
{
    const int local = readLocalJson().value(QLatin1String("vertion")).toInt(0);
    const bool result = local != serverVersion;
    qDebug().noquote() << "ADManager::checkNeedUpdate local:" << local << " , server:" << serverVersion
                       << " result:" << result;
    return result;
}

QJsonObject ADManager::readLocalJson()
{
    QFile file(jsonPath);
    // Only the copy the reply left, a small file: anything else standing there reads as none.
    if (!QFileInfo(jsonPath).isFile() || QFileInfo(jsonPath).size() > ServiceHttp::kJsonCap ||
        !file.open(QIODevice::ReadOnly)) {
        qDebug().noquote() << "ADManager::requestFinished Failed to open file." << jsonPath;
        return QJsonObject();
    }
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
    if (error.error != QJsonParseError::NoError) {
        qDebug().noquote() << "ADManager::requestFinished " << jsonPath
                           << " Failed to parse JSON:" << error.errorString();
        return QJsonObject();
    }
    return document.object();
}

void ADManager::downloadFiles(QStringList urls, QStringList localNames, QString href)
{
    for (int i = 0; i < urls.size(); ++i) {
        qDebug().noquote() << "ADManager::downloadFiles " << urls.at(i);
        BoundedReader* reader = network.get(QUrl(urls.at(i)), ServiceHttp::Kind::Picture);
        if (!reader) {
            continue;
        }
        connect(reader, &BoundedReader::finished, this,
                [this, reader, href, localNames, i](const ServiceReply& reply) {
                    reader->deleteLater();
                    onDownloaded(reply, href, localNames, i);
                });
    }
}

void ADManager::onDownloaded(const ServiceReply& reply, const QString& href, const QStringList& localNames,
                             int index)
{
    // Written only when sound: the file goes straight to the home page.
    QString problem = reply.ok() ? QString() : reply.cause;
    if (problem.isEmpty() && reply.status != 200) {
        problem = QStringLiteral("HTTP status %1").arg(reply.status);
    }
    if (problem.isEmpty()) {
        problem = pictureProblem(reply.body);
    }
    if (!problem.isEmpty()) {
        qWarning().noquote() << kTag
                             << "Advertisement picture not saved: " + ServiceHttp::forLog(reply.url) + ": " +
                                    problem;
        return;
    }
    const QString name = localNames.value(index);
    const QString path = dataFolder() + QLatin1Char('/') + name;
    makeFolderOf(path);
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.write(reply.body) == reply.body.size() && file.commit()) {
        qDebug().noquote() << "Download" << name << " ok";
        emit sendUpadteDone(path, href);
    } else {
        qDebug().noquote() << "Failed to save image file.";
    }
}

QString ADManager::pictureProblem(const QByteArray& bytes)
{
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    QImageReader reader(&buffer);
    reader.setDecideFormatFromContent(true);
    const QByteArray format = reader.format();
    if (format != "png" && format != "jpeg" && format != "jpg") {
        return format.isEmpty()
                   ? QStringLiteral("not a picture")
                   : QStringLiteral("a %1 picture, not PNG or JPEG").arg(QString::fromLatin1(format));
    }
    const QSize size = reader.size();
    if (!size.isValid()) {
        return QStringLiteral("undecodable: no size in its header");
    }
    if (size.width() > kMaxPictureSide || size.height() > kMaxPictureSide) {
        return QStringLiteral("declared as %1 x %2, over %3 x %3")
            .arg(size.width())
            .arg(size.height())
            .arg(kMaxPictureSide);
    }
    if (reader.read().isNull()) {
        return QStringLiteral("undecodable: ") + reader.errorString();
    }
    return QString();
}

void ADManager::makeFolderOf(const QString& path)
{
    const QString folder = QFileInfo(path).absolutePath();
    if (!QDir(folder).exists()) {
        const bool made = QDir().mkpath(folder);
        qDebug().noquote() << "新建目录是否成功" << folder << ":" << made;
    }
}
