// ConstantStreamSource: a frame source whose every byte is one value, for tests and for
// applications that need a stand-in picture.
//
// getResolution reports 1 by 1 whatever size is asked for; getFrame fills a frame of any size.
// Holds no buffer; no lock.
#pragma once

#include "ImageFrameSource.h"

namespace Ombrel {

class ConstantStreamSource : public ImageFrameSource {
public:
    explicit ConstantStreamSource(uint8_t value);

    // Writes requestedResolution.area() * 3 bytes of the value and returns true. rotation is
    // ignored. A null pOutputPixels is logged and answered with false.
    bool getFrame(const Resolution& requestedResolution, int rotation,
                  uint8_t* pOutputPixels) override;

protected:
    uint8_t _value;
};

} // namespace Ombrel
