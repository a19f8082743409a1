// The camera source end to end through the host video service: the opening order and its log
// lines, getFrame's whole table of camera rotations, requested sizes and rotations, crop and
// scale, the dirty flag, and every failure row with its exact text.
#include "AxisVideoStreamSource.h"
#include "HostCameraScope.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"
#include "imgconverter.h"
#include "stemlib-host.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Ombrel;
using StemlibTest::HostCameraScope;
using StemlibTest::RecordingLogger;
using StemlibTest::ScopedLogger;

using Pixels = std::vector<uint8_t>;

std::string cameraAt(int rotation, const std::string& extra = std::string()) {
    return "root.Image.I0.Appearance.Rotation = " + std::to_string(rotation) +
           "\nchannels = 1\nchannel.1.resolutions = 640x360, 320x180\n" + extra;
}

// Frame `sequence` of the generator as a stream of w by h (before rotation) delivers it.
Pixels nv12Frame(unsigned w, unsigned h, unsigned rotation, unsigned long long sequence) {
    Pixels frame(std::size_t{w} * h * 3 / 2);
    EXPECT_EQ(
        stemlib_host_render_generator_frame(w, h, rotation, sequence, frame.data(), frame.size()),
        0);
    return frame;
}

// The same frame in RGB, whole: outW by outH is the delivered (turned) picture.
Pixels rgbFrame(unsigned w, unsigned h, unsigned rotation, unsigned long long sequence) {
    Pixels nv12 = nv12Frame(w, h, rotation, sequence);
    const bool sideways = rotation == 90 || rotation == 270;
    const unsigned outW = sideways ? h : w;
    const unsigned outH = sideways ? w : h;
    Pixels rgb(std::size_t{outW} * outH * 3);
    convertU8yuvToRGBlibYuv(outW, outH, nv12.data(), rgb.data());
    return rgb;
}

Pixels cropScaled(unsigned w, unsigned h, unsigned rotation, unsigned long long sequence,
                  unsigned dstW, unsigned dstH) {
    const Pixels nv12 = nv12Frame(w, h, rotation, sequence);
    const bool sideways = rotation == 90 || rotation == 270;
    Pixels rgb(std::size_t{dstW} * dstH * 3);
    EXPECT_TRUE(convertCropScaleU8yuvToRGB(nv12.data(), sideways ? h : w, sideways ? w : h,
                                           rgb.data(), dstW, dstH));
    return rgb;
}

// An RGB picture of cols by rows turned clockwise by quarter turns, pixels moving whole.
Pixels turned(const Pixels& source, unsigned cols, unsigned rows, int quarters) {
    Pixels result(source.size());
    for (unsigned r = 0; r < rows; ++r) {
        for (unsigned c = 0; c < cols; ++c) {
            std::size_t to = 0;
            if (quarters == 1) {
                to = std::size_t{c} * rows + (rows - 1 - r);
            } else if (quarters == 2) {
                to = std::size_t{rows - 1 - r} * cols + (cols - 1 - c);
            } else {
                to = std::size_t{cols - 1 - c} * rows + r;
            }
            for (int k = 0; k < 3; ++k) {
                result[to * 3 + k] = source[(std::size_t{r} * cols + c) * 3 + k];
            }
        }
    }
    return result;
}

Pixels take(AxisVideoStreamSource& source, unsigned w, unsigned h, int rotation) {
    Pixels out(std::size_t{w} * h * 3, 0xAB);
    EXPECT_TRUE(source.getFrame(Resolution(w, h), rotation, out.data()));
    return out;
}

std::vector<std::string> lines(const RecordingLogger& logger, const std::string& level) {
    std::vector<std::string> result;
    for (const auto& line : logger.lines) {
        if (line.level == level) {
            result.push_back(line.message);
        }
    }
    return result;
}

