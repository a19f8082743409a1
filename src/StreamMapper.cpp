#include "StreamMapper.h"

#include <limits>

namespace Ombrel {

namespace {

int clampToInt(long long value) {
    if (value > std::numeric_limits<int>::max()) {
        return std::numeric_limits<int>::max();
    }
    if (value < std::numeric_limits<int>::min()) {
        return std::numeric_limits<int>::min();
    }
    return static_cast<int>(value);
}

float toFloat(int value) {
    return static_cast<float>(value);
}

// (a - 1) / (b - 1) in single precision; infinite or NaN for b == 1, as the family's sizes
// are not guarded.
float edgeRatio(int a, int b) {
    return toFloat(a - 1) / toFloat(b - 1);
}

} // namespace

StreamMapper::StreamMapper(int inputStreamHeight, int inputStreamWidth, int outputStreamHeight,
                           int outputStreamWidth, bool isStreamMirrored)
    : HI(inputStreamHeight), WI(inputStreamWidth), HO(outputStreamHeight), WO(outputStreamWidth),
      isMirrored(isStreamMirrored) {}

StreamMapper::~StreamMapper() = default;

int StreamMapper::_mapX(int x) const {
    return detail::truncateTo<int>(edgeRatio(WO, WI) * toFloat(x));
}

int StreamMapper::mapY(int y) const {
    return detail::truncateTo<int>(edgeRatio(HO, HI) * toFloat(y));
}

int StreamMapper::mapWidth(int width) const {
    return detail::truncateTo<int>(toFloat(width) * edgeRatio(WO, WI));
}

int StreamMapper::mapHeight(int height) const {
    return detail::truncateTo<int>(toFloat(height) * edgeRatio(HO, HI));
}

void StreamMapper::getActiveInputRectangle(int& x0, int& y0, int& x1, int& y1) const {
    x0 = 0;
    y0 = 0;
    x1 = WI - 1;
    y1 = HI - 1;
}

void StreamMapper::getActiveOutputRectangle(int& x0, int& y0, int& x1, int& y1) const {
    x0 = 0;
    y0 = 0;
    x1 = WO - 1;
    y1 = HO - 1;
}

std::string StreamMapper::toString() const {
    return "StreamMapper";
}

int StreamMapper::mapX(int x) const {
    const int v = _mapX(x);
    if (isMirrored) {
        return clampToInt(static_cast<long long>(WO) - v - 1);
    }
    return v;
}

ExtractionMapper::ExtractionMapper(int inputStreamHeight, int inputStreamWidth,
                                   int outputStreamHeight, int outputStreamWidth,
                                   bool isStreamMirrored)
    : StreamMapper(inputStreamHeight, inputStreamWidth, outputStreamHeight, outputStreamWidth,
                   isStreamMirrored),
      alpha(1.0f), epsilonX(0.0f), epsilonY(0.0f) {
    const float rhoI = toFloat(WI) / toFloat(HI);
    const float rhoO = toFloat(WO) / toFloat(HO);
    if (rhoI >= rhoO) {
        alpha = edgeRatio(HO, HI);
        const float wTilde = rhoO * toFloat(HI);
        epsilonX = (toFloat(WI) - wTilde) / 2.0f;
    } else {
        alpha = edgeRatio(WO, WI);
        const float hTilde = toFloat(WI) / rhoO;
        epsilonY = (toFloat(HI) - hTilde) / 2.0f;
    }
}

int ExtractionMapper::_mapX(int x) const {
    const float xf = toFloat(x);
    if (xf < epsilonX) {
        return 0;
    }
    if (xf >= toFloat(WI) - epsilonX) {
        return WO - 1;
    }
    return detail::truncateTo<int>(alpha * (xf - epsilonX));
}

int ExtractionMapper::mapY(int y) const {
    const float yf = toFloat(y);
    if (yf < epsilonY) {
        return 0;
    }
    if (yf >= toFloat(HI) - epsilonY) {
        return HO - 1;
    }
    return detail::truncateTo<int>(alpha * (yf - epsilonY));
}

int ExtractionMapper::mapWidth(int width) const {
    return detail::truncateTo<int>(alpha * toFloat(width));
}

int ExtractionMapper::mapHeight(int height) const {
    return detail::truncateTo<int>(alpha * toFloat(height));
}

void ExtractionMapper::getActiveInputRectangle(int& x0, int& y0, int& x1, int& y1) const {
    x0 = detail::truncateTo<int>(epsilonX + 0.5f);
    y0 = detail::truncateTo<int>(epsilonY + 0.5f);
    x1 = detail::truncateTo<int>(toFloat(WI) - epsilonX - 0.5f);
    y1 = detail::truncateTo<int>(toFloat(HI) - epsilonY - 0.5f);
}

std::string ExtractionMapper::toString() const {
    return "ExtractionMapper";
}

EmbeddingMapper::EmbeddingMapper(int inputStreamHeight, int inputStreamWidth,
                                 int outputStreamHeight, int outputStreamWidth,
                                 bool isStreamMirrored)
    : StreamMapper(inputStreamHeight, inputStreamWidth, outputStreamHeight, outputStreamWidth,
                   isStreamMirrored),
      alpha(1.0f), deltaX(0.0f), deltaY(0.0f) {
    const float alphaW = edgeRatio(WO, WI);
    const float alphaH = edgeRatio(HO, HI);
    if (alphaW < alphaH) {
        // The width limits; the height of the scaled input stays fractional.
        alpha = alphaW;
        deltaY = (toFloat(HO) - (alpha * toFloat(HI - 1) + 1.0f)) / 2.0f;
    } else {
        // The height limits; the width of the scaled input is taken as an integer.
        alpha = alphaH;
        const int wTilde = detail::truncateTo<int>(alpha * toFloat(WI - 1) + 1.0f);
        deltaX = static_cast<float>(static_cast<long long>(WO) - wTilde) / 2.0f;
    }
}

EmbeddingMapper::EmbeddingMapper(const IRectangle& input, const IRectangle& output,
                                 bool isStreamMirrored)
    : EmbeddingMapper(input.height, input.width, output.height, output.width, isStreamMirrored) {}

int EmbeddingMapper::_mapX(int x) const {
    return detail::truncateTo<int>(alpha * toFloat(x) + deltaX + 0.5f);
}

int EmbeddingMapper::mapY(int y) const {
    return detail::truncateTo<int>(alpha * toFloat(y) + deltaY + 0.5f);
}

int EmbeddingMapper::mapWidth(int width) const {
    return detail::truncateTo<int>(alpha * toFloat(width));
}

int EmbeddingMapper::mapHeight(int height) const {
    return detail::truncateTo<int>(alpha * toFloat(height));
}

void EmbeddingMapper::getActiveInputRectangle(int& x0, int& y0, int& x1, int& y1) const {
    x0 = 0;
    y0 = 0;
    x1 = WI - 1;
    y1 = HI - 1;
}

void EmbeddingMapper::getActiveOutputRectangle(int& x0, int& y0, int& x1, int& y1) const {
    x0 = mapX(0);
    y0 = mapY(0);
    x1 = mapX(WI - 1);
    y1 = mapY(HI - 1);
}

std::string EmbeddingMapper::toString() const {
    return "EmbeddingMapper";
}

IRectangle EmbeddingMapper::getActiveInputRectangle() const {
    return IRectangle(0, 0, WI - 1, HI - 1);
}

IRectangle EmbeddingMapper::getActiveOutputRectangle() const {
    int x0 = 0;
    int y0 = 0;
    int x1 = 0;
    int y1 = 0;
    getActiveOutputRectangle(x0, y0, x1, y1);
    return IRectangle(x0, y0, clampToInt(static_cast<long long>(x1) - x0 + 1),
                      clampToInt(static_cast<long long>(y1) - y0 + 1));
}

std::unique_ptr<StreamMapper> getStreamMapper(int inputStreamHeight, int inputStreamWidth,
                                              int outputStreamHeight, int outputStreamWidth,
                                              bool /*isPortrait*/, bool isStreamMirrored) {
    return std::make_unique<ExtractionMapper>(inputStreamHeight, inputStreamWidth,
                                              outputStreamHeight, outputStreamWidth,
                                              isStreamMirrored);
}

} // namespace Ombrel
