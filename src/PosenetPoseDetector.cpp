#include "PosenetPoseDetector.h"

#include "PoseDecoding.h"

#include <algorithm>

namespace Ombrel {

namespace {

// The arrays are longer than the files (the largest model's size); only the file's bytes are
// dequantised, and the decoder reads no further than the grid's values.
template <std::size_t N>
void dequantizeFile(const Dequantizer& dequantizer, const std::unique_ptr<MemoryMappedFile>& file,
                    std::array<float, N>& array) {
    const int count = std::min(file->getFileSize(), static_cast<int>(N));
    dequantizer.dequantize(static_cast<const uint8_t*>(file->getBuffer()), array.data(), count);
}

} // namespace

PosenetPoseDetector::PosenetPoseDetector(const std::string& modelFilepath,
                                         const std::string& deviceName)
    : LarodDetectorBase<PoseDetectionBase<BodypixBodyPart>>(modelFilepath, deviceName),
      _PosenetOutputHeatmapsDequantized(), _PosenetOutputShortOffsetsDequantized(),
      _PosenetOutputMidOffsetsDequantized(), _PoseKeypoints(), _PoseKeypointScores(), _PoseScores(),
      _nPoses(0) {
    g_stemlibLogger.info("PosenetPoseDetector: PosenetPoseDetector::PosenetPoseDetector: "
                         "modelFilepath " +
                         modelFilepath);
}

PosenetPoseDetector::~PosenetPoseDetector() {
    g_stemlibLogger.info("~PosenetPoseDetector: PosenetPoseDetector destructor called");
}

void PosenetPoseDetector::bindTensorsToFiles() {
    requireTensors(1, 3, "PosenetPoseDetector");
    _PosenetInputImageFile = std::make_unique<MemoryMappedFile>(
        "/tmp/larod.in0-XXXXXX", static_cast<int>(3 * _inputResolution.area()));
    _PosenetOutputHeatmapsFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out1-XXXXXX", 12121);
    _PosenetOutputShortOffsetsFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out2-XXXXXX", 24242);
    _PosenetOutputMidOffsetsFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out0-XXXXXX", 45632);

    bindTensorToFile(_larodInputTensorArray[0], _PosenetInputImageFile, "Input Image");
    bindTensorToFile(_larodOutputTensorArray[0], _PosenetOutputHeatmapsFile, "Output Heatmaps");
    bindTensorToFile(_larodOutputTensorArray[1], _PosenetOutputShortOffsetsFile,
                     "Output Short Offsets");
    bindTensorToFile(_larodOutputTensorArray[2], _PosenetOutputMidOffsetsFile,
                     "Output Mid Offsets");
}

PosenetPoseDetector::Detections PosenetPoseDetector::detect(ImageFrameSource& imageFrameSource) {
    (void)imageFrameSource;
    g_stemlibLogger.error(
        "detect: PosenetPoseDetector::detect(ImageFrameSource& imageFrameSource) called. Use "
        "detect(ImageFrameSource& imageFrameSource, const FBoundingBox& "
        "lowResolutionBoundingBox)");
    return Detections();
}

PosenetPoseDetector::Detections
PosenetPoseDetector::detect(ImageFrameSource& imageFrameSource,
                            const IRectangle& denormalizationBoundingBox) {
    if (!runJobOnFrame(imageFrameSource, _PosenetInputImageFile,
                       {_PosenetOutputMidOffsetsFile.get(), _PosenetOutputHeatmapsFile.get(),
                        _PosenetOutputShortOffsetsFile.get()})) {
        return Detections();
    }
    dequantizeFile(posenetHeatmapDequantizer, _PosenetOutputHeatmapsFile,
                   _PosenetOutputHeatmapsDequantized);
    dequantizeFile(posenetShortOffsetDequantizer, _PosenetOutputShortOffsetsFile,
                   _PosenetOutputShortOffsetsDequantized);
    dequantizeFile(posenetMidOffsetDequantizer, _PosenetOutputMidOffsetsFile,
                   _PosenetOutputMidOffsetsDequantized);

    int height = 0;
    int width = 0;
    if (!detail::poseGrid(_larodOutputTensorArray[0], 12121, 24242, 45632, height, width)) {
        return Detections();
    }
    detail::decodePoses(
        _PosenetOutputHeatmapsDequantized.data(), _PosenetOutputShortOffsetsDequantized.data(),
        _PosenetOutputMidOffsetsDequantized.data(), height, width, _confidenceThreshold,
        detail::PoseResults{_PoseKeypoints, _PoseKeypointScores, _PoseScores, _nPoses});
    return tensorsToDetections(denormalizationBoundingBox);
}

PosenetPoseDetector::Detections
PosenetPoseDetector::tensorsToDetections(const IRectangle& denormalizationBoundingBox) const {
    return detail::posesToDetections(_PoseKeypoints, _PoseKeypointScores, _PoseScores, _nPoses,
                                     _inputResolution, &denormalizationBoundingBox);
}

IPoint PosenetPoseDetector::getKeypointLocation(int nPose, BodypixBodyPart bodyPart) const {
    return detail::keypointLocation(_PoseKeypoints, nPose, bodyPart);
}

float PosenetPoseDetector::getKeypointScore(int nPose, BodypixBodyPart bodyPart) const {
    return detail::keypointScore(_PoseKeypointScores, nPose, bodyPart);
}

Keypoints PosenetPoseDetector::getKeypoints(int nPose) const {
    return detail::poseKeypoints(_PoseKeypoints, _PoseKeypointScores, nPose);
}

float PosenetPoseDetector::getPoseScore(int nPose) const {
    return _PoseScores[static_cast<std::size_t>(nPose)];
}

} // namespace Ombrel
