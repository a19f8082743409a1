// Dequantizer: turns the bytes of a quantised model output into real values,
// (x - zeroPoint) * scale * extraScale.
//
// A small value type, fixed at construction and safe to share between threads. dequantize<N>
// reads the mapped exchange file of an output tensor (see MemoryMappedFile), which the caller
// owns; it allocates nothing.
#pragma once

#include "MemoryMappedFile.h"
#include "Points.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>

namespace Ombrel {

class Dequantizer {
public:
    // _scale is stored as the product scale * extraScale.
    Dequantizer(uint8_t zeroPoint, float scale, float extraScale);

    // (x - zeroPoint) as an integer, converted to float and multiplied by the scale; negative
    // below the zero point.
    float operator()(uint8_t x) const {
        return static_cast<float>(static_cast<int>(x) - static_cast<int>(_zeroPoint)) * _scale;
    }

    // Applies the operator to nElements bytes of px into py, in order: one subtraction and one
    // multiplication per byte, in a loop the compiler vectorises.
    void dequantize(const uint8_t* px, float* py, int nElements) const;

    // All N bytes of the mapped buffer into array. A missing file or one smaller than N bytes
    // is logged and gives an array of zeros.
    template <std::size_t N>
    void dequantize(std::unique_ptr<MemoryMappedFile>& px, std::array<float, N>& array) const {
        if (!px || px->getBuffer() == nullptr) {
            g_stemlibLogger.error("dequantize: No mapped file to dequantize");
            array.fill(0.0f);
            return;
        }
        if (px->getFileSize() < 0 || static_cast<std::size_t>(px->getFileSize()) < N) {
            g_stemlibLogger.error("dequantize: Mapped file of " +
                                  std::to_string(px->getFileSize()) + " bytes is smaller than " +
                                  std::to_string(N) + " elements");
            array.fill(0.0f);
            return;
        }
        dequantizeBytes(static_cast<const uint8_t*>(px->getBuffer()), array.data(), N);
    }

    uint8_t getZeroPoint() const { return _zeroPoint; }
    float getScale() const { return _scale; }

private:
    void dequantizeBytes(const uint8_t* px, float* py, std::size_t nElements) const;

    uint8_t _zeroPoint;
    float _scale;
};

} // namespace Ombrel
