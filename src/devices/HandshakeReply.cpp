#include "devices/HandshakeReply.h"

#include <QStringList>

namespace {

// Whether the bytes so far can still begin with the magic "OV", in any case.
bool magicPossible(const QByteArray& bytes)
{
    static const char magic[] = "OV";
    for (int i = 0; i < 2 && i < bytes.size(); ++i) {
        if ((bytes.at(i) & ~0x20) != magic[i]) {
            return false;
        }
    }
    return true;
}

} // namespace

HandshakeReply HandshakeReply::parse(const QByteArray& bytes, bool final)
{
    HandshakeReply reply;
    if (bytes.isEmpty()) {
        return reply;
    }
    if (!magicPossible(bytes)) {
        reply.verdict = Verdict::NotADevice;
        return reply;
    }
    const int lineEnd = bytes.left(maxBytes).indexOf('\n');
    if (lineEnd >= 0) {
        reply.length = lineEnd + 1;
    } else if (bytes.size() >= maxBytes) {
        reply.verdict = Verdict::TooLong;
        return reply;
    } else if (final) {
        reply.length = bytes.size();
    } else {
        return reply;
    }
    if (reply.length < 2) {
        reply.length = 0;
        reply.verdict = Verdict::NotADevice; // "O" alone at the time-out
        return reply;
    }
    reply.verdict = Verdict::Device;

    // Byte for byte, so a serial's bytes come back unchanged in its hexadecimal form.
    QString s = QString::fromLatin1(bytes.constData(), reply.length);
    s.chop(2);
    reply.text = s;
    if (s.size() > 6 && s.at(6) == QLatin1Char(',')) {
        reply.hasSerial = true;
        reply.model = s.left(6);
        const QStringList fields = s.split(QLatin1Char(','), Qt::KeepEmptyParts);
        reply.serial = QString::fromLatin1(fields.at(1).toLatin1().toHex().toUpper());
        reply.id = fields.at(0).toUpper() + QLatin1Char(':') + reply.serial;
    } else {
        reply.id = s.toUpper();
        reply.model = reply.id;
    }
    return reply;
}
