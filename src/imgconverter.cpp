#include "imgconverter.h"

#include "Points.h"

#include <libyuv/convert_argb.h>
#include <libyuv/convert_from_argb.h>
#include <libyuv/scale_argb.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace Ombrel {

namespace {

// NV12 as the camera delivers it has even sizes: each U,V pair serves a 2 by 2 block. Odd or
// empty sizes would make libyuv read past the planes, so they are refused. The upper bound
// keeps every byte count within int, libyuv's type for sizes and strides.
bool isValidNV12Size(const char* function, unsigned int width, unsigned int height) {
    constexpr unsigned int kMaxSide = 16384;
    if (width == 0 || height == 0 || width % 2 != 0 || height % 2 != 0 || width > kMaxSide ||
        height > kMaxSide) {
        g_stemlibLogger.error(std::string(function) + ": Invalid NV12 size " +
                              std::to_string(width) + "x" + std::to_string(height) +
                              ": width and height must be even, positive and at most " +
                              std::to_string(kMaxSide));
        return false;
    }
    return true;
}

// libyuv's ARGB is blue, green, red, alpha in memory; RAW is red, green, blue. libyuv drops the
// alpha byte with its vectorised row functions.
void ARGBtoRAW(const uint8_t* srcARGB, uint8_t* dstRGB, unsigned int w, unsigned int h) {
    libyuv::ARGBToRAW(srcARGB, static_cast<int>(w * 4), dstRGB, static_cast<int>(w * 3),
                      static_cast<int>(w), static_cast<int>(h));
}

// The low byte of value truncated to an unsigned integer; negative values give 0.
inline uint8_t wrapToByte(float value) {
    if (!(value > 0.0f)) {
        return 0;
    }
    return static_cast<uint8_t>(detail::truncateTo<unsigned int>(value) & 0xFFu);
}

inline float clampTo(float value, float minV, float maxV) {
    if (value < minV) {
        value = minV;
    }
    if (value > maxV) {
        value = maxV;
    }
    return value;
}

} // namespace

void convertU8yuvToRGBlibYuv(unsigned int width, unsigned int height, uint8_t* yuvIn,
                             uint8_t* rgbOut) {
    if (!isValidNV12Size("convertU8yuvToRGBlibYuv", width, height)) {
        return;
    }
    const int w = static_cast<int>(width);
    const int h = static_cast<int>(height);
    const int result = libyuv::NV12ToRAW(yuvIn, w, yuvIn == nullptr ? nullptr : yuvIn + w * h, w,
                                         rgbOut, w * 3, w, h);
    if (result != 0) {
        g_stemlibLogger.error("convertU8yuvToRGBlibYuv: Failed NV12ToRAW(), result=" +
                              std::to_string(result));
    }
}

void convertU8yuvToRGBnaive(unsigned int width, unsigned int height, uint8_t* yuvIn,
                            uint8_t* rgbOut) {
    if (!isValidNV12Size("convertU8yuvToRGBnaive", width, height)) {
        return;
    }
    if (yuvIn == nullptr || rgbOut == nullptr) {
        g_stemlibLogger.error("convertU8yuvToRGBnaive: Input or output buffer is null");
        return;
    }
    const std::size_t w = width;
    const uint8_t* uvPlane = yuvIn + w * height;
    for (std::size_t row = 0; row < height; ++row) {
        const uint8_t* yRow = yuvIn + row * w;
        const uint8_t* uvRow = uvPlane + (row / 2) * w;
        uint8_t* out = rgbOut + row * w * 3;
        for (std::size_t column = 0; column < w; ++column, out += 3) {
            const float y = static_cast<float>(yRow[column]) / 255.0f;
            const float u = static_cast<float>(uvRow[(column / 2) * 2]) / 255.0f - 0.5f;
            const float v = static_cast<float>(uvRow[(column / 2) * 2 + 1]) / 255.0f - 0.5f;
            out[0] = wrapToByte((y + 1.13983f * v) * 255.0f);
            out[1] = wrapToByte((y - 0.39465f * u - 0.5806f * v) * 255.0f);
            out[2] = wrapToByte((y + 2.03211f * u) * 255.0f);
        }
    }
}

void convertU8yuvToFloat32RGB(unsigned int width, unsigned int height, uint8_t* inBuffer,
                              float* outBuffer, float outSwing, float outCenter) {
    if (!isValidNV12Size("convertU8yuvToFloat32RGB", width, height)) {
        return;
    }
    if (inBuffer == nullptr || outBuffer == nullptr) {
        g_stemlibLogger.error("convertU8yuvToFloat32RGB: Input or output buffer is null");
        return;
    }
    const float minV = outCenter - outSwing / 2.0f;
    const float maxV = outCenter + outSwing / 2.0f;
    const std::size_t w = width;
    const uint8_t* uvPlane = inBuffer + w * height;
    for (std::size_t row = 0; row < height; ++row) {
        const uint8_t* yRow = inBuffer + row * w;
        const uint8_t* uvRow = uvPlane + (row / 2) * w;
        float* out = outBuffer + row * w * 3;
        for (std::size_t column = 0; column < w; ++column, out += 3) {
            const float y = static_cast<float>(yRow[column]) / 255.0f;
            const float u = static_cast<float>(uvRow[(column / 2) * 2]) / 255.0f - 0.5f;
            const float v = static_cast<float>(uvRow[(column / 2) * 2 + 1]) / 255.0f - 0.5f;
            out[0] = clampTo(minV + outSwing * (y + 1.13983f * v), minV, maxV);
            out[1] = clampTo(minV + outSwing * (y - 0.39465f * u - 0.5806f * v), minV, maxV);
            out[2] = clampTo(minV + outSwing * (y + 2.03211f * u), minV, maxV);
        }
    }
}

