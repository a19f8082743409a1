// PosenetPanoDetector: PosenetPoseDetector over a panoramic mosaic. One inference sees every
// patch of the mosaic; each skeleton found comes back in the coordinates of the source image,
// through the cell of its centroid.
//
// Skeletons whose every keypoint falls outside the patches map to an empty box and are dropped.
// The mosaic must not change between detect and the mapping. Ownership and threading as for
// PosenetPoseDetector.
#pragma once

#include "PanoImageFrameSource.h"
#include "PosenetPoseDetector.h"

namespace Ombrel {

class PosenetPanoDetector : public PosenetPoseDetector {
public:
    PosenetPanoDetector(const std::string& modelFilepath, const std::string& deviceName);
    ~PosenetPanoDetector() override;

    using PosenetPoseDetector::detect;
    // The poses of the whole mosaic, in the source image's coordinates.
    virtual Detections detect(PanoImageFrameSource& panoImageFrameSource);

    Detections inverseMapDetections(const Detections& detections,
                                    const PanoImageFrameSource& panoImageFrameSource) const;
};

} // namespace Ombrel
