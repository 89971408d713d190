#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QUrl>

// The advertisement endpoint's answer, read the way the home page's slot reads it.
struct AdReply
{
    QJsonObject object; // the body as an object; anything but a JSON object reads as empty
    int enable = 0;     // 1 shows an advertisement; a missing key, or a bool, reads as 0
    int vertion = 0;
    QUrl imageUrl; // "ad1_image_url" resolved against the reply's URL
    QString localFileName;
    QString href;
    // Why the picture may be neither downloaded nor stored: "ad1_image_url" fails the URL rule,
    // "ad1_image_href" is neither empty nor http(s), or "ad1_local_file_name" is no relative path
    // inside "image/ad_images/". Empty when all three are sound.
    QString refusal;

    // A pure function of the body and where it came from.
    static AdReply parse(const QByteArray& body, const QUrl& replyUrl);
    // A relative path inside "image/ad_images/" of the data folder, other than the reply's copy.
    static bool localNameAllowed(const QString& name);
    // Empty, or an http(s) URL.
    static bool hrefAllowed(const QString& href);
};
