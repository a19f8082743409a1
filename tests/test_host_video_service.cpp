// The host video service: maps, channels, streams, the ring of buffers, the generator's frames,
// file and image inputs, frame timing and fault injection.
#include "AllocationCounter.h"
#include "HostCameraScope.h"
#include "stemlib-host.h"

#include <vdo-channel.h>
#include <vdo-stream.h>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using StemlibTest::HostCameraScope;
using Bytes = std::vector<std::uint8_t>;

struct GObjectUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using GPtr = std::unique_ptr<T, GObjectUnref>;

const char* const kSmallCamera = R"(
root.Image.I0.Appearance.Rotation = 0
channels = 1, 2
channel.1.resolutions = 320x180, 640x360, 160x90
channel.2.resolutions = 800x600, 400x300
video.input = generator
)";

GPtr<VdoMap> settingsMap(guint32 width, guint32 height, guint32 rotation) {
    GPtr<VdoMap> map(vdo_map_new());
    vdo_map_set_uint32(map.get(), "format", VDO_FORMAT_YUV);
    vdo_map_set_uint32(map.get(), "width", width);
    vdo_map_set_uint32(map.get(), "height", height);
    vdo_map_set_uint32(map.get(), "rotation", rotation);
    return map;
}

// A started stream; null, with a test failure, when the service refuses it.
GPtr<VdoStream> openStream(VdoMap* settings) {
    GError* error = nullptr;
    GPtr<VdoStream> stream(vdo_stream_new(settings, nullptr, &error));
    if (stream && !vdo_stream_start(stream.get(), &error)) {
        stream.reset();
    }
    EXPECT_NE(stream, nullptr) << (error != nullptr ? error->message : "");
    g_clear_error(&error);
    return stream;
}

// The failure of a call that must fail: domain, code and a part of the message. Releases the
// error and clears the pointer.
void expectError(GError*& error, int code, const std::string& part) {
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain, VDO_ERROR);
    EXPECT_EQ(error->code, code);
    EXPECT_NE(std::string(error->message).find(part), std::string::npos) << error->message;
    g_clear_error(&error);
}

std::string newStreamError(VdoMap* settings, int code, const std::string& part) {
    GError* error = nullptr;
    GPtr<VdoStream> stream(vdo_stream_new(settings, nullptr, &error));
    EXPECT_EQ(stream, nullptr);
    const std::string message = error != nullptr ? error->message : "";
    expectError(error, code, part);
    return message;
}

Bytes bufferBytes(VdoBuffer* buffer) {
    const auto* data = static_cast<const std::uint8_t*>(vdo_buffer_get_data(buffer));
    return Bytes(data, data + vdo_frame_get_size(vdo_buffer_get_frame(buffer)));
}

Bytes nextFrame(VdoStream* stream, guint* sequence = nullptr) {
    GError* error = nullptr;
    VdoBuffer* buffer = vdo_stream_get_buffer(stream, &error);
    if (buffer == nullptr) {
        ADD_FAILURE() << error->message;
        g_error_free(error);
        return {};
    }
    Bytes bytes = bufferBytes(buffer);
    if (sequence != nullptr) {
        *sequence = vdo_frame_get_sequence_nbr(vdo_buffer_get_frame(buffer));
    }
    EXPECT_TRUE(vdo_stream_buffer_unref(stream, &buffer, nullptr));
    EXPECT_EQ(buffer, nullptr);
    return bytes;
}

Bytes generatorFrame(unsigned w, unsigned h, unsigned rotation, unsigned long long sequence) {
    Bytes frame(std::size_t{w} * h * 3 / 2);
    EXPECT_EQ(
        stemlib_host_render_generator_frame(w, h, rotation, sequence, frame.data(), frame.size()),
        0);
    return frame;
}

TEST(HostVdoMap, KeepsTypedValuesAndConvertsBetweenNumbers) {
    GPtr<VdoMap> map(vdo_map_new());
    vdo_map_set_uint32(map.get(), "width", 1920);
    vdo_map_set_double(map.get(), "framerate", 29.97);
    vdo_map_set_int32(map.get(), "offset", -4);
    vdo_map_set_double(map.get(), "huge", 1e12);
    vdo_map_set_string(map.get(), "image.fit", "scale");
    EXPECT_FALSE(vdo_map_contains(map.get(), "height"));
    EXPECT_EQ(vdo_map_get_uint32(map.get(), "height", 7), 7U);
    // Read as another numeric type: truncated, saturated, and negative as 0 when unsigned.
    EXPECT_EQ(vdo_map_get_uint32(map.get(), "framerate", 0), 29U);
    EXPECT_EQ(vdo_map_get_uint32(map.get(), "huge", 0), 0xFFFFFFFFU);
    EXPECT_EQ(vdo_map_get_uint32(map.get(), "offset", 9), 0U);
    // A text is no number, and a number no text.
    EXPECT_EQ(vdo_map_get_uint32(map.get(), "image.fit", 5), 5U);
    EXPECT_STREQ(vdo_map_get_string(map.get(), "width", nullptr, "none"), "none");
    EXPECT_STREQ(vdo_map_get_string(map.get(), "image.fit", nullptr, nullptr), "scale");
}

