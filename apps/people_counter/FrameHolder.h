// FrameHolder: the camera's frame of the moment, held once and handed to detectors at any size.
//
// The application takes each frame from the camera once, at the analysis resolution, straight
// into this holder's image buffer; detectors then ask the holder, not the camera, so that they
// see the same frame that is drawn on (a camera source takes a new frame on every request). At
// another size the holder cuts the largest centred region of the requested aspect ratio, as the
// camera source does, and scales it bilinearly; cropFor() gives that region, the rectangle onto
// which a detector maps its results.
//
// Ownership as for ImageBufferFrameSource; no lock, one thread.
#pragma once

#include "ImageBufferFrameSource.h"

namespace PeopleCounting {

class FrameHolder : public Ombrel::ImageBufferFrameSource {
public:
    explicit FrameHolder(const Ombrel::Resolution& resolution);

    bool getFrame(const Ombrel::Resolution& requestedResolution, int rotation,
                  uint8_t* pOutputPixels) override;

    // The centred region of the frame with requested's aspect ratio, in frame pixels.
    Ombrel::IRectangle cropFor(const Ombrel::Resolution& requested) const;
};

} // namespace PeopleCounting
