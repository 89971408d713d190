#pragma once

#include <QByteArray>
#include <QNetworkReply>
#include <QString>
#include <QUrl>

// How one request of the online services ended, as BoundedReader reports it.
struct ServiceReply
{
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
    QString cause;    // the failure in words ("connection refused"); empty without one
    int status = 0;   // the HTTP status, 0 when none arrived
    QByteArray body;  // the whole body, unless it was streamed
    qint64 bytes = 0; // body bytes received, streamed or kept
    QUrl url;         // where the answer came from at last, without query or user

    bool ok() const { return error == QNetworkReply::NoError; }
};
