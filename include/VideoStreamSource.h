// VideoStreamSource: a frame source fed with whole frames, the base of the camera stream source.
//
// It is an ImageBufferFrameSource whose image is replaced by loadImageData while the dirty flag
// is set. The flag starts true and only setIsDirty changes it: an application clears it to hold
// the current frame (for instance while it analyses several patches of it) and sets it again
// to take new frames. getFrame is the one of ImageBufferFrameSource, so an application can push
// RGB frames into this class and hand it to any detector.
//
// Ownership and threading as for ImageBufferFrameSource.
#pragma once

#include "ImageBufferFrameSource.h"

namespace Ombrel {

class VideoStreamSource : public ImageBufferFrameSource {
public:
    // The buffer at resolution, uninitialised, with the dirty flag set. Logs one info line.
    explicit VideoStreamSource(const Resolution& resolution);

    // While the flag is set, copies one RGB frame of the current resolution from pImageData
    // (which must hold it) into the image buffer. With the flag clear it does nothing at all; a
    // null pointer is logged.
    virtual void loadImageData(uint8_t* pImageData);

    void setIsDirty(bool isDirty) { _isDirty = isDirty; }
    bool isDirty() const { return _isDirty; }

protected:
    bool _isDirty = true;
};

} // namespace Ombrel