TEST(HostVdoChannel, ListsChannelsAndResolutionsFromTheDescription) {
    HostCameraScope camera(kSmallCamera);
    GError* error = nullptr;
    GList* channels = vdo_channel_get_all(&error);
    ASSERT_EQ(g_list_length(channels), 2U);
    VdoChannel* first = VDO_CHANNEL(channels->data);
    EXPECT_EQ(vdo_channel_get_id(first), 1U);
    EXPECT_EQ(vdo_channel_get_id(VDO_CHANNEL(channels->next->data)), 2U);
    // Largest first; the filter picks an aspect ratio, or the smallest and the largest.
    GPtr<VdoMap> filter(vdo_map_new());
    auto listed = [&](VdoChannel* channel) {
        std::string text;
        VdoResolutionSet* set = vdo_channel_get_resolutions(channel, filter.get(), &error);
        for (gsize i = 0; set != nullptr && i < set->count; ++i) {
            text += std::to_string(set->resolutions[i].width) + "x" +
                    std::to_string(set->resolutions[i].height) + " ";
        }
        g_free(set);
        return text;
    };
    EXPECT_EQ(listed(first), "640x360 320x180 160x90 ");
    vdo_map_set_string(filter.get(), "select", "minmax");
    EXPECT_EQ(listed(first), "640x360 160x90 ");
    vdo_map_set_string(filter.get(), "aspect_ratio", "4:3");
    EXPECT_EQ(listed(first), "");
    EXPECT_EQ(listed(VDO_CHANNEL(channels->next->data)), "800x600 400x300 ");
    g_list_free_full(channels, g_object_unref);

    EXPECT_EQ(vdo_channel_get(3, &error), nullptr);
    expectError(error, VDO_ERROR_NOT_FOUND, "channel 3 does not exist");
    camera.reload("channels = 1, 2\nchannel.1.resolutions = 640x360, 12x\n");
    GPtr<VdoChannel> one(vdo_channel_get(1, &error));
    GPtr<VdoChannel> two(vdo_channel_get(2, &error));
    ASSERT_TRUE(one && two);
    EXPECT_EQ(vdo_channel_get_resolutions(one.get(), nullptr, &error), nullptr);
    expectError(error, VDO_ERROR_FAILED, "\"12x\" is not a size");
    EXPECT_EQ(vdo_channel_get_resolutions(two.get(), nullptr, &error), nullptr);
    expectError(error, VDO_ERROR_NOT_FOUND, "no resolutions for channel 2");
    camera.reload("root.Brand.ProdShortName = No video\n");
    EXPECT_EQ(vdo_channel_get_all(&error), nullptr);
    expectError(error, VDO_ERROR_NOT_FOUND, "has no video channel");
}

TEST(HostVdoStream, DefaultCameraStreamsFullHdFramesOfTheGenerator) {
    HostCameraScope camera;
    GPtr<VdoStream> stream = openStream(nullptr);
    ASSERT_NE(stream, nullptr);
    GPtr<VdoMap> settings(vdo_stream_get_settings(stream.get(), nullptr));
    ASSERT_NE(settings, nullptr);
    const std::vector<std::pair<const char*, guint32>> expected = {
        {"channel", 1},  {"format", 3},    {"width", 1920},    {"height", 1080},
        {"rotation", 0}, {"framerate", 0}, {"buffer.count", 3}};
    for (const auto& [key, value] : expected) {
        EXPECT_EQ(vdo_map_get_uint32(settings.get(), key, 99), value) << key;
    }

    guint sequence = 99;
    const Bytes frame = nextFrame(stream.get(), &sequence);
    ASSERT_EQ(frame.size(), 1920U * 1080U * 3U / 2U);
    EXPECT_EQ(sequence, 0U);
    EXPECT_EQ(frame, generatorFrame(1920, 1080, 0, 0));
    // Facts of the documented scene at frame 0 (S = 1080, t = 8): background at the bottom-left
    // (no check, 48 * 1078 / 1080 = 47 in U), the red square at (700, 100), and the counter's last
    // digit "0" lit on its top stroke and dark in its middle.
    const std::uint8_t* uv = frame.data() + 1920 * 1080;
    EXPECT_EQ(frame[1079 * 1920 + 0], 40);
    EXPECT_EQ(uv[539 * 1920 + 0], 151);
    EXPECT_EQ(uv[539 * 1920 + 1], 152);
    EXPECT_EQ(frame[100 * 1920 + 700], 82);
    EXPECT_EQ(frame[16 * 1920 + 297], 235);
    EXPECT_EQ(frame[44 * 1920 + 312], 16);
    EXPECT_EQ(generatorFrame(1920, 1080, 0, 8)[44 * 1920 + 312], 235);
}

