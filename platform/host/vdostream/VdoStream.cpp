// VdoStream: a stream of NV12 frames from the simulated camera, through a ring of buffers.
#include "VdoInternal.h"
#include "VideoInput.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

namespace {

using Clock = std::chrono::steady_clock;

constexpr guint32 kDefaultBufferCount = 3;
constexpr guint32 kMaxBufferCount = 32;
constexpr double kMaxFramerate = 1000.0;
// One frame in 1000 seconds at the slowest: a frame's due time stays within the clock's range.
constexpr double kMinFramerate = 0.001;

using stemlib_host::InputLayout;

struct StreamSettings {
    guint32 channel = 0;
    guint32 width = 0;
    guint32 height = 0;
    guint32 rotation = 0;
    double framerate = 0.0;
    guint32 bufferCount = kDefaultBufferCount;
    bool crop = true;

    InputLayout layout() const { return InputLayout{width, height, rotation, crop}; }
    guint32 outWidth() const { return rotation == 90 || rotation == 270 ? height : width; }
    guint32 outHeight() const { return rotation == 90 || rotation == 270 ? width : height; }
    gsize frameSize() const { return gsize{width} * height + gsize{width} * height / 2; }
};

struct StreamImpl {
    StreamSettings settings;
    std::unique_ptr<stemlib_host::VideoInput> input;
    std::vector<VdoFrame*> ring;

