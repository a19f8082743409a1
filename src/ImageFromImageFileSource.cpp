#include "ImageFromImageFileSource.h"

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <cstring>
#include <stdexcept>

namespace Ombrel {

ImageFromImageFileSource::ImageFromImageFileSource(const std::string& fileName)
    : ImageBufferFrameSource(Resolution(0, 0)) {
    cv::Mat image = cv::imread(fileName, cv::IMREAD_COLOR);
    if (image.empty()) {
        const std::string message = "Failed to load image from file: " + fileName;
        g_stemlibLogger.error("ImageFromImageFileSource: " + message);
        throw std::runtime_error(message);
    }
    cv::cvtColor(image, image, cv::COLOR_BGR2RGB);
    // The base left the buffer null: allocate it at exactly the image's size.
    if (!allocateImageBuffer(Resolution(static_cast<unsigned int>(image.cols),
                                        static_cast<unsigned int>(image.rows)),
                             "ImageFromImageFileSource")) {
        return;
    }
    const std::size_t rowBytes = static_cast<std::size_t>(image.cols) * 3;
    for (int row = 0; row < image.rows; ++row) {
        std::memcpy(_imageBuffer + static_cast<std::size_t>(row) * rowBytes,
                    image.ptr<uint8_t>(row), rowBytes);
    }
}

} // namespace Ombrel