bool convertCropScaleU8yuvToRGB(const uint8_t* nv12Data, unsigned int srcWidth,
                                unsigned int srcHeight, uint8_t* rgbData, unsigned int dstWidth,
                                unsigned int dstHeight) {
    if (!isValidNV12Size("convertCropScaleU8yuvToRGB", srcWidth, srcHeight)) {
        return false;
    }
    if (nv12Data == nullptr || rgbData == nullptr || dstWidth == 0 || dstHeight == 0 ||
        dstWidth > 16384 || dstHeight > 16384) {
        g_stemlibLogger.error("convertCropScaleU8yuvToRGB: Invalid buffers or destination size " +
                              std::to_string(dstWidth) + "x" + std::to_string(dstHeight));
        return false;
    }

    // The largest centred region of the destination's aspect ratio.
    const float destWHratio = static_cast<float>(dstWidth) / static_cast<float>(dstHeight);
    float clipW = static_cast<float>(srcWidth);
    float clipH = clipW / destWHratio;
    if (clipH > static_cast<float>(srcHeight)) {
        clipH = static_cast<float>(srcHeight);
        clipW = clipH * destWHratio;
    }
    const unsigned int clipWidth = std::min(detail::truncateTo<unsigned int>(clipW), srcWidth);
    const unsigned int clipHeight = std::min(detail::truncateTo<unsigned int>(clipH), srcHeight);
    const unsigned int clipX = (srcWidth - clipWidth) >> 1;
    const unsigned int clipY = (srcHeight - clipHeight) >> 1;

    // Only the region that is kept is converted. It starts on an even column and row, where a
    // U,V pair begins, so every pixel gets the same chroma as in a conversion of the whole
    // frame; an odd crop offset adds one leading column or row that the scale step skips.
    const unsigned int convX = clipX & ~1u;
    const unsigned int convY = clipY & ~1u;
    const unsigned int convWidth = clipWidth + (clipX - convX);
    const unsigned int convHeight = clipHeight + (clipY - convY);

    const std::size_t bigARGBstride = static_cast<std::size_t>(convWidth) * 4;
    const std::size_t smallARGBstride = static_cast<std::size_t>(dstWidth) * 4;
    auto* tempARGBbig = static_cast<uint8_t*>(std::malloc(bigARGBstride * convHeight + 4));
    if (tempARGBbig == nullptr) {
        g_stemlibLogger.error(
            "convertCropScaleU8yuvToRGB: Failed allocating big tempARGB buffer: " +
            std::string(std::strerror(errno)));
        return false;
    }
    auto* tempARGBsmall = static_cast<uint8_t*>(std::malloc(smallARGBstride * dstHeight));
    if (tempARGBsmall == nullptr) {
        g_stemlibLogger.error(
            "convertCropScaleU8yuvToRGB: Failed allocating small tempARGB buffer: " +
            std::string(std::strerror(errno)));
        std::free(tempARGBbig);
        return false;
    }

    const uint8_t* uvPlane = nv12Data + static_cast<std::size_t>(srcWidth) * srcHeight;
    int result = libyuv::NV12ToARGB(
        nv12Data + static_cast<std::size_t>(convY) * srcWidth + convX, static_cast<int>(srcWidth),
        uvPlane + static_cast<std::size_t>(convY / 2) * srcWidth + convX,
        static_cast<int>(srcWidth), tempARGBbig, static_cast<int>(bigARGBstride),
        static_cast<int>(convWidth), static_cast<int>(convHeight));
    if (result != 0) {
        g_stemlibLogger.error("convertCropScaleU8yuvToRGB: Failed NV12ToARGB(), result=" +
                              std::to_string(result));
        std::free(tempARGBbig);
        std::free(tempARGBsmall);
        return false;
    }

    const uint8_t* bigARGBcrop =
        tempARGBbig + bigARGBstride * (clipY - convY) + static_cast<std::size_t>(clipX - convX) * 4;
    result = libyuv::ARGBScale(
        bigARGBcrop, static_cast<int>(bigARGBstride), static_cast<int>(clipWidth),
        static_cast<int>(clipHeight), tempARGBsmall, static_cast<int>(smallARGBstride),
        static_cast<int>(dstWidth), static_cast<int>(dstHeight), libyuv::kFilterBilinear);
    if (result != 0) {
        g_stemlibLogger.error("convertCropScaleU8yuvToRGB: Failed ARGBScale(), result=" +
                              std::to_string(result));
        std::free(tempARGBbig);
        std::free(tempARGBsmall);
        return false;
    }

    ARGBtoRAW(tempARGBsmall, rgbData, dstWidth, dstHeight);
    std::free(tempARGBbig);
    std::free(tempARGBsmall);
    return true;
}

} // namespace Ombrel
