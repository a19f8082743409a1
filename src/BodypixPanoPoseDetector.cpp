#include "BodypixPanoPoseDetector.h"

#include "PanoPoseMapping.h"

namespace Ombrel {

BodypixPanoPoseDetector::BodypixPanoPoseDetector(const std::string& modelFilepath,
                                                 const std::string& deviceName)
    : LarodPoseDetector(modelFilepath, deviceName) {
    g_stemlibLogger.info("BodypixPanoPoseDetector: BodypixPanoPoseDetector::"
                         "BodypixPanoPoseDetector: modelFilepath " +
                         modelFilepath);
}

BodypixPanoPoseDetector::~BodypixPanoPoseDetector() {
    g_stemlibLogger.info("~BodypixPanoPoseDetector: BodypixPanoPoseDetector destructor called");
}

BodypixPanoPoseDetector::Detections
BodypixPanoPoseDetector::detect(PanoImageFrameSource& panoImageFrameSource) {
    const Resolution resolution = panoImageFrameSource.getResolution();
    const IRectangle denormalizationBoundingBox(0, 0, static_cast<int>(resolution.width),
                                                static_cast<int>(resolution.height));
    Detections panoDetections =
        LarodPoseDetector::detect(panoImageFrameSource, denormalizationBoundingBox);
    retainLargestDetectionInEachCell(panoDetections, panoImageFrameSource);
    return inverseMapDetections(panoDetections, panoImageFrameSource);
}

BodypixPanoPoseDetector::Detections BodypixPanoPoseDetector::inverseMapDetections(
    const Detections& detections, const PanoImageFrameSource& panoImageFrameSource) const {
    return detail::inverseMapPoseDetections(detections, panoImageFrameSource);
}

void BodypixPanoPoseDetector::retainLargestDetectionInEachCell(
    Detections& detections, const PanoImageFrameSource& panoImageFrameSource) const {
    struct DetectionInfo {
        int detectionIndex = -1; // -1: the cell is empty
        float size = 0.0f;
    };
    const float scoreThreshold = 0.2f;
    const std::vector<DetectionInfo>::size_type nCells =
        panoImageFrameSource.getGridResolution().area();
    std::vector<DetectionInfo> detectionInfos(nCells);
    for (std::size_t i = 0; i < detections.size(); ++i) {
        PoseDetectionBase<BodypixBodyPart>& detection = detections[i];
        const float size = detection.skeleton.getSkeletonSize(scoreThreshold);
        FPoint center;
        const bool bResult = detection.skeleton.getSkeletonCenter(center, scoreThreshold);
        if (!bResult) {
            continue;
        }
        const int cellIndex = panoImageFrameSource.getCellIndex(center);
        if (cellIndex < 0 || static_cast<std::size_t>(cellIndex) >= nCells) {
            continue;
        }
        DetectionInfo& cell = detectionInfos[static_cast<std::size_t>(cellIndex)];
        if (cell.detectionIndex < 0) {
            cell.detectionIndex = static_cast<int>(i);
            cell.size = size;
        } else if (size > cell.size) {
            const int otherDetectionIndex = cell.detectionIndex;
            detections[static_cast<std::size_t>(otherDetectionIndex)].confidence = 0.0f;
            cell.detectionIndex = static_cast<int>(i);
            cell.size = size;
        } else {
            detection.confidence = 0.0f;
        }
    }
}

} // namespace Ombrel
