// Where the camera's processor (AArch64) and the PC's (x86-64) could part ways: plain char is
// unsigned on one and signed on the other, AArch64 compilers fuse multiplies and adds unless told
// not to (the library is built with -ffp-contract=off for that), and libyuv takes NEON paths on
// the camera and SSE/AVX paths on the PC. The suite runs on both (the arm64 build under
// emulation); these cases pin the answers that must not differ.
//
// This file is compiled as an application built with the compiler's defaults would be
// (-ffp-contract=fast, see CMakeLists.txt): the library's inline arithmetic must hold there too.
#include "ArchiveRecord.h"
#include "CameraManager.h"
#include "CommonStructs.h"
#include "HostCameraScope.h"
#include "Logger.h"
#include "PerspectiveMath.h"
#include "Polygons.h"
#include "imgconverter.h"

#include "ImageTestUtils.h"

#include <gtest/gtest.h>
#include <libyuv/cpu_id.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <vector>

using namespace Ombrel;

namespace {

// A busy picture: luma and both chroma planes vary per pixel and per block.
std::vector<uint8_t> busyNV12(unsigned int w, unsigned int h) {
    return StemlibTest::makeNV12(
        w, h, [](unsigned x, unsigned y) { return (x * 7 + y * 13) % 220 + 16; },
        [](unsigned x, unsigned y) { return (x * 5 + y * 3) % 200 + 28; },
        [](unsigned x, unsigned y) { return (x * 11 + y * 17) % 200 + 28; });
}

int largestDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    int largest = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        largest = std::max(largest, std::abs(static_cast<int>(a[i]) - static_cast<int>(b[i])));
    }
    return largest;
}

// libyuv with every processor-specific path turned off for the scope's lifetime.
class PlainLibyuv {
public:
    PlainLibyuv() { libyuv::MaskCpuFlags(1); }
    ~PlainLibyuv() { libyuv::MaskCpuFlags(-1); }
    PlainLibyuv(const PlainLibyuv&) = delete;
    PlainLibyuv& operator=(const PlainLibyuv&) = delete;
};

} // namespace

TEST(ProcessorDifferences, AreaEdgesAndDistancesHoldWhereCompilersFuseMultiplyAdds) {
    // (0, 0) lies exactly on the edge between (3, 0.1) and (-3, -0.1): the edge's two products
    // are the same single-precision product, so the edge does not count in either direction. A
    // fused multiply-add keeps one product exact and counts it in one of the two directions.
    const float tenth = 0.1f;
    const FPolygon forward(3.0f, tenth, -3.0f, -tenth, -3.0f, 10.0f);
    const FPolygon backward(-3.0f, -tenth, 3.0f, tenth, -3.0f, 10.0f);
    EXPECT_EQ(forward.getWindingNumber(FPoint(0.0f, 0.0f)), 0);
    EXPECT_EQ(backward.getWindingNumber(FPoint(0.0f, 0.0f)), 0);
    EXPECT_FALSE(backward.contains(FPoint(0.0f, 0.0f)));
    EXPECT_EQ(backward.getWindingNumber(FPoint(-1.0f, 1.0f)), 1);

    // Squares and sum rounded each: 0.74 and 0.53 give 0.910219789, a fused square 0.910219729.
    EXPECT_EQ(FPoint(0.74f, 0.53f).distance(FPoint(0.0f, 0.0f)), 0.910219789f);
    EXPECT_EQ(FPoint(1.48f, 1.06f).distance(FPoint(0.0f, 0.0f)), 1.82043958f);
}

TEST(ProcessorDifferences, FloorCalibrationGivesTheSameBitsWhereCompilersFuseMultiplyAdds) {
    // A chessboard seen by a tilted camera, mapped onto a 4 m by 3 m floor rectangle: the matrix
    // and the floor points must be bit for bit those of single-precision steps grouped as
    // written, which the camera's compilers give only without fused multiply-adds (fused, seven
    // of the nine elements move, one by 56 units in the last place, and floor points by up to a
    // micrometre).
    const Quad image(123.4f, 456.7f, 987.6f, 432.1f, 1100.3f, 700.9f, 50.2f, 720.8f);
    const Quad floor(0.0f, 0.0f, 4.0f, 0.0f, 4.0f, 3.0f, 0.0f, 3.0f);
    const Matrix3x3 transform = CreatePerspectiveTransformMatrix(image, floor);
    const std::uint32_t expected[9] = {0x3b82433d, 0x3a906b30, 0xbf7e66c8, 0x39aae095, 0x3c3b9763,
                                       0xc0a89df5, 0x384db268, 0x3a300cc8, 0x3f037278};
    for (int i = 0; i < 9; ++i) {
        const float element = transform(i / 3, i % 3);
        std::uint32_t bits = 0;
        std::memcpy(&bits, &element, sizeof(bits));
        EXPECT_EQ(bits, expected[i]) << "element " << i;
    }
    const Vector3 centre = ApplyTransform(transform, 640.5f, 600.25f);
    EXPECT_EQ(centre(0), 2.33525014f);
    EXPECT_EQ(centre(1), 1.91155267f);
    EXPECT_EQ(centre(2), 1.0f);
    const Vector3 left = ApplyTransform(transform, 200.1f, 700.3f);
    EXPECT_EQ(left(0), 0.577013493f);
    EXPECT_EQ(left(1), 2.83230853f);
    EXPECT_EQ(transform.determinant(), 3.730971e-05f);
}

