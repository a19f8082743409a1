// The camera source end to end through the host video service: the opening order and its log
// lines, getFrame's whole table of camera rotations, requested sizes and rotations, crop and
// scale, the dirty flag, and every failure row with its exact text.
#include "AxisVideoStreamSource.h"
#include "HostCameraScope.h"
#include "LogLines.h"
#include "ScopedLogger.h"
#include "imgconverter.h"
#include "stemlib-host.h"

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Ombrel;
using StemlibTest::HostCameraScope;
using StemlibTest::RecordingLogger;
using StemlibTest::ScopedLogger;
using Lines = std::vector<std::string>;
using Pixels = std::vector<uint8_t>;

std::string cameraAt(int rotation, const std::string& extra = std::string()) {
    return "root.Image.I0.Appearance.Rotation = " + std::to_string(rotation) +
           "\nchannels = 1\nchannel.1.resolutions = 640x360, 320x180\n" + extra;
}

// What a source opened at 320x180 on a camera at `rotation` must give for camera frame
// `sequence` at rw by rh: the delivered picture (turned by the camera) converted whole and turned
// clockwise by `quarters`, or, for quarters -1, cropped and scaled.
Pixels expected(unsigned rotation, unsigned long long sequence, unsigned rw, unsigned rh,
                int quarters) {
    const unsigned w = rotation % 180 == 0 ? 320 : 180;
    const unsigned h = 320 * 180 / w;
    Pixels nv12 = StemlibTest::generatorFrame(320, 180, rotation, sequence);
    Pixels rgb(std::size_t{rw} * rh * 3);
    if (quarters < 0) {
        EXPECT_TRUE(convertCropScaleU8yuvToRGB(nv12.data(), w, h, rgb.data(), rw, rh));
        return rgb;
    }
    cv::Mat whole(static_cast<int>(h), static_cast<int>(w), CV_8UC3);
    convertU8yuvToRGBlibYuv(w, h, nv12.data(), whole.data);
    for (int turn = 0; turn < quarters; ++turn) {
        cv::rotate(whole, whole, cv::ROTATE_90_CLOCKWISE);
    }
    return Pixels(whole.data, whole.data + whole.total() * 3);
}

Pixels take(AxisVideoStreamSource& source, unsigned w, unsigned h, int rotation) {
    Pixels out(std::size_t{w} * h * 3, 0xAB);
    EXPECT_TRUE(source.getFrame(Resolution(w, h), rotation, out.data()));
    return out;
}

Pixels imageBuffer(const AxisVideoStreamSource& source) {
    return Pixels(source.getImageData(), source.getImageData() + 320 * 180 * 3);
}

// The lines logged at level, in order; the log is emptied.
Lines lines(RecordingLogger& logger, const std::string& level) {
    Lines result = StemlibTest::linesAt(logger, level);
    logger.lines.clear();
    return result;
}

TEST(AxisVideoStreamSource, OpensTheStreamInOrderAndLogsEachStep) {
    HostCameraScope camera(cameraAt(0, "video.framerate = 25\n"));
    RecordingLogger logger;
    ScopedLogger scope(logger);
    // A portrait resolution opens a landscape stream.
    { AxisVideoStreamSource source(Resolution(180, 320)); }
    EXPECT_EQ(logger.lines.size(), 7U);
    EXPECT_EQ(lines(logger, "info"),
              (Lines{"setImageBufferResolution: requested frame size (172800) exceeds image "
                     "buffer size (0). Resizing image buffer.",
                     "VideoStreamSource: VideoStreamSource constructor from resolution 180 320",
                     "AxisCameraManager: AxisCameraManager constructor called appName = Stemlib",
                     "AxisVideoStreamSource: AxisVideoStreamSource constructor from resolution "
                     "called with resolution (W H) = 180 320 and rotation 0",
                     "AxisVideoStreamSource: Starting stream: VDO_FORMAT_YUV, 320x180, rotation 0, "
                     "25 fps",
                     "AxisVideoStreamSource: Successfully created VideoStreamSource instance",
                     "~AxisCameraManager: AxisCameraManager destructor called"}));
}

