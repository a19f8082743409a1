// The host video service: maps, channels, streams, the ring of buffers, the generator's frames,
// file and image inputs, frame timing and fault injection.
#include "AllocationCounter.h"
#include "Emulation.h"
#include "HostCameraScope.h"
#include "stemlib-host.h"

#include <vdo-channel.h>
#include <vdo-stream.h>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

// AddressSanitizer reserves terabytes of address space for its shadow memory.
#if defined(__SANITIZE_ADDRESS__)
#define STEMLIB_TEST_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define STEMLIB_TEST_ADDRESS_SANITIZER 1
#endif
#endif

namespace {

using StemlibTest::generatorFrame;
using StemlibTest::HostCameraScope;
using Bytes = std::vector<std::uint8_t>;

struct GObjectUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using GPtr = std::unique_ptr<T, GObjectUnref>;

const std::string kSmallCamera = R"(
channels = 1
channel.1.resolutions = 320x180, 640x360, 160x90
)";

GPtr<VdoMap> settingsMap(guint32 width, guint32 height, guint32 rotation, guint32 buffers = 3) {
    GPtr<VdoMap> map(vdo_map_new());
    vdo_map_set_uint32(map.get(), "width", width);
    vdo_map_set_uint32(map.get(), "height", height);
    vdo_map_set_uint32(map.get(), "rotation", rotation);
    vdo_map_set_uint32(map.get(), "buffer.count", buffers);
    return map;
}

// A started stream; null, with a test failure, when the service refuses it.
GPtr<VdoStream> openStream(const GPtr<VdoMap>& settings) {
    GPtr<VdoStream> stream(vdo_stream_new(settings.get(), nullptr, nullptr));
    EXPECT_TRUE(stream && vdo_stream_start(stream.get(), nullptr));
    return stream;
}

// The failure of a call that must fail: domain, code and a part of the message. The error is
// released.
void expectError(GError*& error, int code, const std::string& part) {
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain, VDO_ERROR);
    EXPECT_EQ(error->code, code) << error->message;
    EXPECT_NE(std::string(error->message).find(part), std::string::npos) << error->message;
    g_clear_error(&error);
}

void newStreamError(const GPtr<VdoMap>& settings, int code, const std::string& part) {
    GError* error = nullptr;
    EXPECT_EQ(GPtr<VdoStream>(vdo_stream_new(settings.get(), nullptr, &error)), nullptr);
    expectError(error, code, part);
}

Bytes bufferBytes(VdoBuffer* buffer) {
    const auto* data = static_cast<const std::uint8_t*>(vdo_buffer_get_data(buffer));
    return Bytes(data, data + vdo_frame_get_size(vdo_buffer_get_frame(buffer)));
}

