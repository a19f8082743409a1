#include "Bodypix_320W_240H_PoseDetector.h"

#include "PoseDecoding.h"

#include <algorithm>

namespace Ombrel {

const Dequantizer Bodypix_320W_240H_PoseDetector::_displacementBackwardDequantizer(174, 0.7755094f,
                                                                                   0.0625f);
const Dequantizer Bodypix_320W_240H_PoseDetector::_displacementForwardDequantizer(51, 0.8475879f,
                                                                                  0.0625f);
const Dequantizer Bodypix_320W_240H_PoseDetector::_heatmapDequantizer(167, 0.1002763f, 1.0f);
const Dequantizer Bodypix_320W_240H_PoseDetector::_longOffsetDequantizer(127, 0.8586689f, 0.0625f);
const Dequantizer Bodypix_320W_240H_PoseDetector::_partHeatmapDequantizer(90, 0.10960945f, 1.0f);
const Dequantizer Bodypix_320W_240H_PoseDetector::_partOffsetDequantizer(0, 0.003921569f, 0.0625f);
const Dequantizer Bodypix_320W_240H_PoseDetector::_segmentsDequantizer(160, 0.10387437f, 1.0f);
const Dequantizer Bodypix_320W_240H_PoseDetector::_shortOffsetDequantizer(134, 0.5554287f, 0.0625f);

Bodypix_320W_240H_PoseDetector::Bodypix_320W_240H_PoseDetector(const std::string& modelFilepath)
    : LarodDetectorBase<PoseDetectionBase<BodypixBodyPart>>(modelFilepath, ""),
      _PosenetOutputDisplacementBackwardsDequantized(),
      _PosenetOutputDisplacementForwardsDequantized(), _PosenetOutputHeatmapsDequantized(),
      _PosenetOutputLongOffsetsDequantized(), _PosenetOutputPartHeatmapsDequantized(),
      _PosenetOutputPartOffsetsDequantized(), _PosenetOutputSegmentsDequantized(),
      _PosenetOutputShortOffsetsDequantized(), _PosenetOutputMidOffsetsDequantized(),
      _PoseKeypoints(), _PoseKeypointScores(), _PoseScores(), _nPoses(0) {
    // The PoseNet detector's text, behind this class's own name.
    g_stemlibLogger.info("Bodypix_320W_240H_PoseDetector: "
                         "PosenetPoseDetector::PosenetPoseDetector: modelFilepath " +
                         modelFilepath);
}

Bodypix_320W_240H_PoseDetector::~Bodypix_320W_240H_PoseDetector() {
    g_stemlibLogger.info(
        "~Bodypix_320W_240H_PoseDetector: Bodypix_320W_240H_PoseDetector destructor called");
}

void Bodypix_320W_240H_PoseDetector::bindTensorsToFiles() {
    requireTensors(1, 8, "Bodypix_320W_240H_PoseDetector");
    _PosenetInputImageFile = std::make_unique<MemoryMappedFile>(
        "/tmp/larod.in0-XXXXXX", static_cast<int>(3 * _inputResolution.area()));
    _PosenetOutputDisplacementBackwardsFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out0-XXXXXX", 9600);
    _PosenetOutputDisplacementForwardsFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out1-XXXXXX", 9600);
    _PosenetOutputHeatmapsFile = std::make_unique<MemoryMappedFile>("/tmp/larod.out2-XXXXXX", 5100);
    _PosenetOutputLongOffsetsFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out3-XXXXXX", 10200);
    _PosenetOutputPartHeatmapsFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out4-XXXXXX", 7200);
    _PosenetOutputPartOffsetsFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out5-XXXXXX", 14400);
    _PosenetOutputSegmentsFile = std::make_unique<MemoryMappedFile>("/tmp/larod.out6-XXXXXX", 300);
    _PosenetOutputShortOffsetsFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out7-XXXXXX", 10200);

    bindTensorToFile(_larodInputTensorArray[0], _PosenetInputImageFile, "Input Image");
    bindTensorToFile(_larodOutputTensorArray[0], _PosenetOutputDisplacementBackwardsFile,
                     "Backward Bias Add");
    bindTensorToFile(_larodOutputTensorArray[1], _PosenetOutputDisplacementForwardsFile,
                     "Forward Bias Add");
    bindTensorToFile(_larodOutputTensorArray[2], _PosenetOutputHeatmapsFile, "Heatmaps");
    bindTensorToFile(_larodOutputTensorArray[3], _PosenetOutputLongOffsetsFile, "Long Offsets");
    bindTensorToFile(_larodOutputTensorArray[4], _PosenetOutputPartHeatmapsFile, "Part Heatmaps");
    bindTensorToFile(_larodOutputTensorArray[5], _PosenetOutputPartOffsetsFile, "Part Offsets");
    bindTensorToFile(_larodOutputTensorArray[6], _PosenetOutputSegmentsFile, "Segments");
    bindTensorToFile(_larodOutputTensorArray[7], _PosenetOutputShortOffsetsFile, "Short Offsets");
}

Bodypix_320W_240H_PoseDetector::Detections
Bodypix_320W_240H_PoseDetector::detect(ImageFrameSource& imageFrameSource) {
    (void)imageFrameSource;
    g_stemlibLogger.error(
        "detect: Bodypix_320W_240H_PoseDetector::detect(ImageFrameSource& imageFrameSource) "
        "called. Use detect(ImageFrameSource& imageFrameSource, const FBoundingBox& "
        "lowResolutionBoundingBox)");
    return Detections();
}

Bodypix_320W_240H_PoseDetector::Detections
Bodypix_320W_240H_PoseDetector::detect(ImageFrameSource& imageFrameSource,
                                       const IRectangle& denormalizationBoundingBox) {
    if (!runJobOnFrame(imageFrameSource, _PosenetInputImageFile,
                       {_PosenetOutputDisplacementBackwardsFile.get(),
                        _PosenetOutputDisplacementForwardsFile.get(),
                        _PosenetOutputHeatmapsFile.get(), _PosenetOutputLongOffsetsFile.get(),
                        _PosenetOutputPartHeatmapsFile.get(), _PosenetOutputPartOffsetsFile.get(),
                        _PosenetOutputSegmentsFile.get(), _PosenetOutputShortOffsetsFile.get()})) {
        return Detections();
    }
    _displacementBackwardDequantizer.dequantize(_PosenetOutputDisplacementBackwardsFile,
                                                _PosenetOutputDisplacementBackwardsDequantized);
    _displacementForwardDequantizer.dequantize(_PosenetOutputDisplacementForwardsFile,
                                               _PosenetOutputDisplacementForwardsDequantized);
    _heatmapDequantizer.dequantize(_PosenetOutputHeatmapsFile, _PosenetOutputHeatmapsDequantized);
    _longOffsetDequantizer.dequantize(_PosenetOutputLongOffsetsFile,
                                      _PosenetOutputLongOffsetsDequantized);
    _partHeatmapDequantizer.dequantize(_PosenetOutputPartHeatmapsFile,
                                       _PosenetOutputPartHeatmapsDequantized);
    _partOffsetDequantizer.dequantize(_PosenetOutputPartOffsetsFile,
                                      _PosenetOutputPartOffsetsDequantized);
    _segmentsDequantizer.dequantize(_PosenetOutputSegmentsFile, _PosenetOutputSegmentsDequantized);
    _shortOffsetDequantizer.dequantize(_PosenetOutputShortOffsetsFile,
                                       _PosenetOutputShortOffsetsDequantized);

    // Forward displacements, then backward ones: a block concatenation, not an interleave of
    // channels, although the decoder reads the array as 64 channels a cell.
    std::copy(_PosenetOutputDisplacementForwardsDequantized.begin(),
              _PosenetOutputDisplacementForwardsDequantized.end(),
              _PosenetOutputMidOffsetsDequantized.begin());
    std::copy(
        _PosenetOutputDisplacementBackwardsDequantized.begin(),
        _PosenetOutputDisplacementBackwardsDequantized.end(),
        _PosenetOutputMidOffsetsDequantized.begin() +
            static_cast<std::ptrdiff_t>(_PosenetOutputDisplacementForwardsDequantized.size()));

    int height = 0;
    int width = 0;
    if (!detail::poseGrid(_larodOutputTensorArray[0], _PosenetOutputHeatmapsDequantized.size(),
                          _PosenetOutputShortOffsetsDequantized.size(),
                          _PosenetOutputMidOffsetsDequantized.size(), height, width)) {
        return Detections();
    }
    detail::decodePoses(
        _PosenetOutputHeatmapsDequantized.data(), _PosenetOutputShortOffsetsDequantized.data(),
        _PosenetOutputMidOffsetsDequantized.data(), height, width, _confidenceThreshold,
        detail::PoseResults{_PoseKeypoints, _PoseKeypointScores, _PoseScores, _nPoses});
    return tensorsToDetections(denormalizationBoundingBox);
}

Bodypix_320W_240H_PoseDetector::Detections Bodypix_320W_240H_PoseDetector::tensorsToDetections(
    const IRectangle& denormalizationBoundingBox) const {
    return detail::posesToDetections(_PoseKeypoints, _PoseKeypointScores, _PoseScores, _nPoses,
                                     _inputResolution, &denormalizationBoundingBox);
}

IPoint Bodypix_320W_240H_PoseDetector::getKeypointLocation(int nPose,
                                                           BodypixBodyPart bodyPart) const {
    return detail::keypointLocation(_PoseKeypoints, nPose, bodyPart);
}

float Bodypix_320W_240H_PoseDetector::getKeypointScore(int nPose, BodypixBodyPart bodyPart) const {
    return detail::keypointScore(_PoseKeypointScores, nPose, bodyPart);
}

Keypoints Bodypix_320W_240H_PoseDetector::getKeypoints(int nPose) const {
    return detail::poseKeypoints(_PoseKeypoints, _PoseKeypointScores, nPose);
}

float Bodypix_320W_240H_PoseDetector::getPoseScore(int nPose) const {
    return _PoseScores[static_cast<std::size_t>(nPose)];
}

} // namespace Ombrel