TEST(HostVdoStream, EveryFrameOfTheRingMatchesTheGeneratorAtEachRotation) {
    HostCameraScope camera(kSmallCamera);
    for (guint32 rotation : {0U, 90U, 180U, 270U}) {
        SCOPED_TRACE(rotation);
        // A single buffer redrawn from frame to frame: shapes crossing each other and the
        // counter's box (everything redrawn), and shapes apart (only what changes).
        GPtr<VdoMap> single = settingsMap(320, 180, rotation);
        vdo_map_set_uint32(single.get(), "buffer.count", 1);
        GPtr<VdoStream> singleStream = openStream(single.get());
        ASSERT_NE(singleStream, nullptr);
        for (guint expected = 0; expected < 120; ++expected) {
            ASSERT_EQ(nextFrame(singleStream.get()), generatorFrame(320, 180, rotation, expected))
                << expected;
        }
        GPtr<VdoMap> settings = settingsMap(640, 360, rotation);
        GPtr<VdoStream> stream = openStream(settings.get());
        ASSERT_NE(stream, nullptr);
        GPtr<VdoMap> info(vdo_stream_get_info(stream.get(), nullptr));
        const bool sideways = rotation == 90 || rotation == 270;
        EXPECT_EQ(vdo_map_get_uint32(info.get(), "width", 0), sideways ? 360U : 640U);
        EXPECT_EQ(vdo_map_get_uint32(info.get(), "pitch", 0), sideways ? 360U : 640U);
        // More frames than buffers: later frames redraw only what moved on reused buffers.
        for (guint expected = 0; expected < 9; ++expected) {
            guint sequence = 0;
            const Bytes frame = nextFrame(stream.get(), &sequence);
            EXPECT_EQ(sequence, expected);
            ASSERT_EQ(frame, generatorFrame(640, 360, rotation, expected)) << expected;
        }
    }
}

// An NV12 frame as a blue-first picture; each U,V pair serves its whole 2 by 2 block.
cv::Mat toBgr(const Bytes& nv12, int width, int height) {
    cv::Mat bgr;
    cv::cvtColor(cv::Mat(height * 3 / 2, width, CV_8UC1, const_cast<std::uint8_t*>(nv12.data())),
                 bgr, cv::COLOR_YUV2BGR_NV12);
    return bgr;
}

TEST(HostVdoStream, RotationTurnsThePictureClockwise) {
    const cv::Mat straight = toBgr(generatorFrame(160, 90, 0, 5), 160, 90);
    const std::vector<std::pair<unsigned, cv::RotateFlags>> turns = {
        {90, cv::ROTATE_90_CLOCKWISE},
        {180, cv::ROTATE_180},
        {270, cv::ROTATE_90_COUNTERCLOCKWISE}};
    for (const auto& [rotation, flag] : turns) {
        cv::Mat expected;
        cv::rotate(straight, expected, flag);
        const cv::Mat turned =
            toBgr(generatorFrame(160, 90, rotation, 5), expected.cols, expected.rows);
        EXPECT_EQ(cv::norm(turned, expected, cv::NORM_INF), 0.0) << rotation;
    }
}

TEST(HostVdoStream, DefaultRotationIsTheCameraRotation) {
    HostCameraScope camera(std::string(kSmallCamera) + "root.Image.I0.Appearance.Rotation = 270\n");
    GPtr<VdoMap> plain(vdo_map_new());
    vdo_map_set_string(plain.get(), "resolution", "320x180");
    GPtr<VdoStream> turned = openStream(plain.get());
    ASSERT_NE(turned, nullptr);
    EXPECT_EQ(nextFrame(turned.get()), generatorFrame(320, 180, 270, 0));
}

