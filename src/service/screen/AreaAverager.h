#pragma once

#include <QImage>

#include <cstdint>

// Scales a grabbed picture down on the CPU: every output pixel is the exact mean of its source
// rectangle (integer box sums), so every source pixel counts and none counts twice. Works on the
// pixels as the display server lays them out; no platform library.
class AreaAverager
{
public:
    // How pixels lie in a grabbed buffer.
    struct PixelLayout
    {
        int bitsPerPixel = 32; // 16, 24 (packed) or 32
        int scanlinePad = 32;  // each row starts on a multiple of this many bits
        bool swapBytes = false;
        uint32_t masks[3] = {0xff0000, 0xff00, 0xff}; // red, green, blue
    };

    // Bytes from one row to the next.
    static int strideOf(int width, const PixelLayout& layout);
    // Averages src (width x height, rows stride bytes apart) into out, which gives the size;
    // out becomes Format_RGBA8888 values with alpha 255.
    static void average(const uint8_t* src, int width, int height, int stride, const PixelLayout& layout,
                        QImage* out);
};
