// BodypixPanoPoseDetector: LarodPoseDetector over a panoramic mosaic. One inference sees every
// patch of the mosaic; in each cell only the largest skeleton keeps its confidence, and each
// skeleton comes back in the coordinates of the source image, through the cell of its centroid.
//
// A skeleton that loses in its cell stays in the result with confidence 0: the caller skips it.
// Skeletons whose every keypoint falls outside the patches map to an empty box and are dropped.
// The mosaic must not change between detect and the mapping. Ownership and threading as for
// LarodPoseDetector.
#pragma once

#include "LarodPoseDetector.h"
#include "PanoImageFrameSource.h"

namespace Ombrel {

class BodypixPanoPoseDetector : public LarodPoseDetector {
public:
    BodypixPanoPoseDetector(const std::string& modelFilepath, const std::string& deviceName);
    ~BodypixPanoPoseDetector() override;

    using LarodPoseDetector::detect;
    // The poses of the whole mosaic, in the source image's coordinates.
    virtual Detections detect(PanoImageFrameSource& panoImageFrameSource);

    Detections inverseMapDetections(const Detections& detections,
                                    const PanoImageFrameSource& panoImageFrameSource) const;
    // Within each cell of the mosaic's grid, every detection but the one with the largest
    // skeleton (shoulders to ankles or knees, keypoints above 0.2) gets confidence 0; on equal
    // sizes the earlier stays. A detection without both hips above 0.2, or whose centre lies in
    // no cell, keeps its confidence and takes no part. Nothing is removed.
    void retainLargestDetectionInEachCell(Detections& detections,
                                          const PanoImageFrameSource& panoImageFrameSource) const;
};

} // namespace Ombrel
