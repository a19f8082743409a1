// The host video service: maps, channels, streams, the ring of buffers, the generator's frames,
// file and image inputs, frame timing and fault injection.
#include "AllocationCounter.h"
#include "HostCameraScope.h"
#include "stemlib-host.h"

#include <vdo-channel.h>
#include <vdo-stream.h>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using StemlibTest::HostCameraScope;

struct GObjectUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using GPtr = std::unique_ptr<T, GObjectUnref>;

struct ErrorFree {
    void operator()(GError* error) const { g_error_free(error); }
};
using ErrorPtr = std::unique_ptr<GError, ErrorFree>;

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

GPtr<VdoStream> openStream(VdoMap* settings) {
    GError* error = nullptr;
    GPtr<VdoStream> stream(vdo_stream_new(settings, nullptr, &error));
    EXPECT_NE(stream, nullptr) << (error != nullptr ? error->message : "");
    ErrorPtr owned(error);
    if (stream && !vdo_stream_start(stream.get(), &error)) {
        ADD_FAILURE() << error->message;
        g_error_free(error);
    }
    return stream;
}

// The failure of a call that must fail: domain, code and a part of the message.
// Releases the error and clears the pointer.
void expectError(GError*& error, GQuark domain, int code, const std::string& part) {
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain, domain);
    EXPECT_EQ(error->code, code);
    EXPECT_NE(std::string(error->message).find(part), std::string::npos) << error->message;
    g_clear_error(&error);
}

std::string newStreamError(VdoMap* settings, int code, const std::string& part) {
    GError* error = nullptr;
    VdoStream* stream = vdo_stream_new(settings, nullptr, &error);
    EXPECT_EQ(stream, nullptr);
    if (stream != nullptr) {
        g_object_unref(stream);
    }
    const std::string message = error != nullptr ? error->message : "";
    expectError(error, VDO_ERROR, code, part);
    return message;
}

std::vector<std::uint8_t> bufferBytes(VdoBuffer* buffer) {
    const auto* data = static_cast<const std::uint8_t*>(vdo_buffer_get_data(buffer));
    return std::vector<std::uint8_t>(data, data + vdo_frame_get_size(vdo_buffer_get_frame(buffer)));
}

std::vector<std::uint8_t> nextFrame(VdoStream* stream, guint* sequence = nullptr) {
    GError* error = nullptr;
    VdoBuffer* buffer = vdo_stream_get_buffer(stream, &error);
    if (buffer == nullptr) {
        ADD_FAILURE() << error->message;
        g_error_free(error);
        return {};
    }
    std::vector<std::uint8_t> bytes = bufferBytes(buffer);
    if (sequence != nullptr) {
        *sequence = vdo_frame_get_sequence_nbr(vdo_buffer_get_frame(buffer));
    }
    EXPECT_TRUE(vdo_stream_buffer_unref(stream, &buffer, nullptr));
    EXPECT_EQ(buffer, nullptr);
    return bytes;
}

std::vector<std::uint8_t> generatorFrame(unsigned w, unsigned h, unsigned rotation,
                                         unsigned long long sequence) {
    std::vector<std::uint8_t> frame(std::size_t{w} * h * 3 / 2);
    EXPECT_EQ(
        stemlib_host_render_generator_frame(w, h, rotation, sequence, frame.data(), frame.size()),
        0);
    return frame;
}