TEST(AxisVideoStreamSource, OpensTheStreamInOrderAndLogsEachStep) {
    HostCameraScope camera(cameraAt(0, "video.framerate = 25\n"));
    RecordingLogger logger;
    ScopedLogger scope(logger);
    {
        // A portrait resolution opens a landscape stream.
        AxisVideoStreamSource source(Resolution(180, 320));
        EXPECT_EQ(source.getResolution(), Resolution(180, 320));
    }
    EXPECT_TRUE(lines(logger, "error").empty());
    EXPECT_EQ(lines(logger, "info"),
              (std::vector<std::string>{
                  "STEMLIB::setImageBufferResolution: requested frame size (172800) exceeds image "
                  "buffer size (0). Resizing image buffer.",
                  "STEMLIB::VideoStreamSource: VideoStreamSource constructor from resolution 180 "
                  "320",
                  "STEMLIB::AxisCameraManager: AxisCameraManager constructor called appName = "
                  "Stemlib",
                  "STEMLIB::AxisVideoStreamSource: AxisVideoStreamSource constructor from "
                  "resolution called with resolution (W H) = 180 320 and rotation 0",
                  "STEMLIB::AxisVideoStreamSource: Starting stream: VDO_FORMAT_YUV, 320x180, "
                  "rotation 0, 25 fps",
                  "STEMLIB::AxisVideoStreamSource: Successfully created VideoStreamSource "
                  "instance",
                  "STEMLIB::~AxisCameraManager: AxisCameraManager destructor called"}));
}

TEST(AxisVideoStreamSource, UnturnedCameraRotatesAtExactSizesAndCropsAtOthers) {
    for (int cameraRotation : {0, 180}) {
        SCOPED_TRACE(cameraRotation);
        HostCameraScope camera(cameraAt(cameraRotation));
        AxisVideoStreamSource source(Resolution(320, 180));
        const unsigned r = static_cast<unsigned>(cameraRotation);
        unsigned long long n = 0;

        // The stream's own size: the whole frame, also left in the image buffer.
        const Pixels straight = rgbFrame(320, 180, r, n);
        EXPECT_EQ(take(source, 320, 180, 0), straight);
        EXPECT_TRUE(std::equal(straight.begin(), straight.end(), source.getImageData()));
        ++n;
        EXPECT_EQ(take(source, 320, 180, 180), turned(rgbFrame(320, 180, r, n), 320, 180, 2));
        ++n;
        EXPECT_EQ(take(source, 180, 320, 90), turned(rgbFrame(320, 180, r, n), 320, 180, 1));
        ++n;
        EXPECT_EQ(take(source, 180, 320, 270), turned(rgbFrame(320, 180, r, n), 320, 180, 3));
        ++n;
        // A quarter turn at the straight size, and any other size: crop and scale, unrotated,
        // and the image buffer keeps the last exact-size frame.
        const Pixels held(source.getImageData(), source.getImageData() + 320 * 180 * 3);
        EXPECT_EQ(take(source, 320, 180, 90), cropScaled(320, 180, r, n, 320, 180));
        ++n;
        EXPECT_EQ(take(source, 180, 320, 0), cropScaled(320, 180, r, n, 180, 320));
        ++n;
        EXPECT_EQ(take(source, 481, 353, 0), cropScaled(320, 180, r, n, 481, 353));
        ++n;
        EXPECT_EQ(take(source, 640, 360, 0), cropScaled(320, 180, r, n, 640, 360));
        EXPECT_TRUE(std::equal(held.begin(), held.end(), source.getImageData()));
    }
}