    std::mutex mutex;
    std::condition_variable wake;
    bool running = false;
    // Sequence numbering: frames since the last start are due at startTime + k / framerate,
    // k counted from startSequence.
    Clock::time_point startTime;
    std::uint64_t startSequence = 0;
    std::uint64_t nextSequence = 0;
};

// Buffers that the application still held when their stream went away. They stay valid for
// their holder, as the service keeps them, and are released once given back.
std::mutex g_orphanMutex;
GPtrArray* g_orphans = nullptr;

void onToggle(gpointer, GObject* object, gboolean isLastRef) {
    if (isLastRef) {
        stemlib_host::frameSlot(VDO_FRAME(object)).inUse.store(false);
    }
}

// Called with g_orphanMutex held: releases the orphans given back since the last sweep.
void sweepOrphansLocked() {
    if (g_orphans == nullptr) {
        return;
    }
    for (guint i = g_orphans->len; i > 0; --i) {
        GObject* frame = G_OBJECT(g_ptr_array_index(g_orphans, i - 1));
        if (!stemlib_host::frameSlot(VDO_FRAME(frame)).inUse.load()) {
            g_ptr_array_remove_index_fast(g_orphans, i - 1);
            g_object_remove_toggle_ref(frame, onToggle, nullptr);
        }
    }
}

bool readSettings(VdoMap* map, const stemlib_host::CameraDescription& camera,
                  StreamSettings& settings, GError** error) {
    using namespace stemlib_host;
    std::vector<unsigned int> channels;
    if (!cameraChannels(camera, channels, error)) {
        return false;
    }
    settings.channel = vdo_map_get_uint32(map, "channel", channels.front());
    if (std::find(channels.begin(), channels.end(), settings.channel) == channels.end()) {
        setVdoError(error, VDO_ERROR_NOT_FOUND,
                    "channel " + std::to_string(settings.channel) + " does not exist");
        return false;
    }
    const guint32 format = vdo_map_get_uint32(map, "format", VDO_FORMAT_YUV);
    if (format != VDO_FORMAT_YUV) {
        setVdoError(error, VDO_ERROR_NOT_SUPPORTED,
                    "format " + std::to_string(format) +
                        " is not supported by the host camera, only VDO_FORMAT_YUV (3)");
        return false;
    }
    std::vector<ChannelResolution> resolutions;
    if (!channelResolutions(camera, settings.channel, resolutions, error)) {
        return false;
    }
    settings.width = resolutions.front().width;
    settings.height = resolutions.front().height;
    if (const gchar* text = vdo_map_get_string(map, "resolution", nullptr, nullptr)) {
        if (!parseSize(text, settings.width, settings.height)) {
            setVdoError(error, VDO_ERROR_INVALID_ARGUMENT,
                        std::string("resolution \"") + text + "\" is not a size like 1920x1080");
            return false;
        }
    }
    const bool hasWidth = vdo_map_contains(map, "width");
    if (hasWidth != static_cast<bool>(vdo_map_contains(map, "height"))) {
        setVdoError(error, VDO_ERROR_INVALID_ARGUMENT, "width and height must be given together");
        return false;
    }
    if (hasWidth) {
        settings.width = vdo_map_get_uint32(map, "width", 0);
        settings.height = vdo_map_get_uint32(map, "height", 0);
    }
    if (settings.width < 2 || settings.height < 2 || settings.width % 2 != 0 ||
        settings.height % 2 != 0) {
        setVdoError(error, VDO_ERROR_INVALID_ARGUMENT,
                    "width and height must be even and at least 2, not " +
                        std::to_string(settings.width) + "x" + std::to_string(settings.height));
        return false;
    }
    guint32 maxWidth = 0;
    guint32 maxHeight = 0;
    for (const ChannelResolution& r : resolutions) {
        maxWidth = std::max(maxWidth, r.width);
        maxHeight = std::max(maxHeight, r.height);
    }
    const bool fits = (settings.width <= maxWidth && settings.height <= maxHeight) ||
                      (settings.width <= maxHeight && settings.height <= maxWidth);
    if (!fits) {
        setVdoError(error, VDO_ERROR_INVALID_ARGUMENT,
                    std::to_string(settings.width) + "x" + std::to_string(settings.height) +
                        " exceeds the largest resolution of channel " +
                        std::to_string(settings.channel) + ", " + std::to_string(maxWidth) + "x" +
                        std::to_string(maxHeight));
        return false;
    }

    const std::string rotationText = camera.getOr("root.Image.I0.Appearance.Rotation", "0");
    const auto cameraRotation =
        static_cast<guint32>(std::strtoul(rotationText.c_str(), nullptr, 10));
    settings.rotation = vdo_map_get_uint32(map, "rotation", cameraRotation);
    if (settings.rotation != 0 && settings.rotation != 90 && settings.rotation != 180 &&
        settings.rotation != 270) {
        setVdoError(error, VDO_ERROR_INVALID_ARGUMENT,
                    "rotation must be 0, 90, 180 or 270, not " + std::to_string(settings.rotation));
        return false;
    }

    const std::string rateText = camera.getOr("video.framerate", "0");
    char* end = nullptr;
    const double cameraRate = std::strtod(rateText.c_str(), &end);
    if (end == rateText.c_str() || *end != '\0') {
        setVdoError(error, VDO_ERROR_FAILED,
                    camera.origin + ": video.framerate: \"" + rateText + "\" is not a number");
        return false;
    }
    settings.framerate = vdo_map_get_double(map, "framerate", cameraRate);
    if (!(settings.framerate == 0.0 ||
          (settings.framerate >= kMinFramerate && settings.framerate <= kMaxFramerate))) {
        setVdoError(error, VDO_ERROR_INVALID_ARGUMENT,
                    "framerate must be 0 or from 0.001 to 1000, not " +
                        std::to_string(settings.framerate));
        return false;
    }

    settings.bufferCount = vdo_map_get_uint32(map, "buffer.count", kDefaultBufferCount);
    if (settings.bufferCount < 1 || settings.bufferCount > kMaxBufferCount) {
        setVdoError(error, VDO_ERROR_INVALID_ARGUMENT,
                    "buffer.count must be from 1 to 32, not " +
                        std::to_string(settings.bufferCount));
        return false;
    }

    const std::string fit = vdo_map_get_string(map, "image.fit", nullptr, "crop");
    if (fit != "crop" && fit != "scale") {
        setVdoError(error, VDO_ERROR_INVALID_ARGUMENT,
                    "image.fit must be \"crop\" or \"scale\", not \"" + fit + "\"");
        return false;
    }
    settings.crop = fit == "crop";
    return true;
}

} // namespace

struct _VdoStream {
    GObject parent_instance;
    StreamImpl* impl;
};

G_DEFINE_FINAL_TYPE(VdoStream, vdo_stream, G_TYPE_OBJECT)

static void vdo_stream_finalize(GObject* object) {
    VdoStream* self = VDO_STREAM(object);
    std::unique_ptr<StreamImpl> impl(self->impl);
    self->impl = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_orphanMutex);
        sweepOrphansLocked();
        for (VdoFrame* frame : impl->ring) {
            if (stemlib_host::frameSlot(frame).inUse.load()) {
                if (g_orphans == nullptr) {
                    g_orphans = g_ptr_array_new();
                }
                g_ptr_array_add(g_orphans, frame);
            } else {
                g_object_remove_toggle_ref(G_OBJECT(frame), onToggle, nullptr);
            }
        }
    }
    impl.reset();
    stemlib_host::countObject(stemlib_host::ObjectKind::Stream, -1);
    G_OBJECT_CLASS(vdo_stream_parent_class)->finalize(object);
}