TEST(HostVdoMap, KeepsTypedValuesAndConvertsBetweenNumbers) {
    GPtr<VdoMap> map(vdo_map_new());
    EXPECT_TRUE(vdo_map_empty(map.get()));
    vdo_map_set_uint32(map.get(), "width", 1920);
    vdo_map_set_double(map.get(), "framerate", 29.97);
    vdo_map_set_int32(map.get(), "offset", -4);
    vdo_map_set_string(map.get(), "image.fit", "scale");
    vdo_map_set_boolean(map.get(), "flag", TRUE);
    EXPECT_EQ(vdo_map_get_size(map.get()), 5U);
    EXPECT_TRUE(vdo_map_contains(map.get(), "width"));
    EXPECT_FALSE(vdo_map_contains(map.get(), "height"));

    EXPECT_EQ(vdo_map_get_uint32(map.get(), "width", 0), 1920U);
    EXPECT_EQ(vdo_map_get_uint32(map.get(), "height", 7), 7U);
    // Read as another numeric type: truncated, saturated, and negative as 0 when unsigned.
    EXPECT_EQ(vdo_map_get_uint32(map.get(), "framerate", 0), 29U);
    EXPECT_DOUBLE_EQ(vdo_map_get_double(map.get(), "width", 0.0), 1920.0);
    EXPECT_EQ(vdo_map_get_uint32(map.get(), "offset", 9), 0U);
    EXPECT_EQ(vdo_map_get_int32(map.get(), "offset", 0), -4);
    EXPECT_TRUE(vdo_map_get_boolean(map.get(), "flag", FALSE));
    // A text is no number, and a number no text.
    EXPECT_EQ(vdo_map_get_uint32(map.get(), "image.fit", 5), 5U);
    gsize size = 99;
    EXPECT_STREQ(vdo_map_get_string(map.get(), "width", &size, "none"), "none");
    EXPECT_EQ(size, 0U);
    EXPECT_STREQ(vdo_map_get_string(map.get(), "image.fit", &size, nullptr), "scale");
    EXPECT_EQ(size, 6U);

    vdo_map_set_double(map.get(), "huge", 1e12);
    EXPECT_EQ(vdo_map_get_uint32(map.get(), "huge", 0), 0xFFFFFFFFU);
    vdo_map_set_uint32(map.get(), "width", 640);
    EXPECT_EQ(vdo_map_get_uint32(map.get(), "width", 0), 640U);
    vdo_map_remove(map.get(), "width");
    EXPECT_FALSE(vdo_map_contains(map.get(), "width"));
}

TEST(HostVdoChannel, ListsChannelsAndResolutionsFromTheDescription) {
    HostCameraScope camera(kSmallCamera);
    GError* error = nullptr;
    GList* channels = vdo_channel_get_all(&error);
    ASSERT_NE(channels, nullptr);
    ASSERT_EQ(g_list_length(channels), 2U);
    VdoChannel* first = VDO_CHANNEL(channels->data);
    EXPECT_EQ(vdo_channel_get_id(first), 1U);
    EXPECT_EQ(vdo_channel_get_id(VDO_CHANNEL(channels->next->data)), 2U);

    VdoResolutionSet* set = vdo_channel_get_resolutions(first, nullptr, &error);
    ASSERT_NE(set, nullptr);
    ASSERT_EQ(set->count, 3U);
    // Largest first.
    EXPECT_EQ(set->resolutions[0].width, 640U);
    EXPECT_EQ(set->resolutions[0].height, 360U);
    EXPECT_EQ(set->resolutions[2].width, 160U);
    g_free(set);

    GPtr<VdoMap> filter(vdo_map_new());
    vdo_map_set_string(filter.get(), "select", "minmax");
    set = vdo_channel_get_resolutions(first, filter.get(), &error);
    ASSERT_NE(set, nullptr);
    ASSERT_EQ(set->count, 2U);
    EXPECT_EQ(set->resolutions[1].width, 160U);
    g_free(set);
    vdo_map_set_string(filter.get(), "select", "all");
    vdo_map_set_string(filter.get(), "aspect_ratio", "4:3");
    set = vdo_channel_get_resolutions(VDO_CHANNEL(channels->next->data), filter.get(), &error);
    ASSERT_NE(set, nullptr);
    EXPECT_EQ(set->count, 2U);
    g_free(set);
    set = vdo_channel_get_resolutions(first, filter.get(), &error);
    ASSERT_NE(set, nullptr);
    EXPECT_EQ(set->count, 0U);
    g_free(set);
    g_list_free_full(channels, g_object_unref);

    GPtr<VdoChannel> second(vdo_channel_get(2, &error));
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(vdo_channel_get(3, &error), nullptr);
    expectError(error, VDO_ERROR, VDO_ERROR_NOT_FOUND, "channel 3 does not exist");
}