TEST(AxisVideoStreamSource, TurnedCameraDeliversPortraitPicturesByTheTable) {
    for (int cameraRotation : {90, 270}) {
        SCOPED_TRACE(cameraRotation);
        HostCameraScope camera(cameraAt(cameraRotation));
        AxisVideoStreamSource source(Resolution(320, 180));
        const unsigned r = static_cast<unsigned>(cameraRotation);
        unsigned long long n = 0;

        // The picture in the buffer is 180 wide and 320 tall; rotate0 hands it out as it is.
        const Pixels portrait = rgbFrame(320, 180, r, n);
        EXPECT_EQ(take(source, 320, 180, 0), portrait);
        EXPECT_TRUE(std::equal(portrait.begin(), portrait.end(), source.getImageData()));
        ++n;
        EXPECT_EQ(take(source, 320, 180, 90), turned(rgbFrame(320, 180, r, n), 180, 320, 1));
        ++n;
        EXPECT_EQ(take(source, 320, 180, 270), turned(rgbFrame(320, 180, r, n), 180, 320, 3));
        ++n;
        // The half turn is tested at the transposed size, as the table has it.
        EXPECT_EQ(take(source, 180, 320, 180), turned(rgbFrame(320, 180, r, n), 180, 320, 2));
        ++n;
        EXPECT_EQ(take(source, 320, 180, 180), cropScaled(320, 180, r, n, 320, 180));
        ++n;
        EXPECT_EQ(take(source, 180, 320, 0), cropScaled(320, 180, r, n, 180, 320));
        ++n;
        EXPECT_EQ(take(source, 160, 90, 90), cropScaled(320, 180, r, n, 160, 90));

        // toCVMat keeps the shape of the resolution, and exchanges the colours in place.
        const cv::Mat first = source.toCVMat();
        EXPECT_EQ(first.rows, 180);
        EXPECT_EQ(first.cols, 320);
        const cv::Mat second = source.toCVMat();
        EXPECT_EQ(first.at<cv::Vec3b>(0, 0)[0], second.at<cv::Vec3b>(0, 0)[2]);
    }
}

TEST(AxisVideoStreamSource, DirtyFlagHoldsTheFrameWhileBuffersAreStillUsedUp) {
    HostCameraScope camera(cameraAt(0));
    AxisVideoStreamSource source(Resolution(320, 180));
    EXPECT_EQ(take(source, 320, 180, 0), rgbFrame(320, 180, 0, 0));
    source.setIsDirty(false);
    // The held frame at the exact size, though frame 1 was taken from the camera.
    EXPECT_EQ(take(source, 320, 180, 0), rgbFrame(320, 180, 0, 0));
    // Another size converts the fresh buffer.
    EXPECT_EQ(take(source, 160, 90, 0), cropScaled(320, 180, 0, 2, 160, 90));
    // No camera call at all.
    EXPECT_TRUE(source.loadFrameFromCamera());
    source.setIsDirty(true);
    EXPECT_TRUE(source.loadFrameFromCamera());
    const Pixels third = rgbFrame(320, 180, 0, 3);
    EXPECT_TRUE(std::equal(third.begin(), third.end(), source.getImageData()));
    EXPECT_EQ(take(source, 320, 180, 0), rgbFrame(320, 180, 0, 4));

    // Several sources at once, each on its own stream.
    AxisVideoStreamSource other(Resolution(640, 360));
    EXPECT_EQ(take(other, 640, 360, 0), rgbFrame(640, 360, 0, 0));
    EXPECT_EQ(take(source, 320, 180, 0), rgbFrame(320, 180, 0, 5));
}

TEST(AxisVideoStreamSource, NullFramePointersAreLoggedNotFollowed) {
    HostCameraScope camera(cameraAt(0));
    AxisVideoStreamSource source(Resolution(320, 180));
    RecordingLogger logger;
    ScopedLogger scope(logger);
    source.setIsDirty(false);
    source.loadImageData(nullptr);
    EXPECT_FALSE(source.getFrame(Resolution(320, 180), 0, nullptr));
    EXPECT_EQ(
        lines(logger, "error"),
        (std::vector<std::string>{"STEMLIB::loadImageData: Input YUV image data pointer is null",
                                  "STEMLIB::getFrame: output pointer pOutputPixels is null"}));
    // No buffer was used up by the refused call.
    source.setIsDirty(true);
    EXPECT_EQ(take(source, 320, 180, 0), rgbFrame(320, 180, 0, 0));
}

