#include "AxisVideoStreamSource.h"

#include "CameraManager.h"
#include "GErrorMessage.h"
#include "imgconverter.h"

#include <vdo-stream.h>

#include <cstdint>
#include <exception>
#include <limits>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace Ombrel {

namespace {

using detail::takeErrorMessage;

struct GObjectUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;

// The next camera buffer; null, after logging under function's name, when none comes.
VdoBuffer* takeBuffer(VdoStream* stream, const char* function) {
    GError* error = nullptr;
    VdoBuffer* buffer = vdo_stream_get_buffer(stream, &error);
    if (buffer == nullptr) {
        g_stemlibLogger.error(std::string(function) + ": Failed to get VDO buffer. " +
                              takeErrorMessage(error));
    }
    return buffer;
}

// Gives the buffer back to the stream; false, after logging under function's name, when the
// stream refuses it.
bool giveBack(VdoStream* stream, VdoBuffer* buffer, const char* function) {
    GError* error = nullptr;
    if (!vdo_stream_buffer_unref(stream, &buffer, &error)) {
        g_stemlibLogger.error(std::string(function) +
                              ": Failed to release VDO stream buffer: " + takeErrorMessage(error));
        return false;
    }
    return true;
}

} // namespace

AxisVideoStreamSource::AxisVideoStreamSource(const Resolution& resolution)
    : VideoStreamSource(resolution) {
    // The base refuses an image buffer beyond what its capacity can count and leaves a 0 by 0
    // image; the stream would then be asked for 0x0 and blame that size instead.
    if (!(_resolution == resolution)) {
        const std::string text =
            "Image of " + std::to_string(resolution.width) + "x" +
            std::to_string(resolution.height) + " is too large: " +
            std::to_string(std::uint64_t{resolution.width} * resolution.height * 3) +
            " bytes of RGB, more than an image buffer can hold (" +
            std::to_string(std::numeric_limits<unsigned int>::max()) + ")";
        g_stemlibLogger.error("AxisVideoStreamSource: " + text);
        throw std::runtime_error(text);
    }
    // The manager lives until the end of the constructor, as in the order of opening.
    AxisCameraManager cameraManager("Stemlib");
    _cameraRotation = cameraManager.getCameraRotation();

    g_stemlibLogger.info("AxisVideoStreamSource: AxisVideoStreamSource constructor from "
                         "resolution called with resolution (W H) = " +
                         _resolution.toString() + " and rotation " +
                         std::to_string(_cameraRotation));

    // Failure texts overwrite this one from its first character: whatever of it lies beyond
    // a shorter text stays as the tail of the logged line and of the exception.
    std::stringstream errorStream("AxisVideoStreamSource::AxisVideoStreamSource error :",
                                  std::ios::in | std::ios::out);
    GError* error = nullptr;
    // Logs the failure and gives the text for the exception.
    auto fail = [&](const char* sentence) {
        errorStream << sentence << takeErrorMessage(error);
        g_stemlibLogger.error("AxisVideoStreamSource: " + errorStream.str());
        return errorStream.str();
    };

    // Held until the stream runs, so that a failed construction gives back what it made.
    const bool landscape = resolution.width > resolution.height;
    GObjectPtr<VdoMap> settings(vdo_map_new());
    vdo_map_set_uint32(settings.get(), "channel", 1);
    vdo_map_set_uint32(settings.get(), "format", VDO_FORMAT_YUV);
    vdo_map_set_uint32(settings.get(), "width", landscape ? _resolution.width : _resolution.height);
    vdo_map_set_uint32(settings.get(), "height",
                       landscape ? _resolution.height : _resolution.width);
    vdo_map_set_uint32(settings.get(), "rotation", static_cast<guint32>(_cameraRotation));

    GObjectPtr<VdoStream> stream(vdo_stream_new(settings.get(), nullptr, &error));
    if (!stream) {
        throw std::runtime_error(fail("Failed to create new VDO stream from settings. "));
    }
    settings.reset();

    if (!vdo_stream_attach(stream.get(), nullptr, &error)) {
        throw std::runtime_error(fail("Failed to attach VDO stream to stream. "));
    }

    if (GObjectPtr<VdoMap> current{vdo_stream_get_settings(stream.get(), &error)}) {
        g_stemlibLogger.info(
            "AxisVideoStreamSource: Starting stream: VDO_FORMAT_YUV, " +
            std::to_string(vdo_map_get_uint32(current.get(), "width", 0)) + "x" +
            std::to_string(vdo_map_get_uint32(current.get(), "height", 0)) + ", rotation " +
            std::to_string(vdo_map_get_uint32(current.get(), "rotation", 0)) + ", " +
            std::to_string(vdo_map_get_uint32(current.get(), "framerate", 0)) + " fps");
    } else {
        // Only logged: the stream can start without its settings being read back.
        fail("Failed to attach retrieve VDO stream settings. ");
    }

    if (!vdo_stream_start(stream.get(), &error)) {
        throw std::runtime_error(fail("Failed to start VDO stream. "));
    }
    _vdoStream = stream.release();

    g_stemlibLogger.info("AxisVideoStreamSource: Successfully created VideoStreamSource instance");
}

