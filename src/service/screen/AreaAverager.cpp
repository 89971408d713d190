#include "service/screen/AreaAverager.h"

#include <QtEndian>

#include <algorithm>
#include <cstring>
#include <vector>

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
    std::vector<int> xs(size_t(w) + 1);
    for (int ox = 0; ox <= w; ++ox) {
        xs[size_t(ox)] = int(int64_t(ox) * width / w);
    }
    std::vector<uint64_t> acc(size_t(w) * 3);
    const bool plain8 = maxValue[0] == 255 && maxValue[1] == 255 && maxValue[2] == 255;
    for (int oy = 0; oy < h; ++oy) {
        const int y0 = int(int64_t(oy) * height / h);
        const int y1 = std::max(int(int64_t(oy + 1) * height / h), y0 + 1);
        std::fill(acc.begin(), acc.end(), 0);
        for (int y = y0; y < y1 && y < height; ++y) {
            const uint8_t* row = src + size_t(y) * size_t(stride);
            for (int ox = 0; ox < w; ++ox) {
                const int x0 = xs[size_t(ox)];
                const int x1 = std::min(std::max(xs[size_t(ox) + 1], x0 + 1), width);
                uint64_t r = 0, g = 0, b = 0;
                for (int x = x0; x < x1; ++x) {
                    const uint32_t p = load(row + x * bytesPerPixel);
                    r += (p & layout.masks[0]) >> shift[0];
                    g += (p & layout.masks[1]) >> shift[1];
                    b += (p & layout.masks[2]) >> shift[2];
                }
                acc[size_t(ox) * 3] += r;
                acc[size_t(ox) * 3 + 1] += g;
                acc[size_t(ox) * 3 + 2] += b;
            }
        }
        uint8_t* line = out->scanLine(oy);
        const int rows = std::min(y1, height) - y0;
        for (int ox = 0; ox < w; ++ox) {
            const int x0 = xs[size_t(ox)];
            const int x1 = std::min(std::max(xs[size_t(ox) + 1], x0 + 1), width);
            const uint64_t count = uint64_t(std::max(rows, 1)) * uint64_t(std::max(x1 - x0, 1));
            for (int c = 0; c < 3; ++c) {
                const uint64_t sum = acc[size_t(ox) * 3 + size_t(c)];
                line[ox * 4 + c] =
                    plain8 ? uint8_t((sum + count / 2) / count)
                           : uint8_t((sum * 255 + count * maxValue[c] / 2) / (count * maxValue[c]));
            }
            line[ox * 4 + 3] = 255;
        }
    }
}
