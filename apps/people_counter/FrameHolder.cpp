#include "FrameHolder.h"

#include "LoggerWrapper.h"

#include <opencv2/imgproc.hpp>

#include <cmath>
#include <cstring>

namespace PeopleCounting {

using namespace Ombrel;

FrameHolder::FrameHolder(const Resolution& resolution) : ImageBufferFrameSource(resolution) {
    zeroImageBuffer();
}

IRectangle FrameHolder::cropFor(const Resolution& requested) const {
    const double frameWidth = _resolution.width;
    const double frameHeight = _resolution.height;
    const double ratio = static_cast<double>(requested.width) / requested.height;
    if (frameWidth / frameHeight > ratio) {
        const int width = static_cast<int>(std::lround(frameHeight * ratio));
        return IRectangle((static_cast<int>(frameWidth) - width) / 2, 0, width,
                          static_cast<int>(frameHeight));
    }
    const int height = static_cast<int>(std::lround(frameWidth / ratio));
    return IRectangle(0, (static_cast<int>(frameHeight) - height) / 2, static_cast<int>(frameWidth),
                      height);
}

bool FrameHolder::getFrame(const Resolution& requested, int /*rotation*/, uint8_t* pOutputPixels) {
    if (pOutputPixels == nullptr || _imageBuffer == nullptr || requested.width == 0 ||
        requested.height == 0) {
        g_stemlibLogger.bareError("FrameHolder: no frame to give at " + requested.toString());
        return false;
    }
    if (requested == _resolution) {
        std::memcpy(pOutputPixels, _imageBuffer, static_cast<std::size_t>(_resolution.area()) * 3);
        return true;
    }
    const cv::Mat frame(static_cast<int>(_resolution.height), static_cast<int>(_resolution.width),
                        CV_8UC3, _imageBuffer);
    const IRectangle crop = cropFor(requested);
    cv::Mat output(static_cast<int>(requested.height), static_cast<int>(requested.width), CV_8UC3,
                   pOutputPixels);
    cv::resize(frame(cv::Rect(crop.x, crop.y, crop.width, crop.height)), output, output.size(), 0,
               0, cv::INTER_LINEAR);
    return true;
}

} // namespace PeopleCounting
