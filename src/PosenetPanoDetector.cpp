#include "PosenetPanoDetector.h"

#include "PanoPoseMapping.h"

namespace Ombrel {

PosenetPanoDetector::PosenetPanoDetector(const std::string& modelFilepath,
                                         const std::string& deviceName)
    : PosenetPoseDetector(modelFilepath, deviceName) {
    g_stemlibLogger.info("PosenetPanoDetector: PosenetPanoDetector::PosenetPanoDetector: "
                         "modelFilepath " +
                         modelFilepath);
}

PosenetPanoDetector::~PosenetPanoDetector() {
    g_stemlibLogger.info("~PosenetPanoDetector: PosenetPanoDetector destructor called");
}

PosenetPanoDetector::Detections
PosenetPanoDetector::detect(PanoImageFrameSource& panoImageFrameSource) {
    // Detections come out in the mosaic's pixels, then go back to the source image.
    const Resolution resolution = panoImageFrameSource.getResolution();
    const IRectangle denormalizationBoundingBox(0, 0, static_cast<int>(resolution.width),
                                                static_cast<int>(resolution.height));
    const Detections panoDetections =
        PosenetPoseDetector::detect(panoImageFrameSource, denormalizationBoundingBox);
    return inverseMapDetections(panoDetections, panoImageFrameSource);
}

PosenetPanoDetector::Detections
PosenetPanoDetector::inverseMapDetections(const Detections& detections,
                                          const PanoImageFrameSource& panoImageFrameSource) const {
    g_stemlibLogger.info("inverseMapDetections: Inverse Mapping " +
                         std::to_string(detections.size()) + " Pano Detections.");
    return detail::inverseMapPoseDetections(detections, panoImageFrameSource);
}

} // namespace Ombrel
