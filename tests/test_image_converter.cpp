#include "ImageTestUtils.h"
#include "imgconverter.h"

#include <gtest/gtest.h>
#include <libyuv/convert_argb.h>
#include <libyuv/convert_from_argb.h>
#include <libyuv/scale_argb.h>

#include <vector>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

// The chroma of a saturated red in the camera's limited-range BT.601 NV12.
constexpr int kRedY = 81;
constexpr int kRedU = 90;
constexpr int kRedV = 240;

// The three steps written out on the whole frame with libyuv: the reference for the crop and
// scale conversion, which converts only the part that it keeps.
std::vector<uint8_t> referenceCropScale(const std::vector<uint8_t>& nv12, int srcW, int srcH,
                                        int dstW, int dstH, int clipX, int clipY, int clipW,
                                        int clipH) {
    std::vector<uint8_t> big(static_cast<std::size_t>(srcW) * srcH * 4);
    std::vector<uint8_t> small(static_cast<std::size_t>(dstW) * dstH * 4);
    std::vector<uint8_t> rgb(static_cast<std::size_t>(dstW) * dstH * 3);
    libyuv::NV12ToARGB(nv12.data(), srcW, nv12.data() + srcW * srcH, srcW, big.data(), srcW * 4,
                       srcW, srcH);
    libyuv::ARGBScale(big.data() + (static_cast<std::size_t>(clipY) * srcW + clipX) * 4, srcW * 4,
                      clipW, clipH, small.data(), dstW * 4, dstW, dstH, libyuv::kFilterBilinear);
    for (std::size_t i = 0; i < rgb.size() / 3; ++i) {
        rgb[i * 3] = small[i * 4 + 2];
        rgb[i * 3 + 1] = small[i * 4 + 1];
        rgb[i * 3 + 2] = small[i * 4];
    }
    return rgb;
}

// A frame of w by h in which every pixel has the same Y, U and V.
std::vector<uint8_t> uniformNV12(unsigned int w, unsigned int h, int y, int u, int v) {
    return makeNV12(
        w, h, [=](unsigned, unsigned) { return y; }, [=](unsigned, unsigned) { return u; },
        [=](unsigned, unsigned) { return v; });
}

// A busy test picture: luma and both chroma planes vary per pixel and per block.
std::vector<uint8_t> makeBusyNV12(unsigned int w, unsigned int h) {
    return makeNV12(
        w, h, [](unsigned x, unsigned y) { return (x * 7 + y * 13) % 220 + 16; },
        [](unsigned x, unsigned y) { return (x * 5 + y * 3) % 200 + 28; },
        [](unsigned x, unsigned y) { return (x * 11 + y * 17) % 200 + 28; });
}

} // namespace

TEST(ImageConverter, LibyuvConversionIsRedFirstWithOneChromaPairPerBlock) {
    // Left 2 by 2 block red, right block neutral grey.
    std::vector<uint8_t> nv12 = makeNV12(
        4, 2, [](unsigned x, unsigned) { return x < 2 ? kRedY : 128; },
        [](unsigned x, unsigned) { return x < 2 ? kRedU : 128; },
        [](unsigned x, unsigned) { return x < 2 ? kRedV : 128; });
    std::vector<uint8_t> rgb(4 * 2 * 3, 0);
    convertU8yuvToRGBlibYuv(4, 2, nv12.data(), rgb.data());
    for (unsigned int y = 0; y < 2; ++y) {
        for (unsigned int x = 0; x < 2; ++x) {
            const std::vector<uint8_t> red = pixelAt(rgb.data(), 4, x, y);
            EXPECT_GT(red[0], 240) << x << "," << y;
            EXPECT_LT(red[1], 15);
            EXPECT_LT(red[2], 15);
            const std::vector<uint8_t> grey = pixelAt(rgb.data(), 4, x + 2, y);
            EXPECT_EQ(grey[0], grey[1]);
            EXPECT_EQ(grey[1], grey[2]);
        }
    }
}

TEST(ImageConverter, NaiveFormulasTruncateAndWrapWithoutClamping) {
    // One 2 by 2 frame per case; all four pixels alike.
    struct Case {
        int y, u, v;
        std::vector<uint8_t> rgb;
    };
    const std::vector<Case> cases = {
        // u = v = -0.5: red -145.3 gives 0, green 124.3, blue -259.1 gives 0.
        {0, 0, 0, {0, 124, 0}},
        // u = v = 0.5: red 400.3 wraps to 144, green 130.7, blue 514.1 wraps to 2.
        {255, 255, 255, {144, 130, 2}},
        // Nearly neutral chroma (u = v = 0.5 / 255): red 100.57, green 99.51, blue 101.02.
        {100, 128, 128, {100, 99, 101}},
    };
    for (const Case& c : cases) {
        std::vector<uint8_t> nv12 = uniformNV12(2, 2, c.y, c.u, c.v);
        std::vector<uint8_t> rgb(12, 0xAA);
        convertU8yuvToRGBnaive(2, 2, nv12.data(), rgb.data());
        for (unsigned int i = 0; i < 4; ++i) {
            EXPECT_EQ(pixelAt(rgb.data(), 2, i % 2, i / 2), c.rgb) << c.y << " " << c.u;
        }
    }
}

