#include "VideoStreamMapper.h"

#include <cmath>
#include <stdexcept>

namespace Ombrel {

namespace {

float aspectRatioOf(const Resolution& resolution) {
    return static_cast<float>(resolution.width) / static_cast<float>(resolution.height);
}

} // namespace

VideoStreamMapper::VideoStreamMapper(VideoStreamSource& vss0, VideoStreamSource& vss1)
    : _vss0(vss0), _vss1(vss1), _alpha(1.0f) {
    const Resolution resolution0 = _vss0.getResolution();
    const Resolution resolution1 = _vss1.getResolution();
    const float aspectRatio0 = aspectRatioOf(resolution0);
    const float aspectRatio1 = aspectRatioOf(resolution1);
    if (!(std::fabs(aspectRatio0 - aspectRatio1) <= 0.0001f)) {
        g_stemlibLogger.error(
            "VideoStreamMapper: Aspect ratios of the two video streams do not match: " +
            std::to_string(aspectRatio0) + " != " + std::to_string(aspectRatio1));
        throw std::runtime_error("Aspect ratio mismatch between video streams");
    }
    _alpha = static_cast<float>(resolution1.width) / static_cast<float>(resolution0.width);
    g_stemlibLogger.info("VideoStreamMapper: VideoStreamMapper constructor called");
}

int VideoStreamMapper::map(int x) const {
    return detail::truncateTo<int>(static_cast<float>(x) * _alpha + 0.5f);
}

int VideoStreamMapper::inverseMap(int x) const {
    return detail::truncateTo<int>(static_cast<float>(x) / _alpha + 0.5f);
}

float VideoStreamMapper::map(float x) const {
    return _alpha * x;
}

float VideoStreamMapper::inverseMap(float x) const {
    return x / _alpha;
}

IRectangle
VideoStreamMapper::getContainingRectangle(const IRectangle& lowResBoundingBox,
                                          const Resolution& highResPatchResolution) const {
    const IRectangle box = map<int>(lowResBoundingBox);
    const float aspectRatioBoundingBox = box.aspectRatio();
    const float aspectRatioPatch = aspectRatioOf(highResPatchResolution);
    const int patchWidth = static_cast<int>(highResPatchResolution.width);
    const int patchHeight = static_cast<int>(highResPatchResolution.height);

    const auto widthFor = [aspectRatioPatch](int height) {
        return detail::truncateTo<int>(static_cast<float>(height) * aspectRatioPatch + 0.5f);
    };
    const auto heightFor = [aspectRatioPatch](int width) {
        return detail::truncateTo<int>(static_cast<float>(width) / aspectRatioPatch + 0.5f);
    };

    int W = 0;
    int H = 0;
    if (aspectRatioPatch > aspectRatioBoundingBox) {
        H = box.height;
        W = widthFor(H);
    } else {
        W = box.width;
        H = heightFor(W);
    }
    if (H < patchHeight) {
        H = patchHeight;
        W = widthFor(H);
    }
    if (W < patchWidth) {
        W = patchWidth;
        H = heightFor(W);
    }

    // Centred on the box; the differences are usually negative and truncate toward zero.
    const float halfDeltaX = static_cast<float>(static_cast<long long>(box.width) - W) / 2.0f;
    const float halfDeltaY = static_cast<float>(static_cast<long long>(box.height) - H) / 2.0f;
    long long X0 = box.x + static_cast<long long>(detail::truncateTo<int>(halfDeltaX + 0.5f));
    long long Y0 = box.y + static_cast<long long>(detail::truncateTo<int>(halfDeltaY + 0.5f));
    if (X0 < 0) {
        X0 = 0;
    }
    if (Y0 < 0) {
        Y0 = 0;
    }
    const Resolution highResolutionStream = _vss1.getResolution();
    const long long streamWidth = highResolutionStream.width;
    const long long streamHeight = highResolutionStream.height;
    if (X0 + W >= streamWidth) {
        X0 = streamWidth - W - 1;
    }
    if (Y0 + H >= streamHeight) {
        Y0 = streamHeight - H - 1;
    }
    return IRectangle(detail::truncateTo<int>(static_cast<double>(X0)),
                      detail::truncateTo<int>(static_cast<double>(Y0)), W, H);
}

} // namespace Ombrel
