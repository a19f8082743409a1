// Shared internals of the host video service: errors, fault injection, the camera's channels,
// and the C++ side of a VdoFrame.
#pragma once

#include "FrameGenerator.h"
#include "HostCamera.h"

#include <vdo-buffer.h>
#include <vdo-error.h>
#include <vdo-stream.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <new>
#include <string>
#include <vector>

namespace stemlib_host {

inline void setVdoError(GError** error, int code, const std::string& message) {
    g_set_error_literal(error, VDO_ERROR, code, message.c_str());
}

// Runs body, the work of the C call named call, and turns an exception that escapes it into the
// call's failure: failed is returned, with error set (VDO_ERROR_OOM when memory ran out) unless
// body set it already. No exception leaves a C call. The message is built by GLib, since the
// C++ allocator may be what failed.
template <typename Result, typename Body>
Result guardedCall(const char* call, Result failed, GError** error, Body&& body) noexcept {
    auto fail = [&](int code, const char* what) {
        if (error != nullptr && *error == nullptr) {
            g_set_error(error, VDO_ERROR, code, "%s: %s", call, what);
        }
        return failed;
    };
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return fail(VDO_ERROR_OOM, "out of memory");
    } catch (const std::exception& e) {
        return fail(VDO_ERROR_FAILED, e.what());
    } catch (...) {
        return fail(VDO_ERROR_FAILED, "unknown exception");
    }
}

// Runs body, the work of a C call that has no failure value; an exception that escapes it ends
// the process with a message, as GLib's own allocations do when memory runs out.
template <typename Body>
void abortingCall(const char* call, Body&& body) noexcept {
    try {
        body();
    } catch (const std::exception& e) {
        g_error("%s: %s", call, e.what());
    } catch (...) {
        g_error("%s: unknown exception", call);
    }
}

// True, with error set to VDO_ERROR_FAILED and the requested message, when call is made to fail.
inline bool injectedVdoFailure(const char* call, GError** error) {
    if (std::optional<std::string> message = takeFailure(call)) {
        setVdoError(error, VDO_ERROR_FAILED, *message);
        return true;
    }
    return false;
}

struct ChannelResolution {
    std::uint32_t width;
    std::uint32_t height;
};

// The numbers of the camera's channels ("channels"), in order. False, with error set, when the
// list is missing, empty or not numbers.
bool cameraChannels(const CameraDescription& camera, std::vector<unsigned int>& channels,
                    GError** error);
// The resolutions of one channel ("channel.<n>.resolutions"), largest area first, without
// duplicates. False, with error set, when they are missing or unreadable.
bool channelResolutions(const CameraDescription& camera, unsigned int channel,
                        std::vector<ChannelResolution>& resolutions, GError** error);

// The C++ side of a VdoFrame of a stream's ring.
struct FrameSlot {
    std::vector<std::uint8_t> data;
    gsize size = 0;
    guint64 sequence = 0;
    guint64 timestamp = 0;
    guint id = 0;
    // The stream whose ring holds the frame; compared only, never dereferenced.
    const void* owner = nullptr;
    // Set while the application holds the frame; cleared when its reference is dropped.
    std::atomic<bool> inUse{false};
    FrameGenerator::Damage damage;
    VdoBufferFinalizer finalizer = nullptr;
};

// A new frame of capacity bytes with one reference; fin may be NULL. Throws std::bad_alloc, with
// nothing left behind, when the bytes cannot be had.
VdoFrame* newRingFrame(gsize capacity, guint id, const void* owner, VdoBufferFinalizer fin);
FrameSlot& frameSlot(VdoFrame* frame);

} // namespace stemlib_host
