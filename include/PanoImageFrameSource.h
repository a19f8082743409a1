// PanoImageFrameSource: a panoramic mosaic, several rectangles of a high-resolution frame packed
// into one image of a detector's input size, so that one inference covers them all.
//
// The mosaic is a grid of cells filled row by row, left to right. Each source rectangle is
// scaled (nearest sample) into the largest centred rectangle of its own aspect ratio inside its
// cell; the rest of the mosaic is black. Integer division leaves any remainder of the mosaic's
// size unused at the right and bottom. The image buffer is the mosaic: getFrame and the other
// inherited operations work on it as on any image.
//
// Use: setGridResolution once, then for each frame loadImagePatches with the source image and
// its rectangles, getFrame for the detector, and inverseMapSkeleton for each skeleton found, to
// bring it back to the source image's coordinates through the cell of its centroid.
//
// Ownership as for ImageBufferFrameSource; the mosaic buffer is allocated once, at
// construction, and patch loads allocate nothing once the first frame has been loaded. No lock:
// one thread loads and uses a mosaic.
#pragma once

#include "EmbeddingPointMapper.h"
#include "ImageBufferFrameSource.h"
#include "Skeleton.h"

#include <vector>

namespace Ombrel {

using IRectangles = std::vector<IRectangle>;

// Where one patch of the mosaic came from and where it went.
struct ImagePatchInfo {
    // The rectangle taken from the source image, and that image's size.
    IRectangle sourceRectangle;
    Resolution sourceResolution;
    // The part of the cell that the patch covers, and the mosaic's size.
    IRectangle destRectangle;
    Resolution destResolution;
};

using ImagePatchInfos = std::vector<ImagePatchInfo>;

class PanoImageFrameSource : public ImageBufferFrameSource {
public:
    // A mosaic of resolution with a grid of 1 by 1.
    explicit PanoImageFrameSource(const Resolution& resolution);

    // Blackens the mosaic, forgets the earlier patches and loads the rectangles in order, one
    // per cell, until the cells are used up (a warning names the count). A rectangle that
    // fails to load takes no cell.
    virtual void loadImagePatches(ImageBufferFrameSource& imageFrameSource,
                                  const IRectangles& rectangles);
    // Scales sourceRectangle of the source into the next free cell; false, after logging, when
    // the rectangle does not lie inside the source image.
    virtual bool loadImagePatch2(ImageBufferFrameSource& imageFrameSource,
                                 const IRectangle& sourceRectangle);

    unsigned int getNumberOfLoadedPatches() const { return _nLoadedPatches; }
    // Columns as width, rows as height. A grid with no columns or rows is refused with an
    // error line and the grid stays as it was. Set it before loading patches: a mosaic already
    // loaded keeps its patches at their old places.
    void setGridResolution(const Resolution& gridResolution);
    Resolution getGridResolution() const { return _gridResolution; }
    // The mosaic's size divided by the grid's, in integers.
    Resolution getCellResolution() const;
    // The cell that the next patch goes to, and the cell at a column and row.
    IRectangle getNextCellRectangle() const;
    IRectangle getCellRectangle(int col, int row) const;

    // A copy of the record of a loaded patch; for a bad index an error line and a record of
    // zeros.
    ImagePatchInfo getImagePatchInfo(int nPatchIndex) const;
    // The mapper between the patch's source rectangle and its rectangle in the mosaic.
    EmbeddingPointMapper getMapper(int nPatchIndex) const;
    // The skeleton in the source image's coordinates, mapped through the cell that holds the
    // centroid of its bounding box (all keypoints go through that cell). An empty skeleton,
    // after an error line, when the centroid lies in no cell.
    Skeleton<BodypixBodyPart> inverseMapSkeleton(const Skeleton<BodypixBodyPart>& skeleton) const;
    // The index (row * columns + column) of the cell holding point, or -1 after an error line.
    // Column and row are truncated toward zero and the column is not tested on its own, so a
    // point past the right edge may give a cell of the next row.
    int getCellIndex(const FPoint& point) const;

    // Nearest-sample copy of a source patch into a destination patch of (within 0.05) the same
    // aspect ratio, both given inside images of the given sizes. Returns false after an error
    // line for null pixels, differing aspect ratios, a patch outside its image or a sample
    // outside the source patch; rows written before such a failure stay. Allocates nothing.
    static bool resizePatchPreserveAspectRatio(const uint8_t* pSourcePixels,
                                               const IRectangle& sourcePatchRectangle,
                                               const Resolution& sourceImageResolution,
                                               uint8_t* pDestPixels,
                                               const IRectangle& destPatchRectangle,
                                               const Resolution& destImageResolution);

protected:
    ImagePatchInfos _patchInfos;
    Resolution _gridResolution{1, 1};
    unsigned int _nLoadedPatches = 0;
};

} // namespace Ombrel
