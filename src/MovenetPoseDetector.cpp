#include "MovenetPoseDetector.h"

#include "PoseDecoding.h"

#include <cstring>

namespace Ombrel {

namespace {

constexpr int kSkeletonBytes = 17 * 3 * static_cast<int>(sizeof(float));

} // namespace

MovenetPoseDetector::MovenetPoseDetector(const std::string& modelFilepath)
    : LarodDetectorBase<PoseDetectionBase<BodypixBodyPart>>(modelFilepath, "") {
    g_stemlibLogger.info("MovenetPoseDetector: MovenetPoseDetector::MovenetPoseDetector: "
                         "modelFilepath " +
                         modelFilepath);
}

MovenetPoseDetector::~MovenetPoseDetector() {
    g_stemlibLogger.info("~MovenetPoseDetector: MovenetPoseDetector destructor called");
}

void MovenetPoseDetector::bindTensorsToFiles() {
    requireTensors(1, 1, "MovenetPoseDetector");
    _inputImageFile = std::make_unique<MemoryMappedFile>(
        "/tmp/larod.in0-XXXXXX", static_cast<int>(3 * _inputResolution.area()));
    _outputSkeletonFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out0-XXXXXX", kSkeletonBytes);
    bindTensorToFile(_larodInputTensorArray[0], _inputImageFile, "Input Image");
    bindTensorToFile(_larodOutputTensorArray[0], _outputSkeletonFile, "Output Skeleton");
}

MovenetPoseDetector::Detections MovenetPoseDetector::detect(ImageFrameSource& imageFrameSource) {
    (void)imageFrameSource;
    g_stemlibLogger.error(
        "detect: MovenetPoseDetector::detect(ImageFrameSource& imageFrameSource) called. Use "
        "detect(ImageFrameSource& imageFrameSource, const FBoundingBox& "
        "lowResolutionBoundingBox)");
    return Detections();
}

MovenetPoseDetector::Detection
MovenetPoseDetector::detect(ImageFrameSource& imageFrameSource,
                            const IRectangle& denormalizationBoundingBox) {
    if (!runJobOnFrame(imageFrameSource, _inputImageFile, {_outputSkeletonFile.get()})) {
        return Detection();
    }
    return tensorToDetection(denormalizationBoundingBox);
}

MovenetPoseDetector::Detection
MovenetPoseDetector::tensorToDetection(const IRectangle& denormalizationBoundingBox) const {
    if (!_outputSkeletonFile) {
        return Detection();
    }
    float rows[17 * 3];
    std::memcpy(rows, _outputSkeletonFile->getBuffer(), sizeof rows);
    return detail::normalizedPoseToDetection(rows, denormalizationBoundingBox);
}

} // namespace Ombrel