static void vdo_stream_class_init(VdoStreamClass* klass) {
    G_OBJECT_CLASS(klass)->finalize = vdo_stream_finalize;
}

static void vdo_stream_init(VdoStream* self) {
    // No exception may pass through GObject's C code: out of memory ends the process here, as in
    // GLib's own allocations.
    self->impl = new (std::nothrow) StreamImpl();
    if (self->impl == nullptr) {
        g_error("VdoStream: out of memory");
    }
    stemlib_host::countObject(stemlib_host::ObjectKind::Stream, 1);
}

namespace {

// The checks that a call on a stream makes first: a stream, then a failure requested for call.
// False, with error set, when the call must fail.
bool admitted(VdoStream* self, const char* call, GError** error) {
    if (!VDO_IS_STREAM(self)) {
        stemlib_host::setVdoError(error, VDO_ERROR_INVALID_ARGUMENT, "not a stream");
        return false;
    }
    return !stemlib_host::injectedVdoFailure(call, error);
}

// Bytes as MiB with one decimal, rounded up, so that a size is never understated.
std::string mebibytes(std::uint64_t bytes) {
    constexpr std::uint64_t kMiB = 1024 * 1024;
    const std::uint64_t tenths = (bytes * 10 + kMiB - 1) / kMiB;
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " MiB";
}

// Opens a stream with settings that readSettings accepted, within the camera's memory limit.
VdoStream* newStream(const StreamSettings& parsed, const stemlib_host::CameraDescription& camera,
                     VdoBufferFinalizer fin, GError** error) {
    using namespace stemlib_host;
    // The memory is checked before any is taken: a stream that cannot have it is refused at
    // once, not after minutes of drawing or an exhausted address space.
    const std::uint64_t ringBytes = std::uint64_t{parsed.bufferCount} * parsed.frameSize();
    const std::uint64_t inputBytes = videoInputBytes(camera, parsed.layout());
    const std::uint64_t limit = streamMemoryLimit(camera);
    const std::string stream = "a stream of " + std::to_string(parsed.width) + "x" +
                               std::to_string(parsed.height) + " with " +
                               std::to_string(parsed.bufferCount) +
                               (parsed.bufferCount == 1 ? " buffer" : " buffers");
    const std::string need = mebibytes(ringBytes + inputBytes) + " (" + mebibytes(ringBytes) +
                             " for its buffers and " + mebibytes(inputBytes) + " for its " +
                             videoInputName(camera) + ")";
    if (ringBytes + inputBytes > limit) {
        setVdoError(error, VDO_ERROR_OOM,
                    stream + " needs " + need + ", more than the " +
                        std::to_string(limit / (1024 * 1024)) +
                        " MiB that the camera's video.memory_limit_mib allows a stream");
        return nullptr;
    }
    auto noMemory = [&] {
        setVdoError(error, VDO_ERROR_OOM, "no memory for " + stream + ", which needs " + need);
        return nullptr;
    };
    std::unique_ptr<VideoInput> input;
    try {
        input = makeVideoInput(camera, parsed.layout(), limit - ringBytes - inputBytes);
    } catch (const std::bad_alloc&) {
        return noMemory();
    } catch (const std::exception& e) {
        setVdoError(error, VDO_ERROR_NO_VIDEO, e.what());
        return nullptr;
    }
    try {
        // Released, with the buffers made so far, when a buffer cannot be had.
        std::unique_ptr<VdoStream, decltype(&g_object_unref)> made(
            VDO_STREAM(g_object_new(VDO_TYPE_STREAM, nullptr)), &g_object_unref);
        StreamImpl& impl = *made->impl;
        impl.settings = parsed;
        impl.input = std::move(input);
        impl.ring.reserve(parsed.bufferCount);
        for (guint i = 0; i < parsed.bufferCount; ++i) {
            VdoFrame* frame = newRingFrame(parsed.frameSize(), i, &impl, fin);
            // The ring keeps a toggle reference, so that it learns when the application lets
            // go.
            g_object_add_toggle_ref(G_OBJECT(frame), onToggle, nullptr);
            g_object_unref(frame);
            impl.ring.push_back(frame);
        }
        return made.release();
    } catch (const std::bad_alloc&) {
        return noMemory();
    }
}

VdoStream* openStream(VdoMap* settings, VdoBufferFinalizer fin, GError** error) {
    using namespace stemlib_host;
    if (settings != nullptr && !VDO_IS_MAP(settings)) {
        setVdoError(error, VDO_ERROR_INVALID_ARGUMENT, "settings is not a VdoMap");
        return nullptr;
    }
    if (injectedVdoFailure("vdo_stream_new", error)) {
        return nullptr;
    }
    const std::shared_ptr<const CameraDescription> description = camera();
    StreamSettings parsed;
    if (!readSettings(settings, *description, parsed, error)) {
        return nullptr;
    }
    return newStream(parsed, *description, fin, error);
}

} // namespace

