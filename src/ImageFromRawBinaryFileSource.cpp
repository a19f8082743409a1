#include "ImageFromRawBinaryFileSource.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace Ombrel {

ImageFromRawBinaryFileSource::ImageFromRawBinaryFileSource(const Resolution& imageResolution,
                                                           const std::string& fileName)
    : ImageBufferFrameSource(imageResolution) {
    if (_imageBuffer == nullptr) {
        return;
    }
    std::FILE* file = std::fopen(fileName.c_str(), "rb");
    if (file == nullptr) {
        g_stemlibLogger.error("ImageFromRawBinaryFileSource: Failed to open image file: " +
                              fileName + ": " + std::strerror(errno));
        zeroImageBuffer();
        return;
    }
    const std::size_t nRead = std::fread(_imageBuffer, 1, _imageBufferSize, file);
    std::fclose(file);
    if (nRead < _imageBufferSize) {
        g_stemlibLogger.error(
            "ImageFromRawBinaryFileSource: Failed to read the complete image data from file: " +
            fileName);
        // Keep the picture deterministic: what the file did not hold is black.
        std::memset(_imageBuffer + nRead, 0, _imageBufferSize - nRead);
    }
}

bool ImageFromRawBinaryFileSource::getFrame(const Resolution& requestedResolution, int /*rotation*/,
                                            uint8_t* pOutputPixels) {
    if (requestedResolution != _resolution) {
        g_stemlibLogger.error(
            "getFrame: mismatch in image dimensions. Expect " + std::to_string(_resolution.height) +
            " == " + std::to_string(requestedResolution.height) + " and " +
            std::to_string(_resolution.width) + " == " + std::to_string(requestedResolution.width));
        return false;
    }
    const std::size_t nBytes =
        static_cast<std::size_t>(requestedResolution.width) * requestedResolution.height * 3;
    if (nBytes > _imageBufferSize) {
        g_stemlibLogger.error("getFrame: requested frame size exceeds image size. Requested: " +
                              std::to_string(requestedResolution.height) + "x" +
                              std::to_string(requestedResolution.width) +
                              ", Image: " + std::to_string(_resolution.height) + "x" +
                              std::to_string(_resolution.width));
        return false;
    }
    if (_imageBuffer == nullptr) {
        g_stemlibLogger.error("getFrame: Image data is null");
        return false;
    }
    if (pOutputPixels == nullptr) {
        g_stemlibLogger.error("getFrame: Output pixel buffer is null");
        return false;
    }
    std::memcpy(pOutputPixels, _imageBuffer, nBytes);
    return true;
}

void ImageFromRawBinaryFileSource::writePixelBufferAsPGM(const std::string& filename) const {
    if (_imageBuffer == nullptr) {
        g_stemlibLogger.error("writePixelBufferAsPGM: Image data is null");
        return;
    }
    Ombrel::writePixelBufferAsPGM(filename, _imageBuffer, static_cast<int>(_resolution.width),
                                  static_cast<int>(_resolution.height), 3);
}

} // namespace Ombrel
