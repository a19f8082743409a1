#include "ImageFrameSource.h"

#include "Points.h"

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <cstring>
#include <fstream>
#include <iomanip>

namespace Ombrel {

namespace {

constexpr std::size_t kPixelBytes = 3;

inline void copyPixel(const uint8_t* source, uint8_t* dest) {
    dest[0] = source[0];
    dest[1] = source[1];
    dest[2] = source[2];
}

} // namespace

ImageFrameSource::~ImageFrameSource() = default;

void ImageFrameSource::writePixelBufferAsPGM(const std::string& filename) const {
    g_stemlibLogger.error("writePixelBufferAsPGM: writePixelBufferAsPGM not implemented for class "
                          "ImageFrameSource. Can't write file " +
                          filename);
}

void ImageFrameSource::rotate0(const uint8_t* pSource, uint8_t* pDest) const {
    std::memcpy(pDest, pSource,
                static_cast<std::size_t>(_resolution.width) * _resolution.height * kPixelBytes);
}

void ImageFrameSource::rotate90(const uint8_t* pSource, uint8_t* pDest) const {
    // Source: H rows of W. Destination: W rows of H.
    const std::size_t W = _resolution.width;
    const std::size_t H = _resolution.height;
    for (std::size_t i = 0; i < H; ++i) {
        const uint8_t* sourceRow = pSource + i * W * kPixelBytes;
        uint8_t* destColumn = pDest + (H - 1 - i) * kPixelBytes;
        for (std::size_t j = 0; j < W; ++j) {
            copyPixel(sourceRow + j * kPixelBytes, destColumn + j * H * kPixelBytes);
        }
    }
}

void ImageFrameSource::rotate90_R90(const uint8_t* pSource, uint8_t* pDest) const {
    // Source: W rows of H. Destination: H rows of W.
    const std::size_t W = _resolution.width;
    const std::size_t H = _resolution.height;
    for (std::size_t i = 0; i < W; ++i) {
        const uint8_t* sourceRow = pSource + i * H * kPixelBytes;
        uint8_t* destColumn = pDest + (W - 1 - i) * kPixelBytes;
        for (std::size_t j = 0; j < H; ++j) {
            copyPixel(sourceRow + j * kPixelBytes, destColumn + j * W * kPixelBytes);
        }
    }
}

void ImageFrameSource::rotate180(const uint8_t* pSource, uint8_t* pDest) const {
    const std::size_t nPixels = static_cast<std::size_t>(_resolution.width) * _resolution.height;
    uint8_t* dest = pDest + nPixels * kPixelBytes;
    for (std::size_t n = 0; n < nPixels; ++n) {
        dest -= kPixelBytes;
        copyPixel(pSource + n * kPixelBytes, dest);
    }
}

void ImageFrameSource::rotate270(const uint8_t* pSource, uint8_t* pDest) const {
    // Source: H rows of W. Destination: W rows of H.
    const std::size_t W = _resolution.width;
    const std::size_t H = _resolution.height;
    for (std::size_t i = 0; i < H; ++i) {
        const uint8_t* sourceRow = pSource + i * W * kPixelBytes;
        uint8_t* destColumn = pDest + i * kPixelBytes;
        for (std::size_t j = 0; j < W; ++j) {
            copyPixel(sourceRow + j * kPixelBytes, destColumn + (W - 1 - j) * H * kPixelBytes);
        }
    }
}

void ImageFrameSource::rotate270_R90(const uint8_t* pSource, uint8_t* pDest) const {
    // Source: W rows of H. Destination: H rows of W.
    const std::size_t W = _resolution.width;
    const std::size_t H = _resolution.height;
    for (std::size_t i = 0; i < W; ++i) {
        const uint8_t* sourceRow = pSource + i * H * kPixelBytes;
        uint8_t* destColumn = pDest + i * kPixelBytes;
        for (std::size_t j = 0; j < H; ++j) {
            copyPixel(sourceRow + j * kPixelBytes, destColumn + (H - 1 - j) * W * kPixelBytes);
        }
    }
}

void writePixelBufferAsPGM(const std::string& outputFilename, uint8_t* buf, int w, int h,
                           int nChannels) {
    if (buf == nullptr) {
        g_stemlibLogger.error("writePixelBufferAsPGM: Pixel buffer is null");
        return;
    }
    std::ofstream os(outputFilename);
    os << " P2\n";
    os << " " << w << " " << h << "\n";
    os << " 255\n";
    const std::size_t stride = static_cast<std::size_t>(nChannels > 0 ? nChannels : 1);
    for (int row = 0; row < h; ++row) {
        // Only channel 0: a colour buffer gives a picture of its first plane.
        for (int channel = 0; channel < 1; ++channel) {
            for (int column = 0; column < w; ++column) {
                const std::size_t index =
                    (static_cast<std::size_t>(row) * static_cast<std::size_t>(w) +
                     static_cast<std::size_t>(column)) *
                        stride +
                    static_cast<std::size_t>(channel);
                os << std::fixed << std::setw(4) << static_cast<int>(buf[index]);
            }
        }
        os << "\n";
    }
}

void writePixelBufferAsImage(const std::string& outputFilename, uint8_t* buf, int w, int h,
                             int /*nChannels*/) {
    if (buf == nullptr || w <= 0 || h <= 0) {
        g_stemlibLogger.error("writePixelBufferAsImage: Pixel buffer is null or empty");
        return;
    }
    cv::Mat image(h, w, CV_8UC3, buf);
    cv::cvtColor(image, image, cv::COLOR_RGB2BGR);
    try {
        cv::imwrite(outputFilename, image);
    } catch (const cv::Exception& exception) {
        // An unknown extension makes OpenCV throw; a debugging dump must not end the program.
        g_stemlibLogger.error("writePixelBufferAsImage: Failed to write " + outputFilename + ": " +
                              exception.what());
    }
}

} // namespace Ombrel