TEST(HostVdoStream, RejectsSettingsThatTheCameraCannotServe) {
    HostCameraScope camera(kSmallCamera);
    newStreamError(settingsMap(641, 360, 0).get(), VDO_ERROR_INVALID_ARGUMENT, "must be even");
    newStreamError(settingsMap(1280, 720, 0).get(), VDO_ERROR_INVALID_ARGUMENT,
                   "exceeds the largest resolution of channel 1, 640x360");
    newStreamError(settingsMap(640, 360, 45).get(), VDO_ERROR_INVALID_ARGUMENT,
                   "rotation must be 0, 90, 180 or 270");
    // A portrait request fits the channel turned.
    GPtr<VdoMap> portrait = settingsMap(180, 320, 0);
    EXPECT_NE(openStream(portrait.get()), nullptr);

    // The format, and the ring's size, which bounds the memory of a stream.
    GPtr<VdoMap> map(vdo_map_new());
    vdo_map_set_uint32(map.get(), "format", VDO_FORMAT_H264);
    newStreamError(map.get(), VDO_ERROR_NOT_SUPPORTED, "only VDO_FORMAT_YUV");
    map.reset(vdo_map_new());
    vdo_map_set_uint32(map.get(), "buffer.count", 33);
    newStreamError(map.get(), VDO_ERROR_INVALID_ARGUMENT, "buffer.count must be from 1 to 32");

    // A frame rate so low that the next frame's due time would leave the clock's range.
    camera.reload(std::string(kSmallCamera) + "video.framerate = 1e-12\n");
    newStreamError(nullptr, VDO_ERROR_INVALID_ARGUMENT, "framerate must be 0 or from 0.001");
    camera.reload(std::string(kSmallCamera) + "video.input = file:missing.mp4\n");
    const std::string message = newStreamError(nullptr, VDO_ERROR_NO_VIDEO, "does not exist");
    EXPECT_NE(message.find(camera.folder() + "/missing.mp4"), std::string::npos) << message;
    camera.reload(std::string(kSmallCamera) + "video.input = camera\n");
    newStreamError(nullptr, VDO_ERROR_NO_VIDEO, "none of generator, file:<path>, images:<folder>");
}

TEST(HostVdoStream, RingBuffersReturnByUnrefOrByDroppingTheReference) {
    HostCameraScope camera(kSmallCamera);
    GPtr<VdoMap> settings = settingsMap(160, 90, 0);
    vdo_map_set_uint32(settings.get(), "buffer.count", 2);
    GPtr<VdoStream> stream = openStream(settings.get());
    ASSERT_NE(stream, nullptr);
    GError* error = nullptr;
    VdoBuffer* first = vdo_stream_get_buffer(stream.get(), &error);
    VdoBuffer* second = vdo_stream_get_buffer(stream.get(), &error);
    ASSERT_TRUE(first != nullptr && second != nullptr);
    EXPECT_NE(vdo_buffer_get_id(first), vdo_buffer_get_id(second));
    EXPECT_EQ(vdo_buffer_get_capacity(first), 160U * 90U * 3U / 2U);
    // The application holds the whole ring.
    EXPECT_EQ(vdo_stream_get_buffer(stream.get(), &error), nullptr);
    expectError(error, VDO_ERROR_NO_BUFFER_SPACE, "all 2 buffers");

    // Dropping the reference gives a buffer back as well.
    const guint firstId = vdo_buffer_get_id(first);
    g_object_unref(first);
    {
        g_autoptr(VdoBuffer) again = vdo_stream_get_buffer(stream.get(), &error);
        ASSERT_NE(again, nullptr);
        EXPECT_EQ(vdo_buffer_get_id(again), firstId);
        EXPECT_EQ(vdo_frame_get_sequence_nbr(vdo_buffer_get_frame(again)), 2U);
    }

    // A failed give-back leaves the buffer with the caller, who may try again.
    stemlib_host_set_failure("vdo_stream_buffer_unref", "queue full");
    VdoBuffer* kept = second;
    EXPECT_FALSE(vdo_stream_buffer_unref(stream.get(), &kept, &error));
    expectError(error, VDO_ERROR_FAILED, "queue full");
    EXPECT_EQ(kept, second);
    stemlib_host_clear_failures();
    EXPECT_TRUE(vdo_stream_buffer_unref(stream.get(), &kept, nullptr));
    EXPECT_EQ(kept, nullptr);

    // A buffer of another stream is refused.
    GPtr<VdoStream> other = openStream(settings.get());
    VdoBuffer* foreign = vdo_stream_get_buffer(other.get(), nullptr);
    ASSERT_NE(foreign, nullptr);
    EXPECT_FALSE(vdo_stream_buffer_unref(stream.get(), &foreign, &error));
    expectError(error, VDO_ERROR_INVALID_ARGUMENT, "another stream");
    EXPECT_TRUE(vdo_stream_buffer_unref(other.get(), &foreign, nullptr));

    // A buffer still held when its stream goes away stays readable until released; the service
    // frees such a buffer when it next finalizes a stream.
    const long streams = stemlib_host_live_objects("VdoStream");
    const long frames = stemlib_host_live_objects("VdoFrame");
    VdoBuffer* held = vdo_stream_get_buffer(other.get(), nullptr);
    ASSERT_NE(held, nullptr);
    other.reset();
    EXPECT_EQ(stemlib_host_live_objects("VdoFrame"), frames - 1);
    EXPECT_EQ(bufferBytes(held), generatorFrame(160, 90, 0, 1));
    g_object_unref(held);
    stream.reset();
    EXPECT_EQ(stemlib_host_live_objects("VdoStream"), streams - 2);
    EXPECT_EQ(stemlib_host_live_objects("VdoFrame"), frames - 4);
    EXPECT_EQ(stemlib_host_live_objects("VdoBuffer"), -1);
}