TEST(HostVdoChannel, ReportsUnreadableDescriptionsAndInjectedFailures) {
    HostCameraScope camera("channels = 1, 2\nchannel.1.resolutions = 640x360, 12x\n");
    GError* error = nullptr;
    GPtr<VdoChannel> one(vdo_channel_get(1, &error));
    GPtr<VdoChannel> two(vdo_channel_get(2, &error));
    ASSERT_TRUE(one && two);
    EXPECT_EQ(vdo_channel_get_resolutions(one.get(), nullptr, &error), nullptr);
    expectError(error, VDO_ERROR, VDO_ERROR_FAILED, "\"12x\" is not a size");
    EXPECT_EQ(vdo_channel_get_resolutions(two.get(), nullptr, &error), nullptr);
    expectError(error, VDO_ERROR, VDO_ERROR_NOT_FOUND, "no resolutions for channel 2");

    camera.reload("channels = 1\nchannel.1.resolutions = 640x360\n");
    stemlib_host_set_failure("vdo_channel_get_all", "channel list unavailable");
    EXPECT_EQ(vdo_channel_get_all(&error), nullptr);
    expectError(error, VDO_ERROR, VDO_ERROR_FAILED, "channel list unavailable");
    stemlib_host_set_failure("vdo_channel_get_all", nullptr);
    stemlib_host_set_failure_after("vdo_channel_get_resolutions", 1, "second read fails");
    VdoResolutionSet* set = vdo_channel_get_resolutions(one.get(), nullptr, nullptr);
    EXPECT_NE(set, nullptr);
    g_free(set);
    EXPECT_EQ(vdo_channel_get_resolutions(one.get(), nullptr, &error), nullptr);
    expectError(error, VDO_ERROR, VDO_ERROR_FAILED, "second read fails");

    camera.reload("root.Brand.ProdShortName = No video\n");
    EXPECT_EQ(vdo_channel_get_all(&error), nullptr);
    expectError(error, VDO_ERROR, VDO_ERROR_NOT_FOUND, "has no video channel");
}

TEST(HostVdoStream, DefaultCameraStreamsFullHdFramesOfTheGenerator) {
    HostCameraScope camera;
    GPtr<VdoStream> stream = openStream(nullptr);
    ASSERT_NE(stream, nullptr);
    GPtr<VdoMap> settings(vdo_stream_get_settings(stream.get(), nullptr));
    ASSERT_NE(settings, nullptr);
    EXPECT_EQ(vdo_map_get_uint32(settings.get(), "channel", 0), 1U);
    EXPECT_EQ(vdo_map_get_uint32(settings.get(), "format", 0), 3U);
    EXPECT_EQ(vdo_map_get_uint32(settings.get(), "width", 0), 1920U);
    EXPECT_EQ(vdo_map_get_uint32(settings.get(), "height", 0), 1080U);
    EXPECT_EQ(vdo_map_get_uint32(settings.get(), "rotation", 9), 0U);
    EXPECT_EQ(vdo_map_get_uint32(settings.get(), "framerate", 9), 0U);
    EXPECT_EQ(vdo_map_get_uint32(settings.get(), "buffer.count", 0), 3U);

    guint sequence = 99;
    const std::vector<std::uint8_t> frame = nextFrame(stream.get(), &sequence);
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
    const std::vector<std::uint8_t> eighth = generatorFrame(1920, 1080, 0, 8);
    EXPECT_EQ(eighth[44 * 1920 + 312], 235);
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
            const std::vector<std::uint8_t> frame = nextFrame(stream.get(), &sequence);
            EXPECT_EQ(sequence, expected);
            ASSERT_EQ(frame, generatorFrame(640, 360, rotation, expected)) << expected;
        }
    }
}

TEST(HostVdoStream, RotationTurnsThePictureClockwise) {
    const unsigned w = 160;
    const unsigned h = 90;
    const std::vector<std::uint8_t> straight = generatorFrame(w, h, 0, 5);
    for (unsigned rotation : {90U, 180U, 270U}) {
        SCOPED_TRACE(rotation);
        const std::vector<std::uint8_t> turned = generatorFrame(w, h, rotation, 5);
        const unsigned ow = rotation == 180 ? w : h;
        const unsigned oh = rotation == 180 ? h : w;
        // Sensor pixel (x, y) lands where a clockwise turn puts it, in Y and in U,V blocks.
        auto place = [&](unsigned x, unsigned y, unsigned width, unsigned height, unsigned& ox,
                         unsigned& oy) {
            if (rotation == 90) {
                ox = height - 1 - y;
                oy = x;
            } else if (rotation == 180) {
                ox = width - 1 - x;
                oy = height - 1 - y;
            } else {
                ox = y;
                oy = width - 1 - x;
            }
        };
        for (unsigned y = 0; y < h; ++y) {
            for (unsigned x = 0; x < w; ++x) {
                unsigned ox = 0;
                unsigned oy = 0;
                place(x, y, w, h, ox, oy);
                ASSERT_EQ(turned[oy * ow + ox], straight[y * w + x]) << x << "," << y;
            }
        }
        for (unsigned by = 0; by < h / 2; ++by) {
            for (unsigned bx = 0; bx < w / 2; ++bx) {
                unsigned obx = 0;
                unsigned oby = 0;
                place(bx, by, w / 2, h / 2, obx, oby);
                const std::size_t from = w * h + by * w + 2 * bx;
                const std::size_t to = ow * oh + oby * ow + 2 * obx;
                ASSERT_EQ(turned[to], straight[from]);
                ASSERT_EQ(turned[to + 1], straight[from + 1]);
            }
        }
    }
}