TEST(AxisVideoStreamSource, DeliversEachRowOfTheTableOfRotationsAndSizes) {
    struct Row {
        unsigned rw;
        unsigned rh;
        int rotation;
        int quarters; // -1: crop and scale, rotation ignored, image buffer untouched
    };
    // The camera's rotation at 0 or 180: the buffer holds 320 by 180.
    const std::vector<Row> unturned = {{320, 180, 0, 0},   {320, 180, 180, 2}, {180, 320, 90, 1},
                                       {180, 320, 270, 3}, {320, 180, 90, -1}, {180, 320, 0, -1},
                                       {481, 353, 0, -1},  {1920, 1080, 0, -1}};
    // At 90 or 270 the buffer holds 180 by 320, and the half turn is tested at the transposed
    // size, as the table has it.
    const std::vector<Row> turned = {{320, 180, 0, 0},   {320, 180, 90, 1},   {320, 180, 270, 3},
                                     {180, 320, 180, 2}, {320, 180, 180, -1}, {180, 320, 0, -1},
                                     {160, 90, 90, -1}};
    for (unsigned r : {0U, 90U, 180U, 270U}) {
        HostCameraScope camera(cameraAt(static_cast<int>(r)));
        AxisVideoStreamSource source(Resolution(320, 180));
        unsigned long long n = 0;
        Pixels held;
        for (const Row& row : r % 180 == 0 ? unturned : turned) {
            SCOPED_TRACE(std::to_string(r) + ": " + std::to_string(row.rw) + "x" +
                         std::to_string(row.rh) + " at " + std::to_string(row.rotation));
            EXPECT_EQ(take(source, row.rw, row.rh, row.rotation),
                      expected(r, n, row.rw, row.rh, row.quarters));
            // The exact-size rows leave the whole frame in the image buffer; the others leave it.
            if (row.quarters >= 0) {
                held = expected(r, n, r % 180 == 0 ? 320 : 180, r % 180 == 0 ? 180 : 320, 0);
            }
            EXPECT_EQ(imageBuffer(source), held);
            ++n;
        }
        // toCVMat keeps the shape of the resolution, also for a turned camera.
        EXPECT_EQ(source.toCVMat().size(), cv::Size(320, 180));
    }
}

TEST(AxisVideoStreamSource, DirtyFlagHoldsTheFrameWhileBuffersAreStillUsedUp) {
    HostCameraScope camera(cameraAt(0));
    AxisVideoStreamSource source(Resolution(320, 180));
    EXPECT_EQ(take(source, 320, 180, 0), expected(0, 0, 320, 180, 0));
    source.setIsDirty(false);
    // The held frame at the exact size, though frame 1 was taken from the camera.
    EXPECT_EQ(take(source, 320, 180, 0), expected(0, 0, 320, 180, 0));
    // Another size converts the fresh buffer.
    EXPECT_EQ(take(source, 160, 90, 0), expected(0, 2, 160, 90, -1));
    // No camera call at all.
    EXPECT_TRUE(source.loadFrameFromCamera());
    source.setIsDirty(true);
    EXPECT_TRUE(source.loadFrameFromCamera());
    EXPECT_EQ(imageBuffer(source), expected(0, 3, 320, 180, 0));
}

// The exception text of a constructor that fails at `call` with `message`. The logged line
// carries the same text, and nothing of the video service is left behind.
std::string constructionError(const std::string& call, const std::string& message,
                              RecordingLogger& logger) {
    const long streams = stemlib_host_live_objects("VdoStream");
    const long maps = stemlib_host_live_objects("VdoMap");
    stemlib_host_set_failure(call.c_str(), message.c_str());
    std::string what;
    try {
        AxisVideoStreamSource source(Resolution(320, 180));
        ADD_FAILURE() << "constructed despite a failing " << call;
    } catch (const std::runtime_error& e) {
        what = e.what();
    }
    stemlib_host_clear_failures();
    const Lines errors = lines(logger, "error");
    EXPECT_EQ(errors.empty() ? "" : errors.back(), "AxisVideoStreamSource: " + what);
    EXPECT_EQ(stemlib_host_live_objects("VdoStream"), streams) << call;
    EXPECT_EQ(stemlib_host_live_objects("VdoMap"), maps) << call;
    return what;
}

TEST(AxisVideoStreamSource, ConstructionFailuresOverwriteTheErrorText) {
    HostCameraScope camera(cameraAt(0));
    RecordingLogger logger;
    ScopedLogger scope(logger);
    // A sentence shorter than "AxisVideoStreamSource::AxisVideoStreamSource error :" keeps the
    // rest of that text as its tail; a longer one covers it.
    EXPECT_EQ(constructionError("vdo_stream_new", "x", logger),
              "Failed to create new VDO stream from settings. xor :");
    EXPECT_EQ(constructionError("vdo_stream_new", "no video service", logger),
              "Failed to create new VDO stream from settings. no video service");
    EXPECT_EQ(constructionError("vdo_stream_attach", "busy", logger),
              "Failed to attach VDO stream to stream. busye error :");
    EXPECT_EQ(constructionError("vdo_stream_start", "down", logger),
              "Failed to start VDO stream. downStreamSource error :");

    // The settings failure alone is only logged, and the source works.
    stemlib_host_set_failure("vdo_stream_get_settings", "no settings");
    {
        AxisVideoStreamSource source(Resolution(320, 180));
        EXPECT_EQ(lines(logger, "error"),
                  (Lines{"AxisVideoStreamSource: Failed to attach retrieve VDO stream settings. "
                         "no settings"}));
        EXPECT_EQ(take(source, 320, 180, 0), expected(0, 0, 320, 180, 0));
    }
    // ... and a later start failure is written behind it.
    stemlib_host_set_failure("vdo_stream_start", "sensor offline");
    EXPECT_EQ(constructionError("vdo_stream_get_settings", "s", logger),
              "Failed to attach retrieve VDO stream settings. sFailed to start VDO stream. sensor "
              "offline");

    // A camera rotation that is no number passes std::stoi's exception on.
    camera.reload(cameraAt(0) + "root.Image.I0.Appearance.Rotation = sideways\n");
    EXPECT_THROW(AxisVideoStreamSource(Resolution(320, 180)), std::invalid_argument);
}