// The exception text of a constructor that fails at `call` with `message`. Nothing of the video
// service is left behind.
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
    const std::vector<std::string> errors = lines(logger, "error");
    EXPECT_FALSE(errors.empty());
    if (!errors.empty()) {
        EXPECT_EQ(errors.back(), "STEMLIB::AxisVideoStreamSource: " + what);
    }
    logger.lines.clear();
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
                  (std::vector<std::string>{"STEMLIB::AxisVideoStreamSource: Failed to attach "
                                            "retrieve VDO stream settings. no settings"}));
        EXPECT_EQ(take(source, 320, 180, 0), rgbFrame(320, 180, 0, 0));
    }
    logger.lines.clear();
    // ... and a later start failure is written behind it.
    stemlib_host_set_failure("vdo_stream_start", "sensor offline");
    EXPECT_EQ(constructionError("vdo_stream_get_settings", "s", logger),
              "Failed to attach retrieve VDO stream settings. sFailed to start VDO stream. sensor "
              "offline");

    // A camera rotation that is no number passes std::stoi's exception on.
    camera.reload("root.Image.I0.Appearance.Rotation = sideways\nchannels = 1\n"
                  "channel.1.resolutions = 320x180\n");
    EXPECT_THROW(AxisVideoStreamSource(Resolution(320, 180)), std::invalid_argument);
    // The video service refuses what the camera cannot serve.
    camera.reload(cameraAt(0));
    EXPECT_THROW(AxisVideoStreamSource(Resolution(1920, 1080)), std::runtime_error);
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
    AxisVideoStreamSource source(Resolution(320, 180));
    logger.lines.clear();
    Pixels out(320 * 180 * 3);

    stemlib_host_set_failure("vdo_stream_get_buffer", "no frame");
    EXPECT_FALSE(source.getFrame(Resolution(320, 180), 0, out.data()));
    EXPECT_FALSE(source.loadFrameFromCamera());
    stemlib_host_clear_failures();
    stemlib_host_set_failure("vdo_stream_buffer_unref", "queue full");
    EXPECT_FALSE(source.getFrame(Resolution(320, 180), 0, out.data()));
    EXPECT_FALSE(source.loadFrameFromCamera());
    stemlib_host_clear_failures();
    EXPECT_EQ(
        lines(logger, "error"),
        (std::vector<std::string>{
            "STEMLIB::getFrame: Failed to get VDO buffer. no frame",
            "STEMLIB::loadFrameFromCamera: Failed to get VDO buffer. no frame",
            "STEMLIB::getFrame: Failed to release VDO stream buffer: queue full",
            "STEMLIB::loadFrameFromCamera: Failed to release VDO stream buffer: queue full"}));
}

TEST(AxisVideoStreamSource, ConversionFailuresKeepTheCameraBuffer) {
    HostCameraScope camera(cameraAt(0));
    RecordingLogger logger;
    ScopedLogger scope(logger);
    // Three buffers in the ring: each failed conversion keeps one.
    AxisVideoStreamSource source(Resolution(320, 180));
    ThrowingSource throwing(Resolution(320, 180));
    logger.lines.clear();
    Pixels out(320 * 180 * 3);
    EXPECT_FALSE(source.getFrame(Resolution(0, 0), 0, out.data()));
    EXPECT_FALSE(throwing.getFrame(Resolution(320, 180), 0, out.data()));
    std::vector<std::string> errors = lines(logger, "error");
    ASSERT_GE(errors.size(), 2U);
    EXPECT_EQ(errors[errors.size() - 2], "STEMLIB::getFrame: convertCropScaleU8yuvToRGB failed to "
                                         "convert YUV data to RGB data.");
    EXPECT_EQ(errors.back(),
              "STEMLIB::getFrame: Unexpected error while converting YUV data to RGB.");
    EXPECT_TRUE(source.getFrame(Resolution(320, 180), 0, out.data()));
    EXPECT_FALSE(source.getFrame(Resolution(320, 0), 0, out.data()));
    EXPECT_FALSE(source.getFrame(Resolution(0, 180), 0, out.data()));
    logger.lines.clear();
    EXPECT_FALSE(source.getFrame(Resolution(320, 180), 0, out.data()));
    errors = lines(logger, "error");
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_NE(errors[0].find("STEMLIB::getFrame: Failed to get VDO buffer. all 3 buffers"),
              std::string::npos)
        << errors[0];
}

} // namespace