AxisVideoStreamSource::~AxisVideoStreamSource() {
    if (_vdoStream != nullptr) {
        g_object_unref(_vdoStream);
    }
}

void AxisVideoStreamSource::loadImageData(uint8_t* pImageData) {
    if (pImageData == nullptr) {
        g_stemlibLogger.error("loadImageData: Input YUV image data pointer is null");
        return;
    }
    if (!_isDirty) {
        return;
    }
    // A turned camera delivers the picture turned: height pixels wide, width pixels tall.
    if (_cameraRotation == 90 || _cameraRotation == 270) {
        convertU8yuvToRGBlibYuv(_resolution.height, _resolution.width, pImageData, _imageBuffer);
    } else {
        convertU8yuvToRGBlibYuv(_resolution.width, _resolution.height, pImageData, _imageBuffer);
    }
}

bool AxisVideoStreamSource::loadFrameFromCamera() {
    if (!_isDirty) {
        return true;
    }
    VdoBuffer* buffer = takeBuffer(_vdoStream, "loadFrameFromCamera");
    if (buffer == nullptr) {
        return false;
    }
    loadImageData(static_cast<uint8_t*>(vdo_buffer_get_data(buffer)));
    return giveBack(_vdoStream, buffer, "loadFrameFromCamera");
}

bool AxisVideoStreamSource::getFrame(const Resolution& requestedResolution, int rotation,
                                     uint8_t* pOutputPixels) {
    if (pOutputPixels == nullptr) {
        // No frame can be delivered, so no camera buffer is taken.
        g_stemlibLogger.error("getFrame: output pointer pOutputPixels is null");
        return false;
    }
    VdoBuffer* buffer = takeBuffer(_vdoStream, "getFrame");
    if (buffer == nullptr) {
        return false;
    }
    try {
        uint8_t* data = static_cast<uint8_t*>(vdo_buffer_get_data(buffer));
        const unsigned int w = _resolution.width;
        const unsigned int h = _resolution.height;
        const unsigned int rw = requestedResolution.width;
        const unsigned int rh = requestedResolution.height;
        const bool straight = rw == w && rh == h;
        const bool transposed = rw == h && rh == w;
        bool converted = true;
        // The rows of the choice are tried in order; the exact-size rows go through the image
        // buffer, every other size through crop and scale, where rotation plays no part.
        if (_cameraRotation == 0 || _cameraRotation == 180) {
            if (straight && rotation == 0) {
                loadImageData(data);
                rotate0(_imageBuffer, pOutputPixels);
            } else if (straight && rotation == 180) {
                loadImageData(data);
                rotate180(_imageBuffer, pOutputPixels);
            } else if (transposed && rotation == 90) {
                loadImageData(data);
                rotate90(_imageBuffer, pOutputPixels);
            } else if (transposed && rotation == 270) {
                loadImageData(data);
                rotate270(_imageBuffer, pOutputPixels);
            } else {
                converted = convertCropScaleU8yuvToRGB(data, w, h, pOutputPixels, rw, rh);
            }
        } else if (_cameraRotation == 90 || _cameraRotation == 270) {
            if (straight && rotation == 0) {
                loadImageData(data);
                rotate0(_imageBuffer, pOutputPixels);
            } else if (transposed && rotation == 180) {
                loadImageData(data);
                rotate180(_imageBuffer, pOutputPixels);
            } else if (straight && rotation == 90) {
                loadImageData(data);
                rotate90_R90(_imageBuffer, pOutputPixels);
            } else if (straight && rotation == 270) {
                loadImageData(data);
                rotate270_R90(_imageBuffer, pOutputPixels);
            } else {
                converted = convertCropScaleU8yuvToRGB(data, h, w, pOutputPixels, rw, rh);
            }
        }
        if (!converted) {
            // The buffer is not given back on this path.
            g_stemlibLogger.error(
                "getFrame: convertCropScaleU8yuvToRGB failed to convert YUV data to RGB data.");
            return false;
        }
    } catch (...) {
        g_stemlibLogger.error("getFrame: Unexpected error while converting YUV data to RGB.");
        return false;
    }
    return giveBack(_vdoStream, buffer, "getFrame");
}

cv::Mat AxisVideoStreamSource::toCVMat() const {
    // A turned camera's picture keeps the shape of _resolution here too: the turned layout of the
    // image buffer is not taken into account.
    return VideoStreamSource::toCVMat();
}

} // namespace Ombrel
