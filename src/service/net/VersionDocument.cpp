#include "service/net/VersionDocument.h"

#include "service/net/CompareVersion.h"
#include "service/net/ServiceHttp.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QRegularExpression>

#include <cmath>

VersionDocument VersionDocument::parse(const QByteArray& body, const QUrl& documentUrl, QString* error)
{
    const auto refuse = [error](const QString& why) {
        if (error) {
            *error = why;
        }
        return VersionDocument();
    };
    QJsonParseError parseError;
    const QJsonDocument json = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        return refuse(QStringLiteral("not JSON: ") + parseError.errorString());
    }
    if (!json.isObject()) {
        return refuse(QStringLiteral("not a JSON object"));
    }
    const QJsonObject object = json.object();

    VersionDocument document;
    document.version = object.value(QLatin1String("version")).toString();
    if (versionNumbers(document.version).isEmpty()) {
        return refuse(QStringLiteral("refused key \"version\": not four numbers of 1 to 9 digits"));
    }
    static const QRegularExpression hex(QStringLiteral("^[0-9a-fA-F]{64}$"));
    const QString sha256 = object.value(QLatin1String("sha256")).toString();
    if (!hex.match(sha256).hasMatch()) {
        return refuse(QStringLiteral("refused key \"sha256\": not 64 hex digits"));
    }
    document.sha256 = QByteArray::fromHex(sha256.toLatin1());
    const QJsonValue size = object.value(QLatin1String("size"));
    const double bytes = size.toDouble(-1);
    if (!size.isDouble() || bytes < 1 || bytes > double(ServiceHttp::kPackageCap) ||
        std::floor(bytes) != bytes) {
        return refuse(QStringLiteral("refused key \"size\": not an integer from 1 to %1")
                          .arg(ServiceHttp::kPackageCap));
    }
    document.size = qint64(bytes);
    const QJsonValue url = object.value(QLatin1String("url"));
    QString why;
    if (!url.isString() || url.toString().isEmpty()) {
        return refuse(QStringLiteral("refused key \"url\": not a string"));
    }
    document.url = documentUrl.resolved(QUrl(url.toString(), QUrl::StrictMode));
    if (!ServiceHttp::urlAllowed(document.url, &why)) {
        return refuse(QStringLiteral("refused key \"url\": ") + why);
    }
    document.notes = object.value(QLatin1String("notes")).toString();
    if (error) {
        error->clear();
    }
    return document;
}