TEST(HostVdoStream, FramesAfterTheFirstRoundAllocateNothing) {
    HostCameraScope camera(kSmallCamera);
    GPtr<VdoMap> settings = settingsMap(640, 360, 90);
    GPtr<VdoStream> stream = openStream(settings.get());
    ASSERT_NE(stream, nullptr);
    for (int i = 0; i < 3; ++i) {
        nextFrame(stream.get());
    }
    StemlibTest::AllocationScope allocations;
    for (int i = 0; i < 20; ++i) {
        VdoBuffer* buffer = vdo_stream_get_buffer(stream.get(), nullptr);
        ASSERT_NE(buffer, nullptr);
        ASSERT_TRUE(vdo_stream_buffer_unref(stream.get(), &buffer, nullptr));
    }
    EXPECT_EQ(allocations.count(), 0U);
}

TEST(HostVdoStream, FrameRatePacesFramesAndALateCallerSkipsFrames) {
    HostCameraScope camera(kSmallCamera);
    GPtr<VdoMap> settings = settingsMap(160, 90, 0);
    vdo_map_set_double(settings.get(), "framerate", 50.0);
    GPtr<VdoStream> stream = openStream(settings.get());
    ASSERT_NE(stream, nullptr);
    const auto start = std::chrono::steady_clock::now();
    guint sequence = 0;
    for (guint expected = 0; expected < 5; ++expected) {
        nextFrame(stream.get(), &sequence);
        EXPECT_EQ(sequence, expected);
    }
    // Frame 4 is due 80 ms after the start.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(79));
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    guint late = 0;
    const Bytes frame = nextFrame(stream.get(), &late);
    EXPECT_GE(late, sequence + 3);
    // A buffer brought forward over several frames at once is still exact.
    EXPECT_EQ(frame, generatorFrame(160, 90, 0, late));
}

