// ImageFromRawBinaryFileSource: an image read once from a raw file of pixels.
//
// The file has no header: exactly width * height * 3 bytes in the frame layout (red, green, blue,
// rows from the top, no padding); the caller tells the size. A file that cannot be opened, or
// that is shorter than that, is logged as an error and leaves the object standing: the bytes
// that were not read are zero.
//
// Unlike its base, getFrame does not resize: only the image's own size is served.
// Ownership and threading as for ImageBufferFrameSource.
#pragma once

#include "ImageBufferFrameSource.h"

namespace Ombrel {

class ImageFromRawBinaryFileSource : public ImageBufferFrameSource {
public:
    ImageFromRawBinaryFileSource(const Resolution& imageResolution, const std::string& fileName);

    // Copies the image when requestedResolution equals the image's size; otherwise, or for a
    // null buffer or output, logs and returns false. rotation is ignored.
    bool getFrame(const Resolution& requestedResolution, int rotation,
                  uint8_t* pOutputPixels) override;
    void writePixelBufferAsPGM(const std::string& filename) const override;
};

} // namespace Ombrel
