#include "VideoStreamSource.h"

#include <cstring>

namespace Ombrel {

VideoStreamSource::VideoStreamSource(const Resolution& resolution)
    : ImageBufferFrameSource(resolution) {
    g_stemlibLogger.info("VideoStreamSource: VideoStreamSource constructor from resolution " +
                         resolution.toString());
}

void VideoStreamSource::loadImageData(uint8_t* pImageData) {
    if (!_isDirty) {
        return;
    }
    if (pImageData == nullptr) {
        g_stemlibLogger.error("loadImageData: Input image data pointer is null");
        return;
    }
    if (_imageBuffer == nullptr) {
        return;
    }
    // One frame of the current size; equal to the capacity unless the image was made smaller.
    std::memcpy(_imageBuffer, pImageData,
                static_cast<std::size_t>(_resolution.width) * _resolution.height * 3);
}

} // namespace Ombrel
