#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>

// One answer of the local service: what is sent, and how it goes on the wire.
struct ScriptedReply
{
    static constexpr qint64 kBodyLength = -1; // Content-Length: the body's real size
    static constexpr qint64 kNoLength = -2;   // no Content-Length: the body ends with the connection

    int status = 200;
    QList<QPair<QByteArray, QByteArray>> headers; // sent as given, after the status line
    QByteArray body;
    QString file;                       // when set, the body is this file, read as it goes out
    qint64 contentLength = kBodyLength; // any other value is sent as it stands: a length that lies
    int delayMs = 0;                    // before the status line
    int chunkBytes = 0;                 // the body in pieces of this size, chunkIntervalMs apart;
    int chunkIntervalMs = 0;            // 0 bytes: as fast as the client reads
    qint64 cutAfterBytes = -1;          // the connection closes after this many body bytes; -1: never

    static ScriptedReply json(const QByteArray& body, int status = 200)
    {
        ScriptedReply r;
        r.status = status;
        r.headers = {{"Content-Type", "application/json"}};
        r.body = body;
        return r;
    }

    static ScriptedReply redirect(int status, const QByteArray& location)
    {
        ScriptedReply r;
        r.status = status;
        r.headers = {{"Location", location}};
        return r;
    }
};
