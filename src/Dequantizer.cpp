#include "Dequantizer.h"

namespace Ombrel {

Dequantizer::Dequantizer(uint8_t zeroPoint, float scale, float extraScale)
    : _zeroPoint(zeroPoint), _scale(scale * extraScale) {}

void Dequantizer::dequantize(const uint8_t* px, float* py, int nElements) const {
    if (nElements <= 0) {
        return;
    }
    if (px == nullptr || py == nullptr) {
        g_stemlibLogger.error("dequantize: Input or output buffer is null");
        return;
    }
    dequantizeBytes(px, py, static_cast<std::size_t>(nElements));
}

void Dequantizer::dequantizeBytes(const uint8_t* px, float* py, std::size_t nElements) const {
    for (std::size_t i = 0; i < nElements; ++i) {
        py[i] = (*this)(px[i]);
    }
}

} // namespace Ombrel
