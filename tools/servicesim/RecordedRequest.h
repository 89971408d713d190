#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>

// One request as the local service received it.
struct RecordedRequest
{
    int connection = 0; // 1 for the first connection accepted, and so on
    QByteArray method;
    QByteArray target;  // as sent, query included
    QByteArray path;    // the target without its query, still percent-encoded
    QByteArray version; // "HTTP/1.1"
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body; // with any chunked transfer coding removed

    // The first value of a header, its name compared without case; null when absent.
    QByteArray header(const QByteArray& name) const
    {
        for (const auto& h : headers) {
            if (h.first.compare(name, Qt::CaseInsensitive) == 0) {
                return h.second;
            }
        }
        return QByteArray();
    }
};
