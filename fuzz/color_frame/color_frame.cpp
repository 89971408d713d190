// The colour frame encoder against a decoder written here from the wire format: "Ada", a zero
// byte, the LED count high byte first, 3 bytes per LED, black after the colours given. The input
// gives the strip's LED count, the count its header was built for (a stale header is possible),
// the lines and their colours.
#include "FuzzSupport.h"
#include "devices/LedLayout.h"
#include "devices/OVController.h"

namespace {

// Past the largest count, so that a count the header cannot carry is tried too.
constexpr uint32_t kLargestCount = LedLayout::maxLeds + 2;
constexpr uint32_t kMostLines = 8;
constexpr uint32_t kLongestLine = 400;

struct Decoded
{
    bool ok = false;
    uint32_t count = 0;
    QByteArray body;
};

Decoded decode(const QByteArray& frame)
{
    Decoded out;
    if (frame.size() < 6 || frame.left(4) != QByteArray("Ada\0", 4)) {
        return out;
    }
    out.count = uint32_t(uint8_t(frame.at(4))) << 8 | uint8_t(frame.at(5));
    out.body = frame.mid(6);
    out.ok = true;
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput input(data, size);
    const uint32_t nbLeds = input.number(kLargestCount);
    const uint8_t headerChoice = input.byte();
    // Mostly the header of this count; else one built for another count, or none at all.
    const uint32_t headerLeds = headerChoice < 200 ? nbLeds : input.number(kLargestCount);
    const QByteArray header = headerChoice == 255 ? QByteArray() : OVController::frameHeaderFor(headerLeds);

    QVector<QVector<OV_RGB>> colors(int(input.number(kMostLines)));
    QByteArray given;
    for (QVector<OV_RGB>& line : colors) {
        line.resize(int(input.number(kLongestLine)));
        for (OV_RGB& led : line) {
            led = OV_RGB{input.byte(), input.byte(), input.byte()};
            given.append(char(led.r)).append(char(led.g)).append(char(led.b));
        }
    }

    const QByteArray frame = OVController::encodeFrame(header, nbLeds, colors);
    const QString what = QStringLiteral("%1 LEDs, header for %2, %3 colour bytes")
                             .arg(nbLeds)
                             .arg(header.isEmpty() ? -1 : int(headerLeds))
                             .arg(given.size());
    // Nothing framed while the header carries no LEDs, or for more LEDs than a frame can carry.
    const bool framed = !header.isEmpty() && (headerLeds & 0xffff) != 0 && nbLeds <= LedLayout::maxLeds;
    FUZZ_EXPECT(frame.isEmpty() == !framed, what);
    if (!framed) {
        return 0;
    }
    const Decoded decoded = decode(frame);
    FUZZ_EXPECT(decoded.ok && decoded.count == (headerLeds & 0xffff), what);
    // Every colour given, in line order; black up to the strip's count.
    const int wanted = 3 * int(nbLeds);
    FUZZ_EXPECT(decoded.body.size() == qMax(wanted, given.size()), what);
    FUZZ_EXPECT(decoded.body.left(given.size()) == given, what);
    FUZZ_EXPECT(decoded.body.mid(given.size()).count('\0') == decoded.body.size() - given.size(), what);
    return 0;
}