TEST(HostVdoStream, StopEndsAWaitAndAStoppedStreamGivesNoFrame) {
    HostCameraScope camera(std::string(kSmallCamera) + "video.framerate = 0.5\n");
    GPtr<VdoMap> settings = settingsMap(160, 90, 0);
    GError* error = nullptr;
    GPtr<VdoStream> stream(vdo_stream_new(settings.get(), nullptr, &error));
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(vdo_stream_get_buffer(stream.get(), &error), nullptr);
    expectError(error, VDO_ERROR_CLOSED, "not running");
    ASSERT_TRUE(vdo_stream_attach(stream.get(), nullptr, nullptr));
    ASSERT_TRUE(vdo_stream_start(stream.get(), nullptr));
    nextFrame(stream.get());

    // The next frame is due in two seconds; stopping ends the wait at once.
    VdoBuffer* waited = nullptr;
    const auto start = std::chrono::steady_clock::now();
    std::thread waiter([&] { waited = vdo_stream_get_buffer(stream.get(), &error); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    vdo_stream_stop(stream.get());
    waiter.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
    EXPECT_EQ(waited, nullptr);
    expectError(error, VDO_ERROR_CLOSED, "stopped");
}

TEST(HostVdoStream, CallsFailOnRequestFromTheProgramOrTheDescription) {
    HostCameraScope camera(std::string(kSmallCamera) + "fail.vdo_stream_start = sensor offline\n");
    GError* error = nullptr;
    GPtr<VdoStream> stream(vdo_stream_new(nullptr, nullptr, &error));
    ASSERT_NE(stream, nullptr);
    EXPECT_FALSE(vdo_stream_start(stream.get(), &error));
    expectError(error, VDO_ERROR_FAILED, "sensor offline");
    stemlib_host_clear_failures();
    ASSERT_TRUE(vdo_stream_start(stream.get(), nullptr));

    // The second buffer fails, the others come; no sequence number is used up by the failure.
    stemlib_host_set_failure_after("vdo_stream_get_buffer", 1, "dropped frame");
    guint sequence = 0;
    nextFrame(stream.get(), &sequence);
    EXPECT_EQ(vdo_stream_get_buffer(stream.get(), &error), nullptr);
    expectError(error, VDO_ERROR_FAILED, "dropped frame");
    stemlib_host_set_failure("vdo_stream_get_buffer", nullptr);
    nextFrame(stream.get(), &sequence);
    EXPECT_EQ(sequence, 1U);
}

// A solid colour in blue-first order, as OpenCV writes it.
cv::Mat solid(int width, int height, double level) {
    return cv::Mat(height, width, CV_8UC3, cv::Scalar::all(level));
}

TEST(HostVdoStream, PlaysImagesInNameOrderAndVideoFilesTurnedAndInALoop) {
    StemlibTest::ScratchDirectory folder;
    // White top-left quadrant on black, and a plain grey picture.
    cv::Mat first = solid(64, 36, 0);
    first(cv::Rect(0, 0, 32, 18)).setTo(cv::Scalar::all(255));
    ASSERT_TRUE(cv::imwrite(folder.file("a.png"), first));
    ASSERT_TRUE(cv::imwrite(folder.file("b.png"), solid(64, 36, 128)));
    std::ofstream(folder.file("notes.txt")) << "not a picture\n";
    HostCameraScope camera(std::string(kSmallCamera) +
                           "video.input = images:" + folder.path().string() + "\n");
    GPtr<VdoMap> turned = settingsMap(160, 90, 90);
    GPtr<VdoStream> stream = openStream(turned.get());
    ASSERT_NE(stream, nullptr);
    // Turned clockwise: the white quadrant is at the top-right of a 90 by 160 picture.
    for (int loop = 0; loop < 2; ++loop) {
        Bytes frame = nextFrame(stream.get());
        ASSERT_EQ(frame.size(), 160U * 90U * 3U / 2U);
        EXPECT_GT(frame[10 * 90 + 80], 230);
        EXPECT_LT(frame[10 * 90 + 10], 25);
        EXPECT_LT(frame[150 * 90 + 80], 25);
        frame = nextFrame(stream.get());
        EXPECT_NEAR(frame[50 * 90 + 50], 128, 3);
        EXPECT_NEAR(frame[90 * 160 + 10], 128, 3);
    }

    // Three frames, each brighter than the one before, of another size and aspect ratio.
    {
        cv::VideoWriter writer(camera.folder() + "/clip.avi",
                               cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), 10.0, cv::Size(96, 72));
        ASSERT_TRUE(writer.isOpened());
        for (int i = 0; i < 3; ++i) {
            writer.write(solid(96, 72, 40.0 + 80 * i));
        }
    }
    camera.reload(std::string(kSmallCamera) + "video.input = file:clip.avi\n");
    GPtr<VdoMap> straight = settingsMap(160, 90, 0);
    stream = openStream(straight.get());
    ASSERT_NE(stream, nullptr);
    std::vector<int> levels;
    for (int i = 0; i < 4; ++i) {
        const Bytes frame = nextFrame(stream.get());
        ASSERT_EQ(frame.size(), 160U * 90U * 3U / 2U);
        levels.push_back(frame[45 * 160 + 80]);
    }
    EXPECT_LT(levels[0] + 40, levels[1]);
    EXPECT_LT(levels[1] + 40, levels[2]);
    EXPECT_NEAR(levels[3], levels[0], 2); // looped

    camera.reload(std::string(kSmallCamera) + "video.input = images:" + camera.folder() + "\n");
    newStreamError(nullptr, VDO_ERROR_NO_VIDEO, "holds no image");
}

} // namespace