TEST(HostVdoStream, DefaultRotationIsTheCameraRotationAndStreamsAreIndependent) {
    HostCameraScope camera(std::string(kSmallCamera) + "root.Image.I0.Appearance.Rotation = 270\n");
    GPtr<VdoMap> plain(vdo_map_new());
    vdo_map_set_uint32(plain.get(), "width", 320);
    vdo_map_set_uint32(plain.get(), "height", 180);
    GPtr<VdoStream> turned = openStream(plain.get());
    GPtr<VdoMap> other(vdo_map_new());
    vdo_map_set_string(other.get(), "resolution", "400x300");
    vdo_map_set_uint32(other.get(), "channel", 2);
    vdo_map_set_uint32(other.get(), "rotation", 0);
    GPtr<VdoStream> second = openStream(other.get());
    ASSERT_TRUE(turned && second);
    EXPECT_EQ(nextFrame(turned.get()), generatorFrame(320, 180, 270, 0));
    EXPECT_EQ(nextFrame(second.get()), generatorFrame(400, 300, 0, 0));
    EXPECT_EQ(nextFrame(second.get()), generatorFrame(400, 300, 0, 1));
    EXPECT_EQ(nextFrame(turned.get()), generatorFrame(320, 180, 270, 1));
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

    GPtr<VdoMap> map(vdo_map_new());
    vdo_map_set_uint32(map.get(), "format", VDO_FORMAT_H264);
    newStreamError(map.get(), VDO_ERROR_NOT_SUPPORTED, "only VDO_FORMAT_YUV");
    map.reset(vdo_map_new());
    vdo_map_set_uint32(map.get(), "channel", 7);
    newStreamError(map.get(), VDO_ERROR_NOT_FOUND, "channel 7 does not exist");
    map.reset(vdo_map_new());
    vdo_map_set_uint32(map.get(), "width", 320);
    newStreamError(map.get(), VDO_ERROR_INVALID_ARGUMENT,
                   "width and height must be given together");
    map.reset(vdo_map_new());
    vdo_map_set_uint32(map.get(), "buffer.count", 0);
    newStreamError(map.get(), VDO_ERROR_INVALID_ARGUMENT, "buffer.count must be from 1 to 32");
    map.reset(vdo_map_new());
    vdo_map_set_double(map.get(), "framerate", -1.0);
    newStreamError(map.get(), VDO_ERROR_INVALID_ARGUMENT, "framerate must be from 0 to 1000");
    map.reset(vdo_map_new());
    vdo_map_set_string(map.get(), "image.fit", "letterbox");
    newStreamError(map.get(), VDO_ERROR_INVALID_ARGUMENT, "image.fit must be");
    map.reset(vdo_map_new());
    vdo_map_set_string(map.get(), "resolution", "wide");
    newStreamError(map.get(), VDO_ERROR_INVALID_ARGUMENT, "\"wide\" is not a size");

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
    expectError(error, VDO_ERROR, VDO_ERROR_NO_BUFFER_SPACE, "all 2 buffers");

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
    expectError(error, VDO_ERROR, VDO_ERROR_FAILED, "queue full");
    EXPECT_EQ(kept, second);
    stemlib_host_clear_failures();
    EXPECT_TRUE(vdo_stream_buffer_unref(stream.get(), &kept, nullptr));
    EXPECT_EQ(kept, nullptr);

    // A buffer of another stream is refused.
    GPtr<VdoStream> other = openStream(settings.get());
    VdoBuffer* foreign = vdo_stream_get_buffer(other.get(), nullptr);
    ASSERT_NE(foreign, nullptr);
    EXPECT_FALSE(vdo_stream_buffer_unref(stream.get(), &foreign, &error));
    expectError(error, VDO_ERROR, VDO_ERROR_INVALID_ARGUMENT, "another stream");
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
    const std::vector<std::uint8_t> frame = nextFrame(stream.get(), &late);
    EXPECT_GE(late, sequence + 3);
    // A buffer brought forward over several frames at once is still exact.
    EXPECT_EQ(frame, generatorFrame(160, 90, 0, late));
    GPtr<VdoMap> current(vdo_stream_get_settings(stream.get(), nullptr));
    EXPECT_DOUBLE_EQ(vdo_map_get_double(current.get(), "framerate", 0.0), 50.0);
}