VdoStream* vdo_stream_new(VdoMap* settings, VdoBufferFinalizer fin, GError** error) {
    return stemlib_host::guardedCall("vdo_stream_new", static_cast<VdoStream*>(nullptr), error,
                                     [&] { return openStream(settings, fin, error); });
}

namespace {

gboolean attach(VdoStream* self, VdoMap* intent, GError** error) {
    using namespace stemlib_host;
    if (!VDO_IS_STREAM(self) || (intent != nullptr && !VDO_IS_MAP(intent))) {
        setVdoError(error, VDO_ERROR_INVALID_ARGUMENT, "not a stream or not a VdoMap");
        return FALSE;
    }
    return injectedVdoFailure("vdo_stream_attach", error) ? FALSE : TRUE;
}

} // namespace

gboolean vdo_stream_attach(VdoStream* self, VdoMap* intent, GError** error) {
    return stemlib_host::guardedCall("vdo_stream_attach", gboolean{FALSE}, error,
                                     [&] { return attach(self, intent, error); });
}

namespace {

VdoMap* settingsOf(VdoStream* self, GError** error) {
    if (!admitted(self, "vdo_stream_get_settings", error)) {
        return nullptr;
    }
    const StreamSettings& s = self->impl->settings;
    VdoMap* map = vdo_map_new();
    vdo_map_set_uint32(map, "channel", s.channel);
    vdo_map_set_uint32(map, "format", VDO_FORMAT_YUV);
    vdo_map_set_uint32(map, "width", s.width);
    vdo_map_set_uint32(map, "height", s.height);
    vdo_map_set_uint32(map, "rotation", s.rotation);
    vdo_map_set_double(map, "framerate", s.framerate);
    vdo_map_set_uint32(map, "buffer.count", s.bufferCount);
    vdo_map_set_string(map, "image.fit", s.crop ? "crop" : "scale");
    return map;
}

} // namespace

VdoMap* vdo_stream_get_settings(VdoStream* self, GError** error) {
    return stemlib_host::guardedCall("vdo_stream_get_settings", static_cast<VdoMap*>(nullptr),
                                     error, [&] { return settingsOf(self, error); });
}

namespace {

VdoMap* infoOf(VdoStream* self, GError** error) {
    if (!admitted(self, "vdo_stream_get_info", error)) {
        return nullptr;
    }
    const StreamSettings& s = self->impl->settings;
    VdoMap* map = vdo_map_new();
    vdo_map_set_uint32(map, "format", VDO_FORMAT_YUV);
    vdo_map_set_uint32(map, "width", s.outWidth());
    vdo_map_set_uint32(map, "height", s.outHeight());
    vdo_map_set_uint32(map, "pitch", s.outWidth());
    vdo_map_set_uint32(map, "rotation", s.rotation);
    vdo_map_set_double(map, "framerate", s.framerate);
    vdo_map_set_uint32(map, "buffer.count", s.bufferCount);
    return map;
}

} // namespace

VdoMap* vdo_stream_get_info(VdoStream* self, GError** error) {
    return stemlib_host::guardedCall("vdo_stream_get_info", static_cast<VdoMap*>(nullptr), error,
                                     [&] { return infoOf(self, error); });
}

namespace {

gboolean start(VdoStream* self, GError** error) {
    if (!admitted(self, "vdo_stream_start", error)) {
        return FALSE;
    }
    StreamImpl& impl = *self->impl;
    std::lock_guard<std::mutex> lock(impl.mutex);
    if (!impl.running) {
        impl.running = true;
        impl.startTime = Clock::now();
        impl.startSequence = impl.nextSequence;
    }
    return TRUE;
}

} // namespace

gboolean vdo_stream_start(VdoStream* self, GError** error) {
    return stemlib_host::guardedCall("vdo_stream_start", gboolean{FALSE}, error,
                                     [&] { return start(self, error); });
}

void vdo_stream_stop(VdoStream* self) {
    g_return_if_fail(VDO_IS_STREAM(self));
    StreamImpl& impl = *self->impl;
    {
        std::lock_guard<std::mutex> lock(impl.mutex);
        impl.running = false;
    }
    impl.wake.notify_all();
}

