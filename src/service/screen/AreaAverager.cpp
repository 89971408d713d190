#include "service/screen/AreaAverager.h"

#include <QtEndian>

#include <algorithm>
#include <cstring>
#include <vector>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace {

// Rows summed into 16-bit column sums before these are added up: 257 * 255 = 65535.
constexpr int kRowsPerPass = 257;

// Output column ox reads source columns x0[ox] to x1[ox].
struct Columns
{
    std::vector<int> x0;
    std::vector<int> x1;
};

// Adds the first n bytes of Rows rows, stride bytes apart, to sums, byte by byte.
template <int Rows> void addRows(const uint8_t* first, size_t stride, int n, uint16_t* sums)
{
    int i = 0;
#ifdef __SSE2__
    const __m128i zero = _mm_setzero_si128();
    for (; i + 16 <= n; i += 16) {
        auto* s = reinterpret_cast<__m128i*>(sums + i);
        __m128i lo = _mm_loadu_si128(s);
        __m128i hi = _mm_loadu_si128(s + 1);
        for (int r = 0; r < Rows; ++r) {
            const __m128i p =
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(first + r * stride + size_t(i)));
            lo = _mm_add_epi16(lo, _mm_unpacklo_epi8(p, zero));
            hi = _mm_add_epi16(hi, _mm_unpackhi_epi8(p, zero));
        }
        _mm_storeu_si128(s, lo);
        _mm_storeu_si128(s + 1, hi);
    }
#endif
    for (; i < n; ++i) {
        for (int r = 0; r < Rows; ++r) {
            sums[i] = uint16_t(sums[i] + first[r * stride + size_t(i)]);
        }
    }
}

// Adds the column sums of pixels x0 to x1 (four bytes each) to cell, by byte.
void addColumns(const uint16_t* sums, int x0, int x1, uint64_t* cell)
{
    uint32_t total[4] = {0, 0, 0, 0}; // 65535 * 65536 at most
    int x = x0;
#ifdef __SSE2__
    const __m128i zero = _mm_setzero_si128();
    __m128i acc = zero;
    for (; x + 2 <= x1; x += 2) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(sums + size_t(x) * 4));
        acc = _mm_add_epi32(acc, _mm_add_epi32(_mm_unpacklo_epi16(v, zero), _mm_unpackhi_epi16(v, zero)));
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(total), acc);
#endif
    for (; x < x1; ++x) {
        for (int c = 0; c < 4; ++c) {
            total[c] += sums[size_t(x) * 4 + size_t(c)];
        }
    }
    for (int c = 0; c < 4; ++c) {
        cell[c] += total[c];
    }
}

// Adds rows y0 to y1 of 32-bit pixels to acc, four sums an output pixel, one a byte in memory
// order: whole rows are summed byte by byte into columnSums (width * 4), without taking pixels
// apart, then the columns into their cells.
void sumBytes(const uint8_t* src, int width, int stride, int y0, int y1, const Columns& columns,
              uint16_t* columnSums, uint64_t* acc)
{
    static void (*const add[])(const uint8_t*, size_t, int, uint16_t*) = {addRows<1>, addRows<2>, addRows<3>,
                                                                          addRows<4>};
    for (int y = y0; y < y1;) {
        const int last = std::min(y1, y + kRowsPerPass);
        std::fill(columnSums, columnSums + size_t(width) * 4, 0);
        while (y < last) {
            const int rows = std::min(last - y, 4);
            add[rows - 1](src + size_t(y) * size_t(stride), size_t(stride), width * 4, columnSums);
            y += rows;
        }
        for (size_t ox = 0; ox < columns.x0.size(); ++ox) {
            addColumns(columnSums, columns.x0[ox], columns.x1[ox], acc + ox * 4);
        }
    }
}

} // namespace

int AreaAverager::strideOf(int width, const PixelLayout& layout)
{
    const int pad = layout.scanlinePad > 0 ? layout.scanlinePad : 32;
    return ((width * layout.bitsPerPixel + pad - 1) / pad) * pad / 8;
}

