#pragma once

#include "RecordedRequest.h"

#include <QByteArray>

// Takes HTTP/1.1 requests off the front of a connection's input, a pure function of the bytes.
class HttpRequestParser
{
public:
    enum class Result
    {
        Incomplete, // more bytes are needed; nothing was taken
        Complete,   // one request was taken off the buffer
        Malformed,  // no request can be read from here on
        TooLarge,   // the head or the body is over its cap
    };

    static constexpr int kMaxHeadBytes = 64 * 1024;
    static constexpr qint64 kMaxBodyBytes = 64 * 1024 * 1024;

    static Result take(QByteArray& buffer, RecordedRequest* request);

private:
    static Result parseHead(const QByteArray& head, RecordedRequest* request);
    // The chunked body that starts at `from`: its bytes and where it ends in the buffer.
    static Result dechunk(const QByteArray& buffer, int from, QByteArray* body, int* end);
};
