#include "HttpRequestParser.h"

#include <QList>
#include <QPair>
#include <QVector>

namespace {

const QByteArray kLineEnd = QByteArrayLiteral("\r\n");
const QByteArray kHeadEnd = QByteArrayLiteral("\r\n\r\n");

} // namespace

HttpRequestParser::Result HttpRequestParser::take(QByteArray& buffer, RecordedRequest* request)
{
    const int headEnd = buffer.indexOf(kHeadEnd);
    if (headEnd < 0) {
        return buffer.size() > kMaxHeadBytes ? Result::TooLarge : Result::Incomplete;
    }
    if (headEnd > kMaxHeadBytes) {
        return Result::TooLarge;
    }
    RecordedRequest parsed;
    const Result head = parseHead(buffer.left(headEnd), &parsed);
    if (head != Result::Complete) {
        return head;
    }
    const int bodyStart = headEnd + kHeadEnd.size();
    const QByteArray coding = parsed.header("Transfer-Encoding").trimmed().toLower();
    const QByteArray lengthText = parsed.header("Content-Length").trimmed();
    int end = bodyStart;
    if (!coding.isEmpty()) {
        if (coding != "chunked" || !lengthText.isNull()) {
            return Result::Malformed;
        }
        const Result body = dechunk(buffer, bodyStart, &parsed.body, &end);
        if (body != Result::Complete) {
            return body;
        }
    } else if (!lengthText.isNull()) {
        bool ok = false;
        const qint64 length = lengthText.toLongLong(&ok);
        if (!ok || length < 0 || lengthText.startsWith('+')) {
            return Result::Malformed;
        }
        if (length > kMaxBodyBytes) {
            return Result::TooLarge;
        }
        if (buffer.size() - bodyStart < length) {
            return Result::Incomplete;
        }
        parsed.body = buffer.mid(bodyStart, int(length));
        end = bodyStart + int(length);
    }
    buffer.remove(0, end);
    *request = parsed;
    return Result::Complete;
}

HttpRequestParser::Result HttpRequestParser::parseHead(const QByteArray& head, RecordedRequest* request)
{
    const QList<QByteArray> lines = head.split('\n');
    const QList<QByteArray> first = lines.first().trimmed().split(' ');
    if (first.size() != 3 || first[0].isEmpty() || !first[1].startsWith('/') ||
        !first[2].startsWith("HTTP/1.")) {
        return Result::Malformed;
    }
    request->method = first[0];
    request->target = first[1];
    const int query = first[1].indexOf('?');
    request->path = query < 0 ? first[1] : first[1].left(query);
    request->version = first[2];
    for (int i = 1; i < lines.size(); ++i) {
        const QByteArray line = lines[i].endsWith('\r') ? lines[i].chopped(1) : lines[i];
        const int colon = line.indexOf(':');
        if (colon <= 0 || line.at(0) == ' ' || line.at(0) == '\t') {
            return Result::Malformed; // no name, or a folded line, which HTTP/1.1 forbids
        }
        request->headers.append({line.left(colon), line.mid(colon + 1).trimmed()});
    }
    return Result::Complete;
}

HttpRequestParser::Result HttpRequestParser::dechunk(const QByteArray& buffer, int from, QByteArray* body,
                                                     int* end)
{
    // Walked first and copied once complete: a large body arriving in many reads is not copied at
    // each of them.
    QVector<QPair<int, int>> spans; // offset and size of each chunk's data
    qint64 total = 0;
    int pos = from;
    for (;;) {
        const int lineEnd = buffer.indexOf(kLineEnd, pos);
        if (lineEnd < 0) {
            return buffer.size() - pos > kMaxHeadBytes ? Result::TooLarge : Result::Incomplete;
        }
        QByteArray sizeText = buffer.mid(pos, lineEnd - pos);
        const int extension = sizeText.indexOf(';');
        if (extension >= 0) {
            sizeText.truncate(extension);
        }
        sizeText = sizeText.trimmed();
        bool ok = false;
        const qint64 size = sizeText.toLongLong(&ok, 16);
        if (!ok || size < 0 || sizeText.startsWith('+')) {
            return Result::Malformed;
        }
        total += size;
        if (total > kMaxBodyBytes) {
            return Result::TooLarge;
        }
        pos = lineEnd + kLineEnd.size();
        if (size == 0) {
            break;
        }
        if (buffer.size() - pos < size + kLineEnd.size()) {
            return Result::Incomplete;
        }
        if (buffer.mid(pos + int(size), kLineEnd.size()) != kLineEnd) {
            return Result::Malformed;
        }
        spans.append({pos, int(size)});
        pos += int(size) + kLineEnd.size();
    }
    // Trailer fields, if any, then the empty line.
    if (buffer.mid(pos, kLineEnd.size()) == kLineEnd) {
        pos += kLineEnd.size();
    } else {
        const int trailerEnd = buffer.indexOf(kHeadEnd, pos);
        if (trailerEnd < 0) {
            return buffer.size() - pos > kMaxHeadBytes ? Result::TooLarge : Result::Incomplete;
        }
        pos = trailerEnd + kHeadEnd.size();
    }
    body->clear();
    body->reserve(int(total));
    for (const auto& span : qAsConst(spans)) {
        body->append(buffer.constData() + span.first, span.second);
    }
    *end = pos;
    return Result::Complete;
}