TEST(ProcessorDifferences, BytesAboveSevenBitsReadAlikeWhetherCharIsSignedOrNot) {
    // Words of other languages and damaged files bring bytes of 0x80 and above, which a signed
    // char makes negative. Every reader that takes any bytes must keep them and decide alike.
    const std::string name = "C\xc3\xa4mera S\xc3\xbc"
                             "d\xc2\xa0\xff";

    LogEntry entry;
    entry.deserialize("2025-03-01 12:00:00|app\xe9|warning|" + name);
    EXPECT_EQ(entry._appName, "app\xe9");
    EXPECT_EQ(entry._message, name);

    // The separator of a resolution is one character of any kind, a Latin-1 multiplication sign
    // too.
    Resolution resolution;
    std::istringstream("640\xd7"
                       "480") >>
        resolution;
    EXPECT_EQ(resolution, Resolution(640, 480));

    EXPECT_EQ(ArchiveRecord::stringToFields("\xff,\x80x,"),
              (std::vector<std::string>{"\xff", "\x80x", ""}));
    CrowdCountRecord record;
    EXPECT_THROW(record.deserialize("2025-03-01 12:00:05,\xa0"
                                    "1,0,7"),
                 std::invalid_argument);

    // The host camera trims blanks around a value, and nothing else.
    const StemlibTest::HostCameraScope camera("root.Brand.ProdFullName = \t" + name + " \n");
    EXPECT_EQ(AxisCameraManager("test").getCameraName(), name);
}

TEST(ProcessorDifferences, LibyuvProcessorPathsGiveThePlainPathsBytes) {
    // The camera converts with libyuv's NEON code, the PC with its SSE and AVX code; both must
    // give libyuv's plain C code's bytes, on the camera's NV12 frame at the exact size and
    // cropped and scaled to two detector inputs, so that a detector sees the same frame on both.
#if defined(__aarch64__)
    ASSERT_TRUE(libyuv::TestCpuFlag(libyuv::kCpuHasNEON));
#endif
    const unsigned int w = 640;
    const unsigned int h = 360;
    const std::vector<uint8_t> nv12 = busyNV12(w, h);
    struct Size {
        unsigned int w;
        unsigned int h;
    };
    const std::vector<Size> scaled = {{481, 353}, {300, 300}};

    std::vector<uint8_t> fastExact(w * h * 3);
    convertU8yuvToRGBlibYuv(w, h, const_cast<uint8_t*>(nv12.data()), fastExact.data());
    std::vector<std::vector<uint8_t>> fastScaled;
    for (const Size& size : scaled) {
        fastScaled.emplace_back(size.w * size.h * 3);
        ASSERT_TRUE(convertCropScaleU8yuvToRGB(nv12.data(), w, h, fastScaled.back().data(), size.w,
                                               size.h));
    }

    const PlainLibyuv plain;
    std::vector<uint8_t> plainExact(w * h * 3);
    convertU8yuvToRGBlibYuv(w, h, const_cast<uint8_t*>(nv12.data()), plainExact.data());
    EXPECT_EQ(largestDifference(fastExact, plainExact), 0);
    for (std::size_t i = 0; i < scaled.size(); ++i) {
        std::vector<uint8_t> plainScaled(scaled[i].w * scaled[i].h * 3);
        ASSERT_TRUE(convertCropScaleU8yuvToRGB(nv12.data(), w, h, plainScaled.data(), scaled[i].w,
                                               scaled[i].h));
        EXPECT_EQ(largestDifference(fastScaled[i], plainScaled), 0)
            << scaled[i].w << "x" << scaled[i].h;
    }
}