Bytes nextFrame(VdoStream* stream, guint* sequence = nullptr) {
    VdoBuffer* buffer = vdo_stream_get_buffer(stream, nullptr);
    if (buffer == nullptr) {
        ADD_FAILURE() << "no buffer";
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

TEST(HostVdoMap, ConvertsBetweenNumbersAndKeepsTextsApart) {
    GPtr<VdoMap> map(vdo_map_new());
    vdo_map_set_double(map.get(), "framerate", 29.97);
    vdo_map_set_double(map.get(), "huge", 1e12);
    vdo_map_set_int32(map.get(), "offset", -4);
    vdo_map_set_string(map.get(), "image.fit", "scale");
    // Truncated, saturated, negative as 0 when unsigned; a text is no number.
    EXPECT_EQ(vdo_map_get_uint32(map.get(), "framerate", 0), 29U);
    EXPECT_EQ(vdo_map_get_uint32(map.get(), "huge", 0), 0xFFFFFFFFU);
    EXPECT_EQ(vdo_map_get_uint32(map.get(), "offset", 9), 0U);
    EXPECT_EQ(vdo_map_get_uint32(map.get(), "image.fit", 5), 5U);
}

TEST(HostVdoChannel, FiltersResolutionsAndReportsBadDescriptions) {
    HostCameraScope camera(kSmallCamera);
    GPtr<VdoChannel> first(vdo_channel_get(1, nullptr));
    GPtr<VdoMap> filter(vdo_map_new());
    auto listed = [&] {
        std::string text;
        VdoResolutionSet* set = vdo_channel_get_resolutions(first.get(), filter.get(), nullptr);
        for (gsize i = 0; set != nullptr && i < set->count; ++i) {
            text += std::to_string(set->resolutions[i].width) + "x" +
                    std::to_string(set->resolutions[i].height) + " ";
        }
        g_free(set);
        return text;
    };
    // Largest first; the filter picks the smallest and the largest, or an aspect ratio.
    EXPECT_EQ(listed(), "640x360 320x180 160x90 ");
    vdo_map_set_string(filter.get(), "select", "minmax");
    EXPECT_EQ(listed(), "640x360 160x90 ");
    vdo_map_set_string(filter.get(), "aspect_ratio", "4:3");
    EXPECT_EQ(listed(), "");

    GError* error = nullptr;
    camera.reload("root.Brand.ProdShortName = No video\n");
    EXPECT_EQ(vdo_channel_get_all(&error), nullptr);
    expectError(error, VDO_ERROR_NOT_FOUND, "has no video channel");
}

TEST(HostVdoStream, DefaultCameraStreamsFullHdFramesOfTheDocumentedScene) {
    HostCameraScope camera;
    GPtr<VdoStream> stream = openStream(nullptr);
    ASSERT_NE(stream, nullptr);
    const Bytes frame = nextFrame(stream.get());
    ASSERT_EQ(frame, generatorFrame(1920, 1080, 0, 0));
    // Facts of the documented scene at frame 0 (S = 1080, t = 8): background at the bottom-left
    // (no check, 48 * 1078 / 1080 = 47 in U), the red square at (700, 100), and the counter's last
    // digit "0" lit on its top stroke, and in its middle only from frame 8 on.
    const std::uint8_t* uv = frame.data() + 1920 * 1080;
    EXPECT_EQ(frame[1079 * 1920 + 0], 40);
    EXPECT_EQ(uv[539 * 1920 + 0], 151);
    EXPECT_EQ(frame[100 * 1920 + 700], 82);
    EXPECT_EQ(frame[16 * 1920 + 297], 235);
    EXPECT_EQ(frame[44 * 1920 + 312], 16);
    EXPECT_EQ(generatorFrame(1920, 1080, 0, 8)[44 * 1920 + 312], 235);
}

// An NV12 frame as a blue-first picture; each U,V pair serves its whole 2 by 2 block.
cv::Mat toBgr(const Bytes& nv12, int width, int height) {
    cv::Mat bgr;
    cv::cvtColor(cv::Mat(height * 3 / 2, width, CV_8UC1, const_cast<std::uint8_t*>(nv12.data())),
                 bgr, cv::COLOR_YUV2BGR_NV12);
    return bgr;
}

TEST(HostVdoStream, EveryFrameOfTheRingIsTheGeneratorsTurnedClockwise) {
    HostCameraScope camera(kSmallCamera);
    const cv::Mat straight = toBgr(generatorFrame(160, 90, 0, 5), 160, 90);
    for (guint32 rotation : {0U, 90U, 180U, 270U}) {
        SCOPED_TRACE(rotation);
        cv::Mat turned = straight;
        for (guint32 turn = 0; turn < rotation; turn += 90) {
            cv::rotate(turned, turned, cv::ROTATE_90_CLOCKWISE);
        }
        const Bytes frame = generatorFrame(160, 90, rotation, 5);
        EXPECT_EQ(cv::norm(toBgr(frame, turned.cols, turned.rows), turned, cv::NORM_INF), 0.0);
        // A single buffer redrawn from frame to frame: shapes crossing each other and the
        // counter's box (everything redrawn), and shapes apart (only what changes).
        GPtr<VdoStream> single = openStream(settingsMap(320, 180, rotation, 1));
        ASSERT_NE(single, nullptr);
        for (guint n = 0; n < 120; ++n) {
            ASSERT_EQ(nextFrame(single.get()), generatorFrame(320, 180, rotation, n)) << n;
        }
        // More frames than buffers: later frames redraw only what moved on reused buffers, and
        // allocate nothing.
        GPtr<VdoStream> stream = openStream(settingsMap(640, 360, rotation));
        ASSERT_NE(stream, nullptr);
        for (guint n = 0; n < 9; ++n) {
            guint sequence = 0;
            ASSERT_EQ(nextFrame(stream.get(), &sequence), generatorFrame(640, 360, rotation, n));
            EXPECT_EQ(sequence, n);
        }
        StemlibTest::AllocationScope allocations;
        for (int i = 0; i < 10; ++i) {
            VdoBuffer* buffer = vdo_stream_get_buffer(stream.get(), nullptr);
            ASSERT_NE(buffer, nullptr);
            ASSERT_TRUE(vdo_stream_buffer_unref(stream.get(), &buffer, nullptr));
        }
        EXPECT_EQ(allocations.count(), 0U);
    }
}

TEST(HostVdoStream, SettingsAreCheckedAgainstTheCamera) {
    HostCameraScope camera(kSmallCamera);
    newStreamError(settingsMap(641, 360, 0), VDO_ERROR_INVALID_ARGUMENT, "must be even");
    newStreamError(settingsMap(1280, 720, 0), VDO_ERROR_INVALID_ARGUMENT,
                   "exceeds the largest resolution of channel 1, 640x360");
    newStreamError(settingsMap(640, 360, 45), VDO_ERROR_INVALID_ARGUMENT,
                   "rotation must be 0, 90, 180 or 270");
    // The ring's size bounds the memory of a stream.
    newStreamError(settingsMap(640, 360, 0, 33), VDO_ERROR_INVALID_ARGUMENT,
                   "buffer.count must be from 1 to 32");
    GPtr<VdoMap> h264(vdo_map_new());
    vdo_map_set_uint32(h264.get(), "format", VDO_FORMAT_H264);
    newStreamError(h264, VDO_ERROR_NOT_SUPPORTED, "only VDO_FORMAT_YUV");
    // A portrait request fits the channel turned.
    EXPECT_NE(openStream(settingsMap(180, 320, 0)), nullptr);

    // Without a "rotation", the camera's own applies.
    camera.reload(kSmallCamera + "root.Image.I0.Appearance.Rotation = 270\n");
    GPtr<VdoMap> plain(vdo_map_new());
    vdo_map_set_string(plain.get(), "resolution", "320x180");
    GPtr<VdoStream> turned = openStream(plain);
    ASSERT_NE(turned, nullptr);
    EXPECT_EQ(nextFrame(turned.get()), generatorFrame(320, 180, 270, 0));

    // A frame rate so low that the next frame's due time would leave the clock's range, and
    // inputs that cannot give frames.
    camera.reload(kSmallCamera + "video.framerate = 1e-12\n");
    newStreamError(nullptr, VDO_ERROR_INVALID_ARGUMENT, "framerate must be 0 or from 0.001");
    camera.reload(kSmallCamera + "video.input = file:missing.mp4\n");
    newStreamError(nullptr, VDO_ERROR_NO_VIDEO, camera.folder() + "/missing.mp4 does not exist");
    // What is there but no file is named for what it is, and never opened: a FIFO would block.
    ASSERT_EQ(mkfifo((camera.folder() + "/pipe").c_str(), 0600), 0);
    for (const auto& [input, kind] :
         std::vector<std::pair<std::string, std::string>>{{camera.folder(), "a directory"},
                                                          {camera.folder() + "/pipe", "a FIFO"},
                                                          {"/dev/zero", "a character device"}}) {
        camera.reload(kSmallCamera + "video.input = file:" + input + "\n");
        newStreamError(nullptr, VDO_ERROR_NO_VIDEO,
                       "video file " + input + " is not a regular file but " + kind);
    }
    camera.reload(kSmallCamera + "video.input = camera\n");
    newStreamError(nullptr, VDO_ERROR_NO_VIDEO, "none of generator, file:<path>, images:<folder>");
    camera.reload(kSmallCamera + "video.input = images:.\n");
    newStreamError(nullptr, VDO_ERROR_NO_VIDEO, "holds no image");
}

TEST(HostVdoStream, RingBuffersReturnByUnrefOrByDroppingTheReference) {
    HostCameraScope camera(kSmallCamera);
    GPtr<VdoStream> stream = openStream(settingsMap(160, 90, 0, 2));
    ASSERT_NE(stream, nullptr);
    GError* error = nullptr;
    VdoBuffer* first = vdo_stream_get_buffer(stream.get(), nullptr);
    VdoBuffer* second = vdo_stream_get_buffer(stream.get(), nullptr);
    ASSERT_TRUE(first != nullptr && second != nullptr);
    // The application holds the whole ring.
    EXPECT_EQ(vdo_stream_get_buffer(stream.get(), &error), nullptr);
    expectError(error, VDO_ERROR_NO_BUFFER_SPACE, "all 2 buffers");

    // Dropping the reference gives a buffer back as well.
    g_object_unref(first);
    {
        g_autoptr(VdoBuffer) again = vdo_stream_get_buffer(stream.get(), nullptr);
        EXPECT_EQ(again, first);
        EXPECT_EQ(vdo_frame_get_sequence_nbr(vdo_buffer_get_frame(again)), 2U);
    }

    // A failed give-back leaves the buffer with the caller, who may try again.
    stemlib_host_set_failure("vdo_stream_buffer_unref", "queue full");
    EXPECT_FALSE(vdo_stream_buffer_unref(stream.get(), &second, nullptr));
    stemlib_host_clear_failures();
    EXPECT_TRUE(vdo_stream_buffer_unref(stream.get(), &second, nullptr));

    // A buffer still held when its stream goes away stays readable until released; the service
    // frees such a buffer when it next finalizes a stream.
    GPtr<VdoStream> other = openStream(settingsMap(160, 90, 0, 2));
    const long streams = stemlib_host_live_objects("VdoStream");
    const long frames = stemlib_host_live_objects("VdoFrame");
    VdoBuffer* held = vdo_stream_get_buffer(other.get(), nullptr);
    ASSERT_NE(held, nullptr);
    other.reset();
    EXPECT_EQ(stemlib_host_live_objects("VdoFrame"), frames - 1);
    EXPECT_EQ(bufferBytes(held), generatorFrame(160, 90, 0, 0));
    g_object_unref(held);
    stream.reset();
    EXPECT_EQ(stemlib_host_live_objects("VdoStream"), streams - 2);
    EXPECT_EQ(stemlib_host_live_objects("VdoFrame"), frames - 4);
}

TEST(HostVdoStream, PacesFramesStopsAndFailsOnRequest) {
    HostCameraScope camera(kSmallCamera + "video.framerate = 0.5\n" +
                           "fail.vdo_stream_start = sensor offline\n");
    GError* error = nullptr;
    GPtr<VdoStream> stream(vdo_stream_new(nullptr, nullptr, &error));
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(vdo_stream_get_buffer(stream.get(), &error), nullptr);
    expectError(error, VDO_ERROR_CLOSED, "not running");
    // A failure that the description requests, until the program clears it.
    EXPECT_FALSE(vdo_stream_start(stream.get(), &error));
    expectError(error, VDO_ERROR_FAILED, "sensor offline");
    stemlib_host_clear_failures();
    ASSERT_TRUE(vdo_stream_start(stream.get(), nullptr));

    // The second buffer fails; no sequence number is used up by the failure.
    stemlib_host_set_failure_after("vdo_stream_get_buffer", 1, "dropped frame");
    nextFrame(stream.get());
    EXPECT_EQ(vdo_stream_get_buffer(stream.get(), &error), nullptr);
    expectError(error, VDO_ERROR_FAILED, "dropped frame");
    stemlib_host_set_failure("vdo_stream_get_buffer", nullptr);

    // Frame 1 is due in two seconds; stopping ends the wait at once.
    VdoBuffer* waited = nullptr;
    const auto start = std::chrono::steady_clock::now();
    std::thread waiter([&] { waited = vdo_stream_get_buffer(stream.get(), &error); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    vdo_stream_stop(stream.get());
    waiter.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
    EXPECT_EQ(waited, nullptr);
    expectError(error, VDO_ERROR_CLOSED, "stopped");
    ASSERT_TRUE(vdo_stream_start(stream.get(), nullptr));
    guint sequence = 0;
    nextFrame(stream.get(), &sequence);
    EXPECT_EQ(sequence, 1U);

    // At a set rate frame 4 is due 80 ms after the start; a late caller skips frames.
    GPtr<VdoMap> settings = settingsMap(160, 90, 0);
    vdo_map_set_double(settings.get(), "framerate", 50.0);
    GPtr<VdoStream> paced = openStream(settings);
    ASSERT_NE(paced, nullptr);
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 5; ++i) {
        nextFrame(paced.get(), &sequence);
    }
    EXPECT_EQ(sequence, 4U);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(79));
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    guint late = 0;
    const Bytes frame = nextFrame(paced.get(), &late);
    EXPECT_GE(late, sequence + 3);
    // A buffer brought forward over several frames at once is still exact.
    EXPECT_EQ(frame, generatorFrame(160, 90, 0, late));
}

cv::Mat solid(int width, int height, double level) {
    return cv::Mat(height, width, CV_8UC3, cv::Scalar::all(level));
}

// The luma at pixel of the next `count` frames of a stream opened with settings.
std::vector<int> lumaOfFrames(const GPtr<VdoMap>& settings, std::size_t pixel, int count) {
    GPtr<VdoStream> stream = openStream(settings);
    std::vector<int> levels;
    for (int i = 0; stream && i < count; ++i) {
        levels.push_back(nextFrame(stream.get()).at(pixel));
    }
    return levels;
}

TEST(HostVdoStream, PlaysImagesInNameOrderAndVideoFilesInALoop) {
    HostCameraScope camera(kSmallCamera);
    // A white top-left quadrant on black, then plain grey; the description beside them is no
    // picture. Turned clockwise into 90 by 160, the quadrant lies at the top-right.
    cv::Mat first = solid(64, 36, 0);
    first(cv::Rect(0, 0, 32, 18)).setTo(cv::Scalar::all(255));
    ASSERT_TRUE(cv::imwrite(camera.folder() + "/a.png", first));
    ASSERT_TRUE(cv::imwrite(camera.folder() + "/b.png", solid(64, 36, 128)));
    camera.reload(kSmallCamera + "video.input = images:.\n");
    const std::vector<int> topRight = lumaOfFrames(settingsMap(160, 90, 90), 10 * 90 + 80, 3);
    ASSERT_EQ(topRight.size(), 3U);
    EXPECT_GT(topRight[0], 230);
    EXPECT_NEAR(topRight[1], 128, 3);
    EXPECT_GT(topRight[2], 230);
    EXPECT_LT(lumaOfFrames(settingsMap(160, 90, 90), 10 * 90 + 10, 1).at(0), 25);

    // Three frames, each brighter than the one before, of another size and aspect ratio.
    {
        cv::VideoWriter writer(camera.folder() + "/clip.avi",
                               cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), 10.0, cv::Size(96, 72));
        ASSERT_TRUE(writer.isOpened());
        for (int i = 0; i < 3; ++i) {
            writer.write(solid(96, 72, 40.0 + 80 * i));
        }
    }
    camera.reload(kSmallCamera + "video.input = file:clip.avi\n");
    const std::vector<int> levels = lumaOfFrames(settingsMap(160, 90, 0), 45 * 160 + 80, 4);
    ASSERT_EQ(levels.size(), 4U);
    EXPECT_LT(levels[0] + 40, levels[1]);
    EXPECT_LT(levels[1] + 40, levels[2]);
    EXPECT_NEAR(levels[3], levels[0], 2); // looped
}

TEST(HostCameraDescription, RefusesWhatNoStreamCouldUseAtItsLineAndKeepsTheCamera) {
    HostCameraScope camera(kSmallCamera);
    const std::string path = camera.folder() + "/hostile.txt";
    // The message with which the description file at file is refused; "" when it is accepted.
    auto refusal = [](const std::string& file) {
        char* error = nullptr;
        const bool loaded = stemlib_host_load_camera(file.c_str(), &error) == 0;
        const std::string message = error != nullptr ? error : "";
        std::free(error);
        return loaded ? std::string() : message;
    };
    auto refusalOf = [&](const std::string& text) {
        StemlibTest::writeWholeFile(path, text);
        return refusal(path);
    };
    const std::string even = " is not an even size; a stream's width and height must be even";
    EXPECT_EQ(refusalOf("channels = 1, 2\n# sizes\nchannel.1.resolutions = 640x360, 641x360\n"),
              path + ":3: channel.1.resolutions: \"641x360\"" + even);
    EXPECT_EQ(refusalOf("channel.2.resolutions = 65535x65535\n"),
              path + ":1: channel.2.resolutions: \"65535x65535\"" + even);
    EXPECT_EQ(refusalOf("channel.1.resolutions = 640x360, 12x\n"),
              path + ":1: channel.1.resolutions: \"12x\" is not a size like 1920x1080");
    for (const char* limit : {"0", "1.5", "-1", "1048577", "lots", "99999999999"}) {
        EXPECT_EQ(refusalOf(std::string("\nvideo.memory_limit_mib = ") + limit + "\n"),
                  path + ":2: video.memory_limit_mib: \"" + limit +
                      "\" is not a whole number of MiB from 1 to 1048576");
    }
    // Files that are no description: never opened, or not read beyond the largest one.
    EXPECT_EQ(refusal(camera.folder()),
              camera.folder() + ": the camera description is not a regular file but a directory");
    EXPECT_EQ(refusal("/dev/zero"),
              "/dev/zero: the camera description is not a regular file but a character device");
    EXPECT_EQ(refusalOf(std::string(1024 * 1024 + 1, '#')),
              path + ": the camera description is larger than 1024 KiB");
    // The camera in effect stayed the small one.
    newStreamError(settingsMap(1280, 720, 0), VDO_ERROR_INVALID_ARGUMENT,
                   "exceeds the largest resolution of channel 1, 640x360");

    // The extremes that are accepted.
    EXPECT_EQ(refusalOf("channels = 1\nchannel.1.resolutions = 65534x2, 2x65534\n"
                        "video.memory_limit_mib = 1048576\n"),
              "");
}

TEST(HostVdoStream, MemoryOfAStreamIsCheckedAgainstTheCameraLimitBeforeAnyIsTaken) {
    HostCameraScope camera("channels = 1\nchannel.1.resolutions = 16384x16384\n");
    const long frames = stemlib_host_live_objects("VdoFrame");
    const long streams = stemlib_host_live_objects("VdoStream");
    // 32 buffers of 384 MiB, and the generator's background with its disc tables; refused at
    // once, with nothing made.
    newStreamError(settingsMap(16384, 16384, 0, 32), VDO_ERROR_OOM,
                   "a stream of 16384x16384 with 32 buffers needs 12672.1 MiB (12288.0 MiB for "
                   "its buffers and 384.1 MiB for its generator), more than the 1024 MiB that the "
                   "camera's video.memory_limit_mib allows a stream");
    EXPECT_EQ(stemlib_host_live_objects("VdoFrame"), frames);
    EXPECT_EQ(stemlib_host_live_objects("VdoStream"), streams);

    // The camera sets the limit: two buffers of 640x360 and the generator fit in 1 MiB, three
    // do not.
    camera.reload(kSmallCamera + "video.memory_limit_mib = 1\n");
    EXPECT_NE(openStream(settingsMap(640, 360, 0, 2)), nullptr);
    newStreamError(settingsMap(640, 360, 0, 3), VDO_ERROR_OOM,
                   "a stream of 640x360 with 3 buffers needs 1.4 MiB (1.0 MiB for its buffers and "
                   "0.4 MiB for its generator), more than the 1 MiB");
    // An image folder counts the pictures in which it fits and turns each frame.
    ASSERT_TRUE(cv::imwrite(camera.folder() + "/a.png", cv::Mat(36, 64, CV_8UC3)));
    camera.reload(kSmallCamera + "video.memory_limit_mib = 2\nvideo.input = images:.\n");
    EXPECT_NE(openStream(settingsMap(640, 360, 0, 1)), nullptr);
    newStreamError(settingsMap(640, 360, 90, 1), VDO_ERROR_OOM,
                   "a stream of 640x360 with 1 buffer needs 2.4 MiB (0.4 MiB for its buffers and "
                   "2.0 MiB for its image folder), more than the 2 MiB");
}

#ifndef STEMLIB_TEST_ADDRESS_SANITIZER
// In a child process: with the address space limited to 256 MiB beyond what the process has, a
// stream of 792 MiB that the camera's limit allows fails for want of memory, and a small stream
// works afterwards. The outcome goes to standard error; exit status 0 when it is as it must be.
[[noreturn]] void streamBeyondTheAddressSpace() {
    long pages = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%ld", &pages) != 1) {
            pages = 0;
        }
        std::fclose(statm);
    }
    const rlim_t size = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) +
                        rlim_t{256} * 1024 * 1024;
    const rlimit limit{size, size};
    if (pages == 0 || setrlimit(RLIMIT_AS, &limit) != 0) {
        std::fprintf(stderr, "cannot limit the address space\n");
        std::_Exit(2);
    }
    const long frames = stemlib_host_live_objects("VdoFrame");
    GError* error = nullptr;
    VdoStream* stream = vdo_stream_new(settingsMap(4096, 4096, 0, 32).get(), nullptr, &error);
    const bool refused = stream == nullptr && error != nullptr && error->domain == VDO_ERROR &&
                         error->code == VDO_ERROR_OOM;
    std::fprintf(stderr, "%s\n", error != nullptr ? error->message : "no error");
    g_clear_error(&error);
    GPtr<VdoStream> small(vdo_stream_new(settingsMap(640, 360, 0).get(), nullptr, nullptr));
    const bool recovered = small && vdo_stream_start(small.get(), nullptr) &&
                           nextFrame(small.get()) == generatorFrame(640, 360, 0, 0);
    small.reset();
    const bool released = stemlib_host_live_objects("VdoFrame") == frames;
    std::fprintf(stderr, "refused %d, recovered %d, released %d\n", refused, recovered, released);
    std::_Exit(refused && recovered && released ? 0 : 1);
}
#endif

TEST(HostVdoStream, RunningOutOfMemoryFailsTheCallNotTheProcess) {
#ifdef STEMLIB_TEST_ADDRESS_SANITIZER
    GTEST_SKIP() << "AddressSanitizer reserves terabytes of address space, so the test's limit "
                    "on it cannot be set";
#else
    STEMLIB_SKIP_UNDER_EMULATION("the limit it sets on the address space would hold the "
                                 "emulator's own memory, and the program cannot start itself "
                                 "afresh there");
    // The child runs the test program afresh, so no thread of this process is copied into it.
    const std::string style = GTEST_FLAG_GET(death_test_style);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    HostCameraScope camera("channels = 1\nchannel.1.resolutions = 4096x4096\n"
                           "video.memory_limit_mib = 4096\n");
    EXPECT_EXIT(streamBeyondTheAddressSpace(), testing::ExitedWithCode(0),
                "no memory for a stream of 4096x4096 with 32 buffers, which needs 792\\.1 MiB "
                "\\(768\\.0 MiB for its buffers and 24\\.1 MiB for its generator\\)\n"
                "refused 1, recovered 1, released 1");
    GTEST_FLAG_SET(death_test_style, style);
#endif
}

} // namespace
