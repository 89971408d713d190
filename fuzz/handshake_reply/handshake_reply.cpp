// The handshake reply as a port delivers it: the input's first byte picks how the bytes are cut
// into deliveries; after each one the handler's view (the first maxBytes received) is judged, and
// once all have come without a verdict, judged again as at the time-out.
#include "FuzzSupport.h"
#include "devices/HandshakeReply.h"

#include <QStringList>

namespace {

using Verdict = HandshakeReply::Verdict;

bool same(const HandshakeReply& a, const HandshakeReply& b)
{
    return a.verdict == b.verdict && a.length == b.length && a.text == b.text && a.model == b.model &&
           a.serial == b.serial && a.id == b.id && a.hasSerial == b.hasSerial;
}

void checkReply(const HandshakeReply& reply, const QByteArray& seen, bool final)
{
    const QString where = QString::fromLatin1(seen.toHex());
    if (reply.verdict != Verdict::Device) {
        FUZZ_EXPECT(reply.length == 0 && reply.id.isEmpty(), where);
        return;
    }
    FUZZ_EXPECT(reply.length >= 2 && reply.length <= seen.size() && reply.length <= HandshakeReply::maxBytes,
                where);
    const int lineEnd = seen.indexOf('\n');
    // Up to and with the first line end; without one only at the time-out, and then all of it.
    FUZZ_EXPECT(lineEnd >= 0 ? reply.length == lineEnd + 1 : final && reply.length == seen.size(), where);
    FUZZ_EXPECT(reply.text == QString::fromLatin1(seen.constData(), reply.length - 2), where);
    if (reply.hasSerial) {
        // The serial's bytes come back unchanged from their hexadecimal form.
        const QStringList fields = reply.text.split(QLatin1Char(','));
        FUZZ_EXPECT(QByteArray::fromHex(reply.serial.toLatin1()) == fields.at(1).toLatin1(), where);
        FUZZ_EXPECT(reply.serial == reply.serial.toUpper() && reply.serial.size() % 2 == 0, where);
        // The model is the first 6 characters, the id's part the first field: the same but for
        // a comma within the model.
        FUZZ_EXPECT(reply.model == reply.text.left(6), where);
        FUZZ_EXPECT(reply.id == fields.at(0).toUpper() + QLatin1Char(':') + reply.serial, where);
    } else {
        FUZZ_EXPECT(reply.id == reply.text.toUpper() && reply.model == reply.id, where);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput input(data, size);
    const uint8_t cut = input.byte();
    const QByteArray bytes = input.rest();

    // Deliveries of 1 to 16 bytes, or all at once; lengths from a small generator seeded by `cut`.
    QByteArray received;
    HandshakeReply reply;
    uint32_t state = cut | 1u;
    int at = 0;
    while (at < bytes.size() && reply.verdict == Verdict::Incomplete) {
        state = state * 1103515245u + 12345u;
        const int piece = cut == 0 ? bytes.size() : int((state >> 16) % 16) + 1;
        received += bytes.mid(at, piece);
        at += piece;
        const QByteArray seen = received.left(HandshakeReply::maxBytes);
        reply = HandshakeReply::parse(seen, false);
        checkReply(reply, seen, false);
    }
    const QByteArray seen = received.left(HandshakeReply::maxBytes);
    if (reply.verdict == Verdict::Incomplete) {
        reply = HandshakeReply::parse(seen, true);
        checkReply(reply, seen, true);
        FUZZ_EXPECT(reply.verdict != Verdict::Incomplete || seen.isEmpty(),
                    QString::fromLatin1(seen.toHex()));
        return 0;
    }
    // Decided on the way: the same verdict whatever came after it, and however it was cut.
    const QByteArray whole = bytes.left(HandshakeReply::maxBytes);
    FUZZ_EXPECT(same(reply, HandshakeReply::parse(whole, false)), QString::fromLatin1(whole.toHex()));
    return 0;
}
