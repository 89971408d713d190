#include "online/AdReply.h"

#include "service/net/ServiceHttp.h"

#include <QDir>
#include <QJsonDocument>

namespace {
const QString kFolder = QStringLiteral("image/ad_images/");
const QString kReplyCopy = QStringLiteral("image/ad_images/ad.json");
} // namespace

AdReply AdReply::parse(const QByteArray& body, const QUrl& replyUrl)
{
    AdReply reply;
    reply.object = QJsonDocument::fromJson(body).object();
    reply.enable = reply.object.value(QLatin1String("enable")).toInt(0);
    reply.vertion = reply.object.value(QLatin1String("vertion")).toInt(0);
    const QString image = reply.object.value(QLatin1String("ad1_image_url")).toString();
    reply.localFileName = reply.object.value(QLatin1String("ad1_local_file_name")).toString();
    reply.href = reply.object.value(QLatin1String("ad1_image_href")).toString();

    QString why;
    if (image.isEmpty()) {
        reply.refusal = QStringLiteral("\"ad1_image_url\" is missing");
    } else {
        reply.imageUrl = replyUrl.resolved(QUrl(image, QUrl::StrictMode));
        if (!ServiceHttp::urlAllowed(reply.imageUrl, &why)) {
            reply.refusal = QStringLiteral("\"ad1_image_url\" is refused: ") + why;
        }
    }
    if (reply.refusal.isEmpty() && !hrefAllowed(reply.href)) {
        reply.refusal = QStringLiteral("\"ad1_image_href\" is neither empty nor an http(s) URL");
    }
    if (reply.refusal.isEmpty() && !localNameAllowed(reply.localFileName)) {
        reply.refusal = QStringLiteral("\"ad1_local_file_name\" is no relative path inside ") + kFolder;
    }
    return reply;
}

bool AdReply::localNameAllowed(const QString& name)
{
    for (const QChar c : name) {
        if (c.category() == QChar::Other_Control || c == QLatin1Char('\\')) {
            return false;
        }
    }
    if (name.isEmpty() || !QDir::isRelativePath(name) ||
        name.split(QLatin1Char('/')).contains(QLatin1String(".."))) {
        return false;
    }
    const QString clean = QDir::cleanPath(name);
    return clean.startsWith(kFolder) && clean.size() > kFolder.size() && clean != kReplyCopy;
}

bool AdReply::hrefAllowed(const QString& href)
{
    if (href.isEmpty()) {
        return true;
    }
    const QUrl url(href, QUrl::StrictMode);
    const QString scheme = url.scheme().toLower();
    return url.isValid() && !url.host().isEmpty() &&
           (scheme == QLatin1String("http") || scheme == QLatin1String("https"));
}