TEST(HostVdoStream, StopEndsAWaitAndAStoppedStreamGivesNoFrame) {
    HostCameraScope camera(std::string(kSmallCamera) + "video.framerate = 0.5\n");
    GPtr<VdoMap> settings = settingsMap(160, 90, 0);
    GError* error = nullptr;
    GPtr<VdoStream> stream(vdo_stream_new(settings.get(), nullptr, &error));
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(vdo_stream_get_buffer(stream.get(), &error), nullptr);
    expectError(error, VDO_ERROR, VDO_ERROR_CLOSED, "not running");
    ASSERT_TRUE(vdo_stream_attach(stream.get(), nullptr, nullptr));
    ASSERT_TRUE(vdo_stream_start(stream.get(), nullptr));
    nextFrame(stream.get());

    // The next frame is due in two seconds; stopping ends the wait at once.
    GError* waitError = nullptr;
    VdoBuffer* waited = nullptr;
    const auto start = std::chrono::steady_clock::now();
    std::thread waiter([&] { waited = vdo_stream_get_buffer(stream.get(), &waitError); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    vdo_stream_stop(stream.get());
    waiter.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
    EXPECT_EQ(waited, nullptr);
    expectError(waitError, VDO_ERROR, VDO_ERROR_CLOSED, "stopped");
}

TEST(HostVdoStream, EveryCallCanBeMadeToFail) {
    HostCameraScope camera(kSmallCamera);
    GPtr<VdoMap> settings = settingsMap(160, 90, 0);
    GError* error = nullptr;
    stemlib_host_set_failure("vdo_stream_new", "no video service");
    EXPECT_EQ(vdo_stream_new(settings.get(), nullptr, &error), nullptr);
    expectError(error, VDO_ERROR, VDO_ERROR_FAILED, "no video service");
    stemlib_host_clear_failures();

    GPtr<VdoStream> stream(vdo_stream_new(settings.get(), nullptr, &error));
    ASSERT_NE(stream, nullptr);
    const char* calls[] = {"vdo_stream_attach", "vdo_stream_get_settings", "vdo_stream_get_info",
                           "vdo_stream_start"};
    for (const char* call : calls) {
        stemlib_host_set_failure(call, (std::string(call) + " refused").c_str());
    }
    EXPECT_FALSE(vdo_stream_attach(stream.get(), nullptr, &error));
    expectError(error, VDO_ERROR, VDO_ERROR_FAILED, "vdo_stream_attach refused");
    EXPECT_EQ(vdo_stream_get_settings(stream.get(), &error), nullptr);
    expectError(error, VDO_ERROR, VDO_ERROR_FAILED, "vdo_stream_get_settings refused");
    EXPECT_EQ(vdo_stream_get_info(stream.get(), &error), nullptr);
    expectError(error, VDO_ERROR, VDO_ERROR_FAILED, "vdo_stream_get_info refused");
    EXPECT_FALSE(vdo_stream_start(stream.get(), &error));
    expectError(error, VDO_ERROR, VDO_ERROR_FAILED, "vdo_stream_start refused");
    stemlib_host_clear_failures();
    ASSERT_TRUE(vdo_stream_start(stream.get(), nullptr));

    // The second buffer fails, the others come; no sequence number is used up by the failure.
    stemlib_host_set_failure_after("vdo_stream_get_buffer", 1, "dropped frame");
    guint sequence = 0;
    nextFrame(stream.get(), &sequence);
    EXPECT_EQ(vdo_stream_get_buffer(stream.get(), &error), nullptr);
    expectError(error, VDO_ERROR, VDO_ERROR_FAILED, "dropped frame");
    stemlib_host_set_failure("vdo_stream_get_buffer", nullptr);
    nextFrame(stream.get(), &sequence);
    EXPECT_EQ(sequence, 1U);
}

TEST(HostVdoStream, FailuresCanComeFromTheDescription) {
    HostCameraScope camera(std::string(kSmallCamera) + "fail.vdo_stream_start = sensor offline\n");
    GError* error = nullptr;
    GPtr<VdoStream> stream(vdo_stream_new(nullptr, nullptr, &error));
    ASSERT_NE(stream, nullptr);
    EXPECT_FALSE(vdo_stream_start(stream.get(), &error));
    expectError(error, VDO_ERROR, VDO_ERROR_FAILED, "sensor offline");
}

// A solid colour in blue-first order, as OpenCV writes it.
cv::Mat solid(int width, int height, const cv::Scalar& bgr) {
    return cv::Mat(height, width, CV_8UC3, bgr);
}

TEST(HostVdoStream, PlaysAFolderOfImagesInNameOrderTurnedAndInALoop) {
    StemlibTest::TemporaryFolder folder;
    // White top-left quadrant on black, and a plain grey picture.
    cv::Mat first = solid(64, 36, cv::Scalar(0, 0, 0));
    first(cv::Rect(0, 0, 32, 18)).setTo(cv::Scalar(255, 255, 255));
    ASSERT_TRUE(cv::imwrite(folder.file("a.png"), first));
    ASSERT_TRUE(cv::imwrite(folder.file("b.png"), solid(64, 36, cv::Scalar(128, 128, 128))));
    std::ofstream(folder.file("notes.txt")) << "not a picture\n";
    HostCameraScope camera(std::string(kSmallCamera) + "video.input = images:" + folder.path() +
                           "\n");
    GPtr<VdoMap> settings = settingsMap(160, 90, 90);
    GPtr<VdoStream> stream = openStream(settings.get());
    ASSERT_NE(stream, nullptr);
    // Turned clockwise: the white quadrant is at the top-right of a 90 by 160 picture.
    std::vector<std::uint8_t> frame = nextFrame(stream.get());
    ASSERT_EQ(frame.size(), 160U * 90U * 3U / 2U);
    EXPECT_GT(frame[10 * 90 + 80], 230);
    EXPECT_LT(frame[10 * 90 + 10], 25);
    EXPECT_LT(frame[150 * 90 + 80], 25);
    frame = nextFrame(stream.get());
    EXPECT_NEAR(frame[50 * 90 + 50], 128, 3);
    EXPECT_NEAR(frame[90 * 160 + 10], 128, 3);
    frame = nextFrame(stream.get());
    EXPECT_GT(frame[10 * 90 + 80], 230);

    StemlibTest::TemporaryFolder empty;
    camera.reload(std::string(kSmallCamera) + "video.input = images:" + empty.path() + "\n");
    newStreamError(nullptr, VDO_ERROR_NO_VIDEO, "holds no image");
}

TEST(HostVdoStream, PlaysAVideoFileInALoop) {
    HostCameraScope camera(std::string(kSmallCamera) + "video.input = file:clip.avi\n");
    {
        // Three frames, each brighter than the one before, of another size and aspect ratio.
        cv::VideoWriter writer(camera.folder() + "/clip.avi",
                               cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), 10.0, cv::Size(96, 72));
        ASSERT_TRUE(writer.isOpened());
        for (int i = 0; i < 3; ++i) {
            writer.write(solid(96, 72, cv::Scalar::all(40.0 + 80 * i)));
        }
    }
    GPtr<VdoMap> settings = settingsMap(160, 90, 0);
    GPtr<VdoStream> stream = openStream(settings.get());
    ASSERT_NE(stream, nullptr);
    int previous = -1;
    std::vector<int> levels;
    for (int i = 0; i < 4; ++i) {
        const std::vector<std::uint8_t> frame = nextFrame(stream.get());
        ASSERT_EQ(frame.size(), 160U * 90U * 3U / 2U);
        levels.push_back(frame[45 * 160 + 80]);
        EXPECT_NE(levels.back(), previous);
        previous = levels.back();
    }
    EXPECT_LT(levels[0], levels[1]);
    EXPECT_LT(levels[1], levels[2]);
    EXPECT_NEAR(levels[3], levels[0], 2); // looped
}

} // namespace
