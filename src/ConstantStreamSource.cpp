#include "ConstantStreamSource.h"

#include "Points.h"

#include <cstring>

namespace Ombrel {

ConstantStreamSource::ConstantStreamSource(uint8_t value)
    : ImageFrameSource(Resolution(1, 1)), _value(value) {}

bool ConstantStreamSource::getFrame(const Resolution& requestedResolution, int /*rotation*/,
                                    uint8_t* pOutputPixels) {
    if (pOutputPixels == nullptr) {
        g_stemlibLogger.error("getFrame: output pointer pOutputPixels is null");
        return false;
    }
    std::memset(pOutputPixels, _value,
                static_cast<std::size_t>(requestedResolution.width) * requestedResolution.height *
                    3);
    return true;
}

} // namespace Ombrel