TEST(AxisVideoStreamSource, RefusalsForSizeNameTheirRealCause) {
    HostCameraScope camera(cameraAt(0, "video.memory_limit_mib = 1\n"));
    RecordingLogger logger;
    ScopedLogger scope(logger);
    const long streams = stemlib_host_live_objects("VdoStream");
    const long maps = stemlib_host_live_objects("VdoMap");
    auto refusal = [&](const Resolution& resolution) {
        std::string what;
        try {
            AxisVideoStreamSource source(resolution);
            ADD_FAILURE() << "constructed at " << resolution.toString();
        } catch (const std::runtime_error& e) {
            what = e.what();
        }
        const Lines errors = lines(logger, "error");
        EXPECT_EQ(errors.empty() ? "" : errors.back(), "AxisVideoStreamSource: " + what);
        return what;
    };
    // An image buffer that cannot count the frame's bytes: the stream is never asked for the
    // 0x0 that the base is left with.
    EXPECT_EQ(refusal(Resolution(65534, 65534)),
              "Image of 65534x65534 is too large: 12884115468 bytes of RGB, more than an image "
              "buffer can hold (4294967295)");
    // A stream beyond the camera's memory limit: the service's sizes reach the exception.
    EXPECT_EQ(refusal(Resolution(640, 360)),
              "Failed to create new VDO stream from settings. a stream of 640x360 with 3 buffers "
              "needs 1.4 MiB (1.0 MiB for its buffers and 0.4 MiB for its generator), more than "
              "the 1 MiB that the camera's video.memory_limit_mib allows a stream");
    EXPECT_EQ(stemlib_host_live_objects("VdoStream"), streams);
    EXPECT_EQ(stemlib_host_live_objects("VdoMap"), maps);
}

// Throws from loadImageData, as the exception row of getFrame describes.
class ThrowingSource : public AxisVideoStreamSource {
public:
    using AxisVideoStreamSource::AxisVideoStreamSource;
    void loadImageData(uint8_t*) override { throw std::runtime_error("conversion exploded"); }
};

TEST(AxisVideoStreamSource, FrameFailuresAreLoggedAndReturnFalse) {
    HostCameraScope camera(cameraAt(0));
    RecordingLogger logger;
    ScopedLogger scope(logger);
    // Three buffers in each ring.
    AxisVideoStreamSource source(Resolution(320, 180));
    ThrowingSource throwing(Resolution(320, 180));
    logger.lines.clear();
    Pixels out(320 * 180 * 3);

    // Null pointers are logged, not followed, and use up no buffer.
    source.setIsDirty(false);
    source.loadImageData(nullptr);
    source.setIsDirty(true);
    EXPECT_FALSE(source.getFrame(Resolution(320, 180), 0, nullptr));
    stemlib_host_set_failure("vdo_stream_get_buffer", "no frame");
    EXPECT_FALSE(source.getFrame(Resolution(320, 180), 0, out.data()));
    EXPECT_FALSE(source.loadFrameFromCamera());
    stemlib_host_set_failure("vdo_stream_get_buffer", nullptr);
    stemlib_host_set_failure("vdo_stream_buffer_unref", "queue full");
    EXPECT_FALSE(source.getFrame(Resolution(320, 180), 0, out.data()));
    EXPECT_FALSE(source.loadFrameFromCamera());
    stemlib_host_clear_failures();
    // A failed conversion, and an exception on the way, keep the camera buffer.
    EXPECT_FALSE(source.getFrame(Resolution(0, 0), 0, out.data()));
    EXPECT_FALSE(throwing.getFrame(Resolution(320, 180), 0, out.data()));
    Lines errors = lines(logger, "error");
    ASSERT_EQ(errors.size(), 9U);
    errors.erase(errors.begin() + 6); // the converter's own line
    EXPECT_EQ(errors,
              (Lines{"loadImageData: Input YUV image data pointer is null",
                     "getFrame: output pointer pOutputPixels is null",
                     "getFrame: Failed to get VDO buffer. no frame",
                     "loadFrameFromCamera: Failed to get VDO buffer. no frame",
                     "getFrame: Failed to release VDO stream buffer: queue full",
                     "loadFrameFromCamera: Failed to release VDO stream buffer: queue full",
                     "getFrame: convertCropScaleU8yuvToRGB failed to convert YUV data to RGB data.",
                     "getFrame: Unexpected error while converting YUV data to RGB."}));
    // The two buffers not given back by unref and the one kept by the conversion are gone.
    EXPECT_FALSE(source.getFrame(Resolution(320, 180), 0, out.data()));
    errors = lines(logger, "error");
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0].rfind("getFrame: Failed to get VDO buffer. all 3 buffers", 0), 0U)
        << errors[0];
}

} // namespace
