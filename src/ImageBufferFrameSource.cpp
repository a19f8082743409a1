#include "ImageBufferFrameSource.h"

#include <opencv2/imgproc.hpp>

#include <cstring>
#include <limits>

namespace Ombrel {

namespace {

constexpr std::size_t kPixelBytes = 3;

std::size_t frameBytes(const Resolution& resolution) {
    return static_cast<std::size_t>(resolution.width) * resolution.height * kPixelBytes;
}

bool hasNegativeSize(const IRectangle& rectangle) {
    return rectangle.width < 0 || rectangle.height < 0;
}

} // namespace

ImageBufferFrameSource::ImageBufferFrameSource(const Resolution& resolution) {
    setImageBufferResolution(resolution);
}

ImageBufferFrameSource::ImageBufferFrameSource(const Resolution& resolution,
                                               const uint8_t* rgbPixelData) {
    if (!allocateImageBuffer(resolution, "ImageBufferFrameSource")) {
        return;
    }
    if (rgbPixelData == nullptr) {
        g_stemlibLogger.error("ImageBufferFrameSource: Input pixel data is null");
        std::memset(_imageBuffer, 0, _imageBufferSize);
        return;
    }
    std::memcpy(_imageBuffer, rgbPixelData, _imageBufferSize);
}

ImageBufferFrameSource::ImageBufferFrameSource(const cv::Mat& image) {
    if (!allocateImageBuffer(Resolution(static_cast<unsigned int>(std::max(image.cols, 0)),
                                        static_cast<unsigned int>(std::max(image.rows, 0))),
                             "ImageBufferFrameSource")) {
        return;
    }
    if (image.empty()) {
        return;
    }
    if (image.type() != CV_8UC3 || image.dims != 2) {
        g_stemlibLogger.error("ImageBufferFrameSource: Expected an 8-bit three-channel image, "
                              "got OpenCV type " +
                              std::to_string(image.type()));
        std::memset(_imageBuffer, 0, _imageBufferSize);
        return;
    }
    // Row by row, so that a matrix that is a view into a larger one copies correctly too.
    const std::size_t rowBytes = static_cast<std::size_t>(_resolution.width) * kPixelBytes;
    for (unsigned int row = 0; row < _resolution.height; ++row) {
        std::memcpy(_imageBuffer + row * rowBytes, image.ptr<uint8_t>(static_cast<int>(row)),
                    rowBytes);
    }
    convertBGRToRGB();
}

bool ImageBufferFrameSource::allocateImageBuffer(const Resolution& resolution,
                                                 const char* function) {
    const std::size_t nBytes = frameBytes(resolution);
    if (nBytes > std::numeric_limits<unsigned int>::max()) {
        g_stemlibLogger.error(std::string(function) + ": Image of " + resolution.toString() +
                              " is too large");
        _resolution = Resolution(0, 0);
        return false;
    }
    _resolution = resolution;
    _imageBuffer = new uint8_t[nBytes];
    _imageBufferSize = static_cast<unsigned int>(nBytes);
    return true;
}

ImageBufferFrameSource::~ImageBufferFrameSource() {
    delete[] _imageBuffer;
}

bool ImageBufferFrameSource::getFrame(const Resolution& requestedResolution, int rotation,
                                      uint8_t* pOutputPixels) {
    if (pOutputPixels == nullptr) {
        g_stemlibLogger.error("getFrame: output pointer pOutputPixels is null");
        return false;
    }
    if (_imageBuffer == nullptr) {
        g_stemlibLogger.error("getFrame: _imageBuffer is null");
        return false;
    }
    if (requestedResolution == _resolution) {
        std::memcpy(pOutputPixels, _imageBuffer, frameBytes(_resolution));
    } else {
        resizeTo(requestedResolution, rotation, pOutputPixels);
    }
    return true;
}

void ImageBufferFrameSource::writePixelBufferAsPGM(const std::string& filename) const {
    if (_imageBuffer == nullptr) {
        g_stemlibLogger.error("writePixelBufferAsPGM: Image buffer is null");
        return;
    }
    Ombrel::writePixelBufferAsPGM(filename, _imageBuffer, static_cast<int>(_resolution.width),
                                  static_cast<int>(_resolution.height), 3);
}

void ImageBufferFrameSource::writePixelBufferAsImage(const std::string& filename) const {
    if (_imageBuffer == nullptr) {
        g_stemlibLogger.error("writePixelBufferAsImage: Image buffer is null");
        return;
    }
    Ombrel::writePixelBufferAsImage(filename, _imageBuffer, static_cast<int>(_resolution.width),
                                    static_cast<int>(_resolution.height), 3);
}

cv::Mat ImageBufferFrameSource::toCVMat() const {
    if (_imageBuffer == nullptr || _resolution.area() == 0) {
        g_stemlibLogger.error("toCVMat: Image buffer is null");
        return cv::Mat();
    }
    cv::Mat image(static_cast<int>(_resolution.height), static_cast<int>(_resolution.width),
                  CV_8UC3, _imageBuffer);
    cv::cvtColor(image, image, cv::COLOR_RGB2BGR);
    return image.clone();
}

uint8_t* ImageBufferFrameSource::getPointerToPixel(const IPoint& point) const {
    if (point.x < 0 || point.y < 0 || static_cast<unsigned int>(point.x) >= _resolution.width ||
        static_cast<unsigned int>(point.y) >= _resolution.height || _imageBuffer == nullptr) {
        g_stemlibLogger.error("getPointerToPixel: Invalid pixel coordinates: " + point.toString() +
                              ". Valid range is (0,0) to (" +
                              std::to_string(static_cast<long long>(_resolution.width) - 1) + "," +
                              std::to_string(static_cast<long long>(_resolution.height) - 1) + ")");
        return nullptr;
    }
    return _imageBuffer + (static_cast<std::size_t>(point.y) * _resolution.width +
                           static_cast<std::size_t>(point.x)) *
                              kPixelBytes;
}

void ImageBufferFrameSource::setImageBufferResolution(const Resolution& imageResolution) {
    _resolution = imageResolution;
    const std::size_t nBytes = frameBytes(imageResolution);
    if (nBytes <= _imageBufferSize) {
        return;
    }
    if (nBytes > std::numeric_limits<unsigned int>::max()) {
        // Beyond what the capacity can count: refuse rather than wrap around.
        g_stemlibLogger.error("setImageBufferResolution: requested frame size (" +
                              std::to_string(nBytes) + ") is too large. Image set to 0 0.");
        _resolution = Resolution(0, 0);
        return;
    }
    g_stemlibLogger.info("setImageBufferResolution: requested frame size (" +
                         std::to_string(nBytes) + ") exceeds image buffer size (" +
                         std::to_string(_imageBufferSize) + "). Resizing image buffer.");
    delete[] _imageBuffer;
    _imageBuffer = nullptr;
    _imageBufferSize = 0;
    _imageBuffer = new uint8_t[nBytes];
    _imageBufferSize = static_cast<unsigned int>(nBytes);
}

void ImageBufferFrameSource::resizeTo(const Resolution& requestedResolution, int /*rotation*/,
                                      uint8_t* pOutputPixels) const {
    if (pOutputPixels == nullptr) {
        g_stemlibLogger.error("resizeTo: output pointer pOutputPixels is null");
        return;
    }
    if (requestedResolution.width == 0 || requestedResolution.height == 0) {
        return;
    }
    constexpr unsigned int kMaxSide = 1u << 24;
    if (_resolution.width >= kMaxSide || _resolution.height >= kMaxSide) {
        // Beyond single precision's exact integers; no real image comes near.
        g_stemlibLogger.error("resizeTo: Source resolution " + _resolution.toString() +
                              " is too large");
        return;
    }
    const float widthScale =
        static_cast<float>(_resolution.width) / static_cast<float>(requestedResolution.width);
    const float heightScale =
        static_cast<float>(_resolution.height) / static_cast<float>(requestedResolution.height);
    const std::size_t sourceWidth = _resolution.width;
    const std::size_t capacity = _imageBufferSize;
    const unsigned int outWidth = requestedResolution.width;

    // The byte offset of each output column's sample within a row, computed once per call.
    // Widths up to kMaxTableWidth use a table on the stack, so no call allocates.
    constexpr unsigned int kMaxTableWidth = 8192;
    uint32_t columnOffsets[kMaxTableWidth];
    const bool useTable = outWidth <= kMaxTableWidth;
    // c * widthScale lies in [0, sourceWidth], so the conversion is always defined.
    auto srcXOf = [widthScale](unsigned int c) {
        return static_cast<uint32_t>(static_cast<float>(c) * widthScale);
    };
    if (useTable) {
        for (unsigned int c = 0; c < outWidth; ++c) {
            columnOffsets[c] = srcXOf(c) * static_cast<uint32_t>(kPixelBytes);
        }
    }
    // The samples grow with the column, so the last one bounds a whole row.
    const std::size_t lastX = srcXOf(outWidth - 1);

    uint8_t* dest = pOutputPixels;
    for (unsigned int r = 0; r < requestedResolution.height; ++r) {
        const std::size_t srcY = static_cast<uint32_t>(static_cast<float>(r) * heightScale);
        const std::size_t rowStart = sourceWidth * srcY;
        if (useTable && (rowStart + lastX) * kPixelBytes + 2 < capacity) {
            const uint8_t* sourceRow = _imageBuffer + rowStart * kPixelBytes;
            unsigned int c = 0;
            // Four bytes a pixel where both sides have a byte to spare: the fourth lands on the
            // next output pixel, which is written right after.
            if ((rowStart + lastX) * kPixelBytes + 3 < capacity) {
                for (; c + 1 < outWidth; ++c, dest += kPixelBytes) {
                    std::memcpy(dest, sourceRow + columnOffsets[c], 4);
                }
            }
            for (; c < outWidth; ++c, dest += kPixelBytes) {
                const uint8_t* source = sourceRow + columnOffsets[c];
                dest[0] = source[0];
                dest[1] = source[1];
                dest[2] = source[2];
            }
            continue;
        }
        for (unsigned int c = 0; c < outWidth; ++c, dest += kPixelBytes) {
            const std::size_t srcIndex = (rowStart + srcXOf(c)) * kPixelBytes;
            if (!(srcIndex + 2 < capacity)) {
                g_stemlibLogger.error(
                    "resizeTo: source index out of bounds srcIndex: " + std::to_string(srcIndex) +
                    " _imageBufferSize: " + std::to_string(capacity));
                continue;
            }
            const uint8_t* source = _imageBuffer + srcIndex;
            dest[0] = source[0];
            dest[1] = source[1];
            dest[2] = source[2];
        }
    }
}

void ImageBufferFrameSource::zeroImageBuffer() {
    if (_imageBuffer == nullptr) {
        g_stemlibLogger.error("zeroImageBuffer: _imageBuffer is null");
        return;
    }
    std::memset(_imageBuffer, 0, _imageBufferSize);
}

void ImageBufferFrameSource::convertBGRToRGB() {
    if (_imageBuffer == nullptr) {
        g_stemlibLogger.error("convertBGRToRGB: _imageBuffer is null");
        return;
    }
    for (unsigned int i = 0; i + 2 < _imageBufferSize; i += 3) {
        std::swap(_imageBuffer[i], _imageBuffer[i + 2]);
    }
}

bool ImageBufferFrameSource::validPatchCoordinates(const IRectangle& rectangle,
                                                   const Resolution& imageResolution) {
    // In 64 bits, so that no sum of two ints can overflow.
    const long long x = rectangle.x;
    const long long y = rectangle.y;
    if (x < 0 || y < 0) {
        return false;
    }
    if (x + rectangle.width > static_cast<long long>(imageResolution.width)) {
        return false;
    }
    if (y + rectangle.height > static_cast<long long>(imageResolution.height)) {
        return false;
    }
    return true;
}

void ImageBufferFrameSource::loadImagePatch(ImageBufferFrameSource& videoStreamSource,
                                            const IRectangle& rectangle) {
    const Resolution videoResolution = videoStreamSource.getResolution();
    if (!validPatchCoordinates(rectangle, videoResolution) || hasNegativeSize(rectangle)) {
        g_stemlibLogger.error(
            "loadImagePatch: Invalid input patch rectangle coordinates: " + rectangle.toString() +
            " for video stream resolution: " + videoResolution.toString());
        return;
    }
    // Taken before this object changes, so that a patch of this object itself can be loaded:
    // the patch lies inside the image, so the buffer is not reallocated, and each row moves to
    // a place no later than its own.
    const uint8_t* sourceBuffer = videoStreamSource.getImageData();
    const std::size_t sourceWidth = videoResolution.width;
    setImageBufferResolution(Resolution(static_cast<unsigned int>(rectangle.width),
                                        static_cast<unsigned int>(rectangle.height)));
    const std::size_t rowBytes = static_cast<std::size_t>(_resolution.width) * kPixelBytes;
    for (unsigned int row = 0; row < _resolution.height; ++row) {
        if (sourceBuffer == nullptr) {
            g_stemlibLogger.error("loadImagePatch: Failed to get pointer to pixel in "
                                  "VideoStreamSource");
            return;
        }
        const std::size_t srcY = static_cast<std::size_t>(rectangle.y) + row;
        const uint8_t* source =
            sourceBuffer +
            (srcY * sourceWidth + static_cast<std::size_t>(rectangle.x)) * kPixelBytes;
        std::memmove(_imageBuffer + row * rowBytes, source, rowBytes);
    }
}

void ImageBufferFrameSource::loadImagePatch(ImageBufferFrameSource& videoStreamSource,
                                            const IRectangle& imageRectangle,
                                            const IRectangle& containingRectangle) {
    const Resolution videoResolution = videoStreamSource.getResolution();
    if (!validPatchCoordinates(containingRectangle, videoResolution) ||
        hasNegativeSize(containingRectangle)) {
        g_stemlibLogger.error("loadImagePatch: Invalid input containing rectangle coordinates: " +
                              containingRectangle.toString() +
                              " for video stream resolution: " + videoResolution.toString());
        return;
    }
    const IRectangle& image = imageRectangle;
    const IRectangle& containing = containingRectangle;
    if (image.x < containing.x || image.y < containing.y ||
        static_cast<long long>(image.x) + image.width >
            static_cast<long long>(containing.x) + containing.width ||
        static_cast<long long>(image.y) + image.height >
            static_cast<long long>(containing.y) + containing.height ||
        hasNegativeSize(image)) {
        g_stemlibLogger.error(
            "loadImagePatch: Invalid input image rectangle coordinates: " + image.toString() +
            " for containing rectangle: " + containing.toString());
        return;
    }
    if (&videoStreamSource == this) {
        // The buffer is blackened before the copy, which would erase the source.
        g_stemlibLogger.error("loadImagePatch: Cannot load a framed patch of this image itself");
        return;
    }
    setImageBufferResolution(Resolution(static_cast<unsigned int>(containing.width),
                                        static_cast<unsigned int>(containing.height)));
    zeroImageBuffer();

    const int deltaX = image.x - containing.x;
    const int deltaY = image.y - containing.y;
    const int srcX = image.x;
    const std::size_t nImageRowBytes = static_cast<std::size_t>(image.width) * kPixelBytes;
    for (int y = 0; y < image.height; ++y) {
        const int srcY = y + image.y;
        if (srcY < 0 || static_cast<unsigned int>(srcY) >= videoResolution.height) {
            g_stemlibLogger.warning("loadImagePatch: Skipping row " + std::to_string(srcY) +
                                    " outside video stream bounds");
            continue;
        }
        const uint8_t* source = videoStreamSource.getPointerToPixel(IPoint(srcX, srcY));
        if (source == nullptr) {
            g_stemlibLogger.error("loadImagePatch: Failed to get pointer to pixel in "
                                  "VideoStreamSource");
            return;
        }
        const int dstY = deltaY + y;
        const IPoint destPoint(deltaX, dstY);
        uint8_t* dest = getPointerToPixel(destPoint);
        if (dest == nullptr) {
            g_stemlibLogger.error(
                "loadImagePatch: Invalid destination pixel coordinates: " + destPoint.toString() +
                ". Valid range is (0,0) to (" +
                std::to_string(static_cast<long long>(_resolution.width) - 1) + "," +
                std::to_string(static_cast<long long>(_resolution.height) - 1) + ")");
            return;
        }
        if (dstY < 0 || static_cast<unsigned int>(dstY) >= _resolution.height) {
            g_stemlibLogger.warning("loadImagePatch: Skipping destination row " +
                                    std::to_string(dstY) + " outside internal image buffer bounds");
        } else if (deltaX >= 0 && static_cast<long long>(image.width) + deltaX <=
                                      static_cast<long long>(_resolution.width)) {
            std::memcpy(dest, source, nImageRowBytes);
        } else {
            g_stemlibLogger.warning("loadImagePatch: Skipping destination column range " +
                                    std::to_string(deltaX) + " to " +
                                    std::to_string(deltaX + image.width) +
                                    " outside internal image buffer bounds");
        }
    }
}

} // namespace Ombrel
