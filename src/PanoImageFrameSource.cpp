#include "PanoImageFrameSource.h"

#include <cmath>
#include <cstdint>
#include <cstring>

namespace Ombrel {

namespace {

constexpr std::size_t kPixelBytes = 3;

// Column tables of the patch copy live on the stack up to this width.
constexpr int kMaxTableWidth = 8192;

bool hasPositiveSize(const IRectangle& rectangle) {
    return rectangle.width > 0 && rectangle.height > 0;
}

} // namespace

PanoImageFrameSource::PanoImageFrameSource(const Resolution& resolution)
    : ImageBufferFrameSource(resolution) {}

void PanoImageFrameSource::setGridResolution(const Resolution& gridResolution) {
    if (gridResolution.width == 0 || gridResolution.height == 0) {
        g_stemlibLogger.error("setGridResolution: Invalid grid resolution " +
                              gridResolution.toString() +
                              ": the grid needs at least one column and one row");
        return;
    }
    _gridResolution = gridResolution;
}

Resolution PanoImageFrameSource::getCellResolution() const {
    return Resolution(_resolution.width / _gridResolution.width,
                      _resolution.height / _gridResolution.height);
}

IRectangle PanoImageFrameSource::getCellRectangle(int col, int row) const {
    const Resolution cell = getCellResolution();
    const int cellWidth = static_cast<int>(cell.width);
    const int cellHeight = static_cast<int>(cell.height);
    return IRectangle(cellWidth * col, cellHeight * row, cellWidth, cellHeight);
}

IRectangle PanoImageFrameSource::getNextCellRectangle() const {
    const unsigned int col = _nLoadedPatches % _gridResolution.width;
    const unsigned int row = _nLoadedPatches / _gridResolution.width;
    return getCellRectangle(static_cast<int>(col), static_cast<int>(row));
}

void PanoImageFrameSource::loadImagePatches(ImageBufferFrameSource& imageFrameSource,
                                            const IRectangles& rectangles) {
    zeroImageBuffer();
    _patchInfos.clear();
    _nLoadedPatches = 0;
    const unsigned int nCells = _gridResolution.width * _gridResolution.height;
    for (const IRectangle& rectangle : rectangles) {
        if (_nLoadedPatches >= nCells) {
            g_stemlibLogger.warning("loadImagePatches: Number of loaded patches (" +
                                    std::to_string(_nLoadedPatches) +
                                    ") exceeds number of available cells (" +
                                    std::to_string(nCells) + "). Skipping remaining patches.");
            break;
        }
        // A patch that fails takes no cell; the next rectangle goes to the same one.
        loadImagePatch2(imageFrameSource, rectangle);
    }
}

bool PanoImageFrameSource::loadImagePatch2(ImageBufferFrameSource& imageFrameSource,
                                           const IRectangle& sourceRectangle) {
    const IRectangle cellRectangle = getNextCellRectangle();
    const EmbeddingPointMapper em(sourceRectangle, cellRectangle);
    const IRectangle mappedRectangle = em.getActiveTargetRectangle();
    if (!resizePatchPreserveAspectRatio(imageFrameSource.getImageData(), sourceRectangle,
                                        imageFrameSource.getResolution(), getImageData(),
                                        mappedRectangle, getResolution())) {
        g_stemlibLogger.error(
            "loadImagePatch2: Failed to resize and load image patch from source rectangle: " +
            sourceRectangle.toString() +
            " to destination rectangle: " + mappedRectangle.toString());
        return false;
    }
    _patchInfos.push_back(ImagePatchInfo{sourceRectangle, imageFrameSource.getResolution(),
                                         mappedRectangle, getResolution()});
    ++_nLoadedPatches;
    return true;
}

bool PanoImageFrameSource::resizePatchPreserveAspectRatio(const uint8_t* pSourcePixels,
                                                          const IRectangle& sourcePatchRectangle,
                                                          const Resolution& sourceImageResolution,
                                                          uint8_t* pDestPixels,
                                                          const IRectangle& destPatchRectangle,
                                                          const Resolution& destImageResolution) {
    if (pSourcePixels == nullptr) {
        g_stemlibLogger.error(
            "resizePatchPreserveAspectRatio: Source pixel pointer pSourcePixels is null.");
        return false;
    }
    if (pDestPixels == nullptr) {
        g_stemlibLogger.error(
            "resizePatchPreserveAspectRatio: Destination pixel pointer pDestPixels is null.");
        return false;
    }
    // Coarse on purpose: the destination's sizes come truncated from the cell arithmetic.
    constexpr float epsilon = 0.05f;
    if (!(std::fabs(sourcePatchRectangle.aspectRatio() - destPatchRectangle.aspectRatio()) <=
          epsilon)) {
        g_stemlibLogger.error("resizePatchPreserveAspectRatio: Source and destination patch "
                              "rectangles do not have the same aspect ratio.");
        return false;
    }
    const float scaleWidth = static_cast<float>(destPatchRectangle.width) /
                             static_cast<float>(sourcePatchRectangle.width);
    const float scaleHeight = static_cast<float>(destPatchRectangle.height) /
                              static_cast<float>(sourcePatchRectangle.height);
    if (!validPatchCoordinates(sourcePatchRectangle, sourceImageResolution) ||
        !hasPositiveSize(sourcePatchRectangle)) {
        g_stemlibLogger.error(
            "resizePatchPreserveAspectRatio: Invalid source patch rectangle coordinates: " +
            sourcePatchRectangle.toString() +
            " for source image resolution: " + sourceImageResolution.toString());
        return false;
    }
    const int HI = sourcePatchRectangle.height;
    const int WI = sourcePatchRectangle.width;
    const int XI = sourcePatchRectangle.x;
    const int YI = sourcePatchRectangle.y;
    if (!validPatchCoordinates(destPatchRectangle, destImageResolution) ||
        !hasPositiveSize(destPatchRectangle)) {
        g_stemlibLogger.error(
            "resizePatchPreserveAspectRatio: Invalid destination patch rectangle coordinates: " +
            destPatchRectangle.toString() +
            " for destination image resolution: " + destImageResolution.toString());
        return false;
    }
    const int HO = destPatchRectangle.height;
    const int WO = destPatchRectangle.width;
    const int XO = destPatchRectangle.x;
    const int YO = destPatchRectangle.y;

    const std::size_t sourceBytes = static_cast<std::size_t>(sourceImageResolution.width) *
                                    sourceImageResolution.height * kPixelBytes;
    const std::size_t destBytes = static_cast<std::size_t>(destImageResolution.width) *
                                  destImageResolution.height * kPixelBytes;

    // The source column of each destination column, computed once per call.
    const auto srcXOf = [&](int destX) {
        return XI + detail::truncateTo<int>(static_cast<float>(destX - XO) / scaleWidth);
    };
    int sourceColumns[kMaxTableWidth];
    const bool useTable = WO <= kMaxTableWidth;
    // The first destination column whose sample falls outside the source patch, if any: such
    // a row takes the checked path, which stops there.
    int firstBadColumn = XO + WO;
    if (useTable) {
        for (int destX = XO; destX < XO + WO; ++destX) {
            const int srcX = srcXOf(destX);
            sourceColumns[destX - XO] = srcX;
            if ((srcX < XI || srcX >= XI + WI) && destX < firstBadColumn) {
                firstBadColumn = destX;
            }
        }
    }

    for (int destY = YO; destY < YO + HO; ++destY) {
        const int srcY = YI + detail::truncateTo<int>(static_cast<float>(destY - YO) / scaleHeight);
        const std::size_t srcRow = static_cast<std::size_t>(sourceImageResolution.width) *
                                   static_cast<std::size_t>(std::max(srcY, 0));
        const std::size_t destRow =
            static_cast<std::size_t>(destImageResolution.width) * static_cast<std::size_t>(destY);
        // Fast path: every sample of the row is inside the patch and both buffers, which the
        // last column bounds since the samples grow with the column.
        if (useTable && firstBadColumn == XO + WO && srcY >= YI && srcY < YI + HI &&
            kPixelBytes * (srcRow + static_cast<std::size_t>(sourceColumns[WO - 1])) + 2 <
                sourceBytes &&
            kPixelBytes * (destRow + static_cast<std::size_t>(XO + WO - 1)) + 2 < destBytes) {
            const uint8_t* sourceRow = pSourcePixels + kPixelBytes * srcRow;
            uint8_t* dest = pDestPixels + kPixelBytes * (destRow + static_cast<std::size_t>(XO));
            int i = 0;
            // Four bytes a pixel where the source has a byte to spare: the fourth lands on the
            // next pixel of the row, which is written right after.
            if (kPixelBytes * (srcRow + static_cast<std::size_t>(sourceColumns[WO - 1])) + 3 <
                sourceBytes) {
                for (; i + 1 < WO; ++i, dest += kPixelBytes) {
                    std::memcpy(
                        dest, sourceRow + kPixelBytes * static_cast<std::size_t>(sourceColumns[i]),
                        4);
                }
            }
            for (; i < WO; ++i, dest += kPixelBytes) {
                const uint8_t* source =
                    sourceRow + kPixelBytes * static_cast<std::size_t>(sourceColumns[i]);
                dest[0] = source[0];
                dest[1] = source[1];
                dest[2] = source[2];
            }
            continue;
        }
        for (int destX = XO; destX < XO + WO; ++destX) {
            const int srcX = useTable ? sourceColumns[destX - XO] : srcXOf(destX);
            if (srcX < XI || srcX >= XI + WI || srcY < YI || srcY >= YI + HI) {
                g_stemlibLogger.error("resizePatchPreserveAspectRatio: Calculated source pixel "
                                      "coordinates are out of source patch bounds.");
                return false;
            }
            const std::size_t srcIndex = kPixelBytes * (srcRow + static_cast<std::size_t>(srcX));
            const std::size_t destIndex = kPixelBytes * (destRow + static_cast<std::size_t>(destX));
            if (!(srcIndex + 2 < sourceBytes)) {
                g_stemlibLogger.error(
                    "resizePatchPreserveAspectRatio: Source index out of bounds srcIndex: " +
                    std::to_string(srcIndex));
                return false;
            }
            if (!(destIndex + 2 < destBytes)) {
                g_stemlibLogger.error(
                    "resizePatchPreserveAspectRatio: Destination index out of bounds destIndex: " +
                    std::to_string(destIndex));
                return false;
            }
            pDestPixels[destIndex] = pSourcePixels[srcIndex];
            pDestPixels[destIndex + 1] = pSourcePixels[srcIndex + 1];
            pDestPixels[destIndex + 2] = pSourcePixels[srcIndex + 2];
        }
    }
    return true;
}

ImagePatchInfo PanoImageFrameSource::getImagePatchInfo(int nPatchIndex) const {
    if (nPatchIndex < 0 || static_cast<std::size_t>(nPatchIndex) >= _patchInfos.size()) {
        // With no patches the upper end wraps to the largest unsigned 64-bit value.
        const uint64_t last = static_cast<uint64_t>(_patchInfos.size()) - 1u;
        g_stemlibLogger.error(
            "getImagePatchInfo: Invalid patch index: " + std::to_string(nPatchIndex) +
            ". Valid range is 0 to " + std::to_string(last));
        return ImagePatchInfo{IRectangle(0, 0, 0, 0), Resolution(0, 0), IRectangle(0, 0, 0, 0),
                              Resolution(0, 0)};
    }
    return _patchInfos[static_cast<std::size_t>(nPatchIndex)];
}

EmbeddingPointMapper PanoImageFrameSource::getMapper(int nPatchIndex) const {
    const ImagePatchInfo patchInfo = getImagePatchInfo(nPatchIndex);
    return EmbeddingPointMapper(patchInfo.sourceRectangle, patchInfo.destRectangle);
}

int PanoImageFrameSource::getCellIndex(const FPoint& point) const {
    const Resolution cellResolution = getCellResolution();
    const long long nCells = static_cast<long long>(_gridResolution.width) * _gridResolution.height;
    const long long col =
        detail::truncateTo<int>(point.x / static_cast<float>(cellResolution.width));
    const long long row =
        detail::truncateTo<int>(point.y / static_cast<float>(cellResolution.height));
    const long long cellIndex = static_cast<long long>(_gridResolution.width) * row + col;
    if (cellIndex >= 0 && cellIndex < nCells) {
        return static_cast<int>(cellIndex);
    }
    g_stemlibLogger.error(
        "getCellIndex: Calculated cell index out of bounds: " + std::to_string(cellIndex) +
        " for point: " + std::to_string(point.x) + ", " + std::to_string(point.y));
    return -1;
}

Skeleton<BodypixBodyPart>
PanoImageFrameSource::inverseMapSkeleton(const Skeleton<BodypixBodyPart>& skeleton) const {
    const FPoint centroid = skeleton.getBoundingBox().getCentroid();
    const int cellIndex = getCellIndex(centroid);
    if (cellIndex < 0) {
        g_stemlibLogger.error(
            "inverseMapSkeleton: Failed to get cell index for skeleton centroid at: " +
            std::to_string(centroid.x) + ", " + std::to_string(centroid.y));
        return Skeleton<BodypixBodyPart>();
    }
    const EmbeddingPointMapper mapper = getMapper(cellIndex);
    return mapper.inverseMap(skeleton);
}

} // namespace Ombrel