void AreaAverager::average(const uint8_t* src, int width, int height, int stride, const PixelLayout& layout,
                           QImage* out)
{
    const int w = out->width();
    const int h = out->height();
    int shift[3];
    uint64_t maxValue[3];
    for (int c = 0; c < 3; ++c) {
        const uint32_t mask = layout.masks[c];
        shift[c] = mask ? __builtin_ctz(mask) : 0;
        maxValue[c] = mask ? (mask >> shift[c]) : 1;
    }
    const int bytesPerPixel = layout.bitsPerPixel / 8;
    auto load = [&](const uint8_t* p) -> uint32_t {
        if (bytesPerPixel == 4) {
            uint32_t v;
            std::memcpy(&v, p, 4);
            return layout.swapBytes ? qbswap(v) : v;
        }
        if (bytesPerPixel == 2) {
            uint16_t v;
            std::memcpy(&v, p, 2);
            return layout.swapBytes ? qbswap(v) : v;
        }
        // 24 bits packed, in the server's byte order.
        return layout.swapBytes ? (uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2])
                                : (uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0]);
    };
    Columns columns;
    columns.x0.resize(size_t(w));
    columns.x1.resize(size_t(w));
    for (int ox = 0; ox < w; ++ox) {
        const int x0 = int(int64_t(ox) * width / w);
        columns.x0[size_t(ox)] = x0;
        columns.x1[size_t(ox)] = std::min(std::max(int(int64_t(ox + 1) * width / w), x0 + 1), width);
    }
    const bool plain8 = maxValue[0] == 255 && maxValue[1] == 255 && maxValue[2] == 255;
    // Four sums an output pixel: red, green and blue; or, when each channel is a whole byte of a
    // 32-bit pixel (the portal's and most servers' layouts), one a byte in memory order.
    bool byteSums = bytesPerPixel == 4 && plain8 && width <= 65536;
    for (int c = 0; c < 3; ++c) {
        byteSums = byteSums && shift[c] % 8 == 0;
    }
    int channel[3] = {0, 1, 2}; // where red, green and blue lie among the four
    const bool lowByteFirst = (Q_BYTE_ORDER == Q_LITTLE_ENDIAN) != layout.swapBytes;
    for (int c = 0; c < 3 && byteSums; ++c) {
        channel[c] = lowByteFirst ? shift[c] / 8 : 3 - shift[c] / 8;
    }
    std::vector<uint64_t> acc(size_t(w) * 4);
    std::vector<uint16_t> columnSums(byteSums ? size_t(width) * 4 : 0);
    for (int oy = 0; oy < h; ++oy) {
        const int y0 = int(int64_t(oy) * height / h);
        const int y1 = std::min(std::max(int(int64_t(oy + 1) * height / h), y0 + 1), height);
        std::fill(acc.begin(), acc.end(), 0);
        if (byteSums) {
            sumBytes(src, width, stride, y0, y1, columns, columnSums.data(), acc.data());
        }
        for (int y = y0; !byteSums && y < y1; ++y) {
            const uint8_t* row = src + size_t(y) * size_t(stride);
            for (int ox = 0; ox < w; ++ox) {
                uint64_t r = 0, g = 0, b = 0;
                for (int x = columns.x0[size_t(ox)]; x < columns.x1[size_t(ox)]; ++x) {
                    const uint32_t p = load(row + x * bytesPerPixel);
                    r += (p & layout.masks[0]) >> shift[0];
                    g += (p & layout.masks[1]) >> shift[1];
                    b += (p & layout.masks[2]) >> shift[2];
                }
                acc[size_t(ox) * 4] += r;
                acc[size_t(ox) * 4 + 1] += g;
                acc[size_t(ox) * 4 + 2] += b;
            }
        }
        uint8_t* line = out->scanLine(oy);
        for (int ox = 0; ox < w; ++ox) {
            const uint64_t count = uint64_t(std::max(y1 - y0, 1)) *
                                   uint64_t(std::max(columns.x1[size_t(ox)] - columns.x0[size_t(ox)], 1));
            for (int c = 0; c < 3; ++c) {
                const uint64_t sum = acc[size_t(ox) * 4 + size_t(channel[c])];
                if (plain8 && count < (1u << 24)) { // 255 * count fits 32 bits, whose division is faster
                    line[ox * 4 + c] = uint8_t((uint32_t(sum) + uint32_t(count) / 2) / uint32_t(count));
                } else {
                    line[ox * 4 + c] =
                        plain8 ? uint8_t((sum + count / 2) / count)
                               : uint8_t((sum * 255 + count * maxValue[c] / 2) / (count * maxValue[c]));
                }
            }
            line[ox * 4 + 3] = 255;
        }
    }
}
