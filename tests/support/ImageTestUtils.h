// Small synthetic pictures for the image tests, and a look-up of captured library log lines.
#pragma once

#include "SyslogCapture.h"

#include <cstdint>
#include <string>
#include <vector>

namespace StemlibTest {

// An RGB frame (red, green, blue per pixel, no padding) of w by h where pixel (x, y) is
// (x, y, 100 + x + 10 * y): every pixel is unique in small pictures and its place can be read
// back from the first two bytes.
inline std::vector<uint8_t> makeCoordinateImage(unsigned int w, unsigned int h) {
    std::vector<uint8_t> pixels(static_cast<std::size_t>(w) * h * 3);
    for (unsigned int y = 0; y < h; ++y) {
        for (unsigned int x = 0; x < w; ++x) {
            uint8_t* p = &pixels[(static_cast<std::size_t>(y) * w + x) * 3];
            p[0] = static_cast<uint8_t>(x);
            p[1] = static_cast<uint8_t>(y);
            p[2] = static_cast<uint8_t>(100 + x + 10 * y);
        }
    }
    return pixels;
}

// The three bytes of pixel (x, y) of an RGB frame w pixels wide.
inline std::vector<uint8_t> pixelAt(const uint8_t* frame, unsigned int w, unsigned int x,
                                    unsigned int y) {
    const uint8_t* p = frame + (static_cast<std::size_t>(y) * w + x) * 3;
    return {p[0], p[1], p[2]};
}

// An NV12 frame of w by h (both even): luma from yOf(x, y), and for the 2 by 2 block whose
// top-left pixel is (x, y) the chroma pair from uOf(x, y) and vOf(x, y).
template <typename YF, typename UF, typename VF>
std::vector<uint8_t> makeNV12(unsigned int w, unsigned int h, YF yOf, UF uOf, VF vOf) {
    std::vector<uint8_t> nv12(static_cast<std::size_t>(w) * h * 3 / 2);
    uint8_t* uv = nv12.data() + static_cast<std::size_t>(w) * h;
    for (unsigned int y = 0; y < h; ++y) {
        for (unsigned int x = 0; x < w; ++x) {
            nv12[static_cast<std::size_t>(y) * w + x] = static_cast<uint8_t>(yOf(x, y));
            if (x % 2 == 0 && y % 2 == 0) {
                uv[static_cast<std::size_t>(y / 2) * w + x] = static_cast<uint8_t>(uOf(x, y));
                uv[static_cast<std::size_t>(y / 2) * w + x + 1] = static_cast<uint8_t>(vOf(x, y));
            }
        }
    }
    return nv12;
}

// True when the capture holds exactly this library line (given without the system-log prefix),
// at the given syslog priority unless that is -1.
inline bool hasLine(const SyslogCapture& capture, const std::string& line, int priority = -1) {
    for (const SyslogRecord& record : capture.records()) {
        if (record.message == "STEMLIB*::" + line &&
            (priority == -1 || record.priority == priority)) {
            return true;
        }
    }
    return false;
}

// Number of captured lines that begin with prefix (given without the system-log prefix).
inline std::size_t countLinesStartingWith(const SyslogCapture& capture, const std::string& prefix) {
    std::size_t n = 0;
    for (const SyslogRecord& record : capture.records()) {
        n += record.message.rfind("STEMLIB*::" + prefix, 0) == 0 ? 1 : 0;
    }
    return n;
}

} // namespace StemlibTest
