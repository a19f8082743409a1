#include "LarodPoseDetector.h"

#include "ImageFrameSource.h"
#include "PoseDecoding.h"

namespace Ombrel {

const Dequantizer heatmapDequantizer(210, 0.08174263f, 1.0f);
const Dequantizer shortOffsetDequantizer(142, 0.73682034f, 0.0625f);
const Dequantizer midOffsetDequantizer(123, 1.4407082f, 0.0625f);
const Dequantizer posenetHeatmapDequantizer(128, 0.078431375f, 1.0f);
const Dequantizer posenetShortOffsetDequantizer(128, 0.078431375f, 0.0625f);
const Dequantizer posenetMidOffsetDequantizer(117, 1.3875765f, 0.0625f);
const Dequantizer identityDequantizer(0, 1.0f, 1.0f);
const Dequantizer uint8ToFloatDequantizer(0, 0.003921569f, 1.0f);
const Dequantizer uint8ToFloatOffsetDequantizer(0, 0.003921569f, 0.0625f);
const Dequantizer zeroDequantizer(0, 0.0f, 1.0f);

LarodPoseDetector::LarodPoseDetector(const std::string& modelFilepath,
                                     const std::string& deviceName)
    : LarodDetectorBase<PoseDetectionBase<BodypixBodyPart>>(modelFilepath, deviceName),
      _BodypixOutputHeatmapsDequantized(), _BodypixOutputShortOffsetsDequantized(),
      _BodypixOutputMidOffsetsDequantized(), _PoseKeypoints(), _PoseKeypointScores(), _PoseScores(),
      _nPoses(0) {
    g_stemlibLogger.info("LarodPoseDetector: LarodPoseDetector::LarodPoseDetector: "
                         "modelFilepath " +
                         modelFilepath);
}

LarodPoseDetector::~LarodPoseDetector() {
    g_stemlibLogger.info("~LarodPoseDetector: LarodPoseDetector destructor called");
}

void LarodPoseDetector::bindTensorsToFiles() {
    requireTensors(1, 6, "LarodPoseDetector");
    // Files in the order of their template numbers; segments and part heatmaps come before the
    // long offsets among the model's outputs.
    _BodypixInputImageFile = std::make_unique<MemoryMappedFile>(
        "/tmp/larod.in0-XXXXXX", static_cast<int>(3 * _inputResolution.area()));
    _BodypixOutputHeatmapsFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out0-XXXXXX", 63342);
    _BodypixOutputShortOffsetsFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out1-XXXXXX", 126684);
    _BodypixOutputMidOffsetsFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out2-XXXXXX", 238464);
    _BodypixOutputLongOffsetsFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out3-XXXXXX", 126684);
    _BodypixOutputSegmentsFile = std::make_unique<MemoryMappedFile>("/tmp/larod.out4-XXXXXX", 3726);
    _BodypixOutputPartHeatmapsFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out5-XXXXXX", 89424);

    bindTensorToFile(_larodInputTensorArray[0], _BodypixInputImageFile, "Input Image");
    bindTensorToFile(_larodOutputTensorArray[0], _BodypixOutputHeatmapsFile, "Output Heatmaps");
    bindTensorToFile(_larodOutputTensorArray[1], _BodypixOutputShortOffsetsFile,
                     "Output Short Offsets");
    bindTensorToFile(_larodOutputTensorArray[2], _BodypixOutputMidOffsetsFile,
                     "Output Mid Offsets");
    bindTensorToFile(_larodOutputTensorArray[3], _BodypixOutputSegmentsFile, "Output Segments");
    bindTensorToFile(_larodOutputTensorArray[4], _BodypixOutputPartHeatmapsFile,
                     "Output Part Heatmaps");
    bindTensorToFile(_larodOutputTensorArray[5], _BodypixOutputLongOffsetsFile,
                     "Output Long Offsets");
}

bool LarodPoseDetector::runAndDecode(ImageFrameSource& imageFrameSource) {
    if (!runJobOnFrame(imageFrameSource, _BodypixInputImageFile,
                       {_BodypixOutputHeatmapsFile.get(), _BodypixOutputShortOffsetsFile.get(),
                        _BodypixOutputMidOffsetsFile.get(), _BodypixOutputLongOffsetsFile.get(),
                        _BodypixOutputSegmentsFile.get(), _BodypixOutputPartHeatmapsFile.get()})) {
        return false;
    }
    heatmapDequantizer.dequantize(_BodypixOutputHeatmapsFile, _BodypixOutputHeatmapsDequantized);
    shortOffsetDequantizer.dequantize(_BodypixOutputShortOffsetsFile,
                                      _BodypixOutputShortOffsetsDequantized);
    midOffsetDequantizer.dequantize(_BodypixOutputMidOffsetsFile,
                                    _BodypixOutputMidOffsetsDequantized);

    int height = 0;
    int width = 0;
    if (!detail::poseGrid(_larodOutputTensorArray[0], _BodypixOutputHeatmapsDequantized.size(),
                          _BodypixOutputShortOffsetsDequantized.size(),
                          _BodypixOutputMidOffsetsDequantized.size(), height, width)) {
        return false;
    }
    detail::decodePoses(
        _BodypixOutputHeatmapsDequantized.data(), _BodypixOutputShortOffsetsDequantized.data(),
        _BodypixOutputMidOffsetsDequantized.data(), height, width, _confidenceThreshold,
        detail::PoseResults{_PoseKeypoints, _PoseKeypointScores, _PoseScores, _nPoses});
    return true;
}

LarodPoseDetector::Detections LarodPoseDetector::detect(ImageFrameSource& imageFrameSource) {
    if (!runAndDecode(imageFrameSource)) {
        return Detections();
    }
    return tensorsToDetections(imageFrameSource.getResolution());
}

LarodPoseDetector::Detections
LarodPoseDetector::detect(ImageFrameSource& imageFrameSource,
                          const IRectangle& denormalizationBoundingBox) {
    if (!runAndDecode(imageFrameSource)) {
        return Detections();
    }
    return tensorsToDetections(denormalizationBoundingBox);
}

LarodPoseDetector::Detections
LarodPoseDetector::tensorsToDetections(const IRectangle& denormalizationBoundingBox) const {
    return detail::posesToDetections(_PoseKeypoints, _PoseKeypointScores, _PoseScores, _nPoses,
                                     _inputResolution, &denormalizationBoundingBox);
}

LarodPoseDetector::Detections
LarodPoseDetector::tensorsToDetections(const Resolution& resolution) const {
    (void)resolution;
    return detail::posesToDetections(_PoseKeypoints, _PoseKeypointScores, _PoseScores, _nPoses,
                                     _inputResolution, nullptr);
}

IPoint LarodPoseDetector::getKeypointLocation(int nPose, BodypixBodyPart bodyPart) const {
    return detail::keypointLocation(_PoseKeypoints, nPose, bodyPart);
}

float LarodPoseDetector::getKeypointScore(int nPose, BodypixBodyPart bodyPart) const {
    return detail::keypointScore(_PoseKeypointScores, nPose, bodyPart);
}

Keypoints LarodPoseDetector::getKeypoints(int nPose) const {
    return detail::poseKeypoints(_PoseKeypoints, _PoseKeypointScores, nPose);
}

float LarodPoseDetector::getPoseScore(int nPose) const {
    return _PoseScores[static_cast<std::size_t>(nPose)];
}

} // namespace Ombrel