TEST(ImageConverter, FloatConversionScalesToTheSwingAndClamps) {
    // Each channel is minV + outSwing * (the bracket before * 255), clamped to the range.
    std::vector<float> out(12, 99.0f);
    std::vector<uint8_t> dark = uniformNV12(2, 2, 0, 0, 0);
    convertU8yuvToFloat32RGB(2, 2, dark.data(), out.data(), 2.0f, 0.0f);
    EXPECT_FLOAT_EQ(out[0], -1.0f);                       // -2.14 clamped
    EXPECT_NEAR(out[1], -1.0f + 2.0f * 0.487625f, 1e-5f); // inside the range
    EXPECT_FLOAT_EQ(out[2], -1.0f);                       // clamped
    EXPECT_FLOAT_EQ(out[9], -1.0f);

    std::vector<uint8_t> bright = uniformNV12(2, 2, 255, 255, 255);
    convertU8yuvToFloat32RGB(2, 2, bright.data(), out.data(), 1.0f, 0.5f);
    EXPECT_FLOAT_EQ(out[0], 1.0f);
    EXPECT_NEAR(out[1], 0.512375f, 1e-5f);
    EXPECT_FLOAT_EQ(out[2], 1.0f);
}

TEST(ImageConverter, CropScaleCutsTheCentredRegionOfTheTargetAspectRatio) {
    // Each case against the three steps done on the whole frame with the crop given here. A
    // wider target keeps the width and cuts rows, any odd row at the bottom; a taller one keeps
    // the height and cuts columns. 1920 by 1080 to 481 by 353: clipW 1471.6, clipX 224; to 640
    // by 300: the ratio 2.1333334 in single precision makes clipH 899.99994, truncated to 899.
    struct Case {
        int srcW, srcH, dstW, dstH, clipX, clipY, clipW, clipH;
    };
    const std::vector<Case> cases = {
        {64, 48, 32, 24, 0, 0, 64, 48}, // equal aspect ratios: nothing is cut
        {1920, 1080, 481, 353, 224, 0, 1471, 1080},
        {1920, 1080, 640, 300, 0, 90, 1920, 899},
        {64, 48, 100, 37, 0, 12, 64, 23}, // 12 rows cut at the top, 13 at the bottom
        {64, 48, 50, 29, 0, 5, 64, 37},   // odd row offset, scaled down
        {64, 48, 50, 48, 7, 0, 50, 48},   // odd column offset, inside a chroma pair, no scaling
        {64, 48, 30, 32, 9, 0, 45, 48},   // odd column offset, scaled down
    };
    for (const Case& c : cases) {
        const std::vector<uint8_t> nv12 = makeBusyNV12(c.srcW, c.srcH);
        std::vector<uint8_t> rgb(static_cast<std::size_t>(c.dstW) * c.dstH * 3);
        ASSERT_TRUE(
            convertCropScaleU8yuvToRGB(nv12.data(), c.srcW, c.srcH, rgb.data(), c.dstW, c.dstH));
        EXPECT_EQ(rgb, referenceCropScale(nv12, c.srcW, c.srcH, c.dstW, c.dstH, c.clipX, c.clipY,
                                          c.clipW, c.clipH))
            << c.srcW << "x" << c.srcH << " to " << c.dstW << "x" << c.dstH;
    }
}

TEST(ImageConverter, InvalidSizesAreRefusedWithALogLine) {
    SyslogCapture capture;
    std::vector<uint8_t> nv12(6 * 4 * 3 / 2, 128);
    std::vector<uint8_t> rgb(6 * 4 * 3, 7);
    EXPECT_FALSE(convertCropScaleU8yuvToRGB(nv12.data(), 5, 4, rgb.data(), 2, 2));
    EXPECT_TRUE(hasLine(capture, "convertCropScaleU8yuvToRGB: Invalid NV12 size 5x4: width and "
                                 "height must be even, positive and at most 16384"));
    EXPECT_FALSE(convertCropScaleU8yuvToRGB(nv12.data(), 6, 4, rgb.data(), 0, 2));
    EXPECT_FALSE(convertCropScaleU8yuvToRGB(nullptr, 6, 4, rgb.data(), 2, 2));
    // A crop narrower than one pixel leaves libyuv nothing to scale.
    std::vector<uint8_t> tall(1 * 1000 * 3);
    EXPECT_FALSE(convertCropScaleU8yuvToRGB(nv12.data(), 6, 4, tall.data(), 1, 1000));
    EXPECT_TRUE(hasLine(capture, "convertCropScaleU8yuvToRGB: Failed ARGBScale(), result=-1"));

    convertU8yuvToRGBlibYuv(6, 3, nv12.data(), rgb.data());
    convertU8yuvToRGBnaive(0, 4, nv12.data(), rgb.data());
    EXPECT_EQ(countLinesStartingWith(capture, "convertU8yuvToRGBlibYuv: Invalid NV12 size 6x3"),
              1u);
    EXPECT_EQ(countLinesStartingWith(capture, "convertU8yuvToRGBnaive: Invalid NV12 size 0x4"), 1u);
    EXPECT_EQ(rgb, std::vector<uint8_t>(rgb.size(), 7));
}
