// ImageFromImageFileSource: an image read once from any file that cv::imread can read (in
// colour, three channels), held red-first for the object's whole life.
//
// The constructor throws std::runtime_error("Failed to load image from file: <name>") after
// logging the same sentence when the file gives no image. Ownership and threading as for
// ImageBufferFrameSource.
#pragma once

#include "ImageBufferFrameSource.h"

namespace Ombrel {

class ImageFromImageFileSource : public ImageBufferFrameSource {
public:
    explicit ImageFromImageFileSource(const std::string& fileName);
};

} // namespace Ombrel
