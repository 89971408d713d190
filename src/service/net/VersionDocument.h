#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

// The update service's version document, "latest.json": the newest version and its package.
struct VersionDocument
{
    QString version;   // four numbers, as compareVersion reads them
    QUrl url;          // the package, resolved against the document's URL
    QByteArray sha256; // 32 bytes
    qint64 size = 0;   // bytes, 1 to 512 MiB
    QString notes;

    bool isValid() const { return !version.isEmpty(); }

    // Reads the document fetched from `documentUrl`, a pure function. Refused whole (an invalid
    // result, `error` naming the cause) unless it is an object whose "version" is a version,
    // "sha256" 64 hex digits, "size" an integer from 1 to 512 MiB and "url" passes the URL rule.
    // Other keys are ignored.
    static VersionDocument parse(const QByteArray& body, const QUrl& documentUrl, QString* error);
};