namespace {

VdoBuffer* nextBuffer(VdoStream* self, GError** error) {
    using namespace stemlib_host;
    if (!admitted(self, "vdo_stream_get_buffer", error)) {
        return nullptr;
    }
    StreamImpl& impl = *self->impl;
    std::unique_lock<std::mutex> lock(impl.mutex);
    if (!impl.running) {
        setVdoError(error, VDO_ERROR_CLOSED, "the stream is not running");
        return nullptr;
    }
    VdoFrame* frame = nullptr;
    for (VdoFrame* candidate : impl.ring) {
        bool expected = false;
        if (frameSlot(candidate).inUse.compare_exchange_strong(expected, true)) {
            frame = candidate;
            break;
        }
    }
    if (frame == nullptr) {
        setVdoError(error, VDO_ERROR_NO_BUFFER_SPACE,
                    "all " + std::to_string(impl.ring.size()) +
                        " buffers of the stream are held by the application; give them back "
                        "with vdo_stream_buffer_unref");
        return nullptr;
    }
    std::uint64_t sequence = impl.nextSequence;
    const double rate = impl.settings.framerate;
    if (rate > 0.0) {
        // The newest frame that is due, or else the next one, waited for. A late caller
        // skips frames, as on the camera.
        const double elapsed = std::chrono::duration<double>(Clock::now() - impl.startTime).count();
        const std::uint64_t due =
            impl.startSequence + static_cast<std::uint64_t>(std::floor(elapsed * rate));
        sequence = std::max(sequence, due);
        const auto dueTime =
            impl.startTime +
            std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                static_cast<double>(sequence - impl.startSequence) / rate));
        const bool stopped = impl.wake.wait_until(lock, dueTime, [&impl] { return !impl.running; });
        if (stopped) {
            frameSlot(frame).inUse.store(false);
            setVdoError(error, VDO_ERROR_CLOSED, "the stream was stopped");
            return nullptr;
        }
    }
    FrameSlot& slot = frameSlot(frame);
    std::string problem;
    bool produced = false;
    try {
        produced = impl.input->produce(sequence, slot.data.data(), slot.damage, problem);
    } catch (...) {
        // The buffer goes back to the ring, to be drawn whole the next time; the call fails.
        slot.damage.valid = false;
        slot.inUse.store(false);
        throw;
    }
    if (!produced) {
        slot.inUse.store(false);
        setVdoError(error, VDO_ERROR_IO, problem);
        return nullptr;
    }
    impl.nextSequence = sequence + 1;
    slot.sequence = sequence;
    slot.size = impl.settings.frameSize();
    slot.timestamp = static_cast<guint64>(g_get_monotonic_time());
    // The application's reference; dropping it gives the buffer back to the ring.
    g_object_ref(frame);
    return frame;
}

} // namespace

VdoBuffer* vdo_stream_get_buffer(VdoStream* self, GError** error) {
    return stemlib_host::guardedCall("vdo_stream_get_buffer", static_cast<VdoBuffer*>(nullptr),
                                     error, [&] { return nextBuffer(self, error); });
}

namespace {

gboolean giveBack(VdoStream* self, VdoBuffer** buffer, GError** error) {
    using namespace stemlib_host;
    if (!VDO_IS_STREAM(self) || buffer == nullptr || !VDO_IS_FRAME(*buffer)) {
        setVdoError(error, VDO_ERROR_INVALID_ARGUMENT, "not a stream or not a buffer");
        return FALSE;
    }
    FrameSlot& slot = frameSlot(*buffer);
    if (slot.owner != self->impl) {
        setVdoError(error, VDO_ERROR_INVALID_ARGUMENT, "the buffer belongs to another stream");
        return FALSE;
    }
    if (!slot.inUse.load()) {
        setVdoError(error, VDO_ERROR_INVALID_ARGUMENT, "the buffer was given back already");
        return FALSE;
    }
    if (injectedVdoFailure("vdo_stream_buffer_unref", error)) {
        return FALSE;
    }
    VdoBuffer* released = *buffer;
    *buffer = nullptr;
    g_object_unref(released);
    return TRUE;
}

} // namespace

gboolean vdo_stream_buffer_unref(VdoStream* self, VdoBuffer** buffer, GError** error) {
    return stemlib_host::guardedCall("vdo_stream_buffer_unref", gboolean{FALSE}, error,
                                     [&] { return giveBack(self, buffer, error); });
}
