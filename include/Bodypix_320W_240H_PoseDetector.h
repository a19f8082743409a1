// Bodypix_320W_240H_PoseDetector: skeletons from a quantised multi-person BodyPix model of
// 320 x 240 pixels (a grid of 15 x 20 cells at stride 16) with eight outputs, on the default
// device of the inference service.
//
// detect(source, rectangle) works as PosenetPoseDetector's does, over the eight outputs: all are
// dequantised, and the mid offsets that the decoder reads are the forward displacements followed
// by the backward ones, a plain concatenation of the two blocks. detect(source) alone is refused
// with an error line.
//
// The detector owns its mapped files; no lock, one thread at a time.
#pragma once

#include "LarodPoseDetector.h"

namespace Ombrel {

class Bodypix_320W_240H_PoseDetector
    : public LarodDetectorBase<PoseDetectionBase<BodypixBodyPart>> {
public:
    explicit Bodypix_320W_240H_PoseDetector(const std::string& modelFilepath);
    ~Bodypix_320W_240H_PoseDetector() override;

    // Logs an error and returns nothing: the rectangle is needed.
    Detections detect(ImageFrameSource& imageFrameSource) override;
    void bindTensorsToFiles() override;
    virtual Detections detect(ImageFrameSource& imageFrameSource,
                              const IRectangle& denormalizationBoundingBox);

    Detections tensorsToDetections(const IRectangle& denormalizationBoundingBox) const;

    // Results of the last detect, in the model's input pixels; nPose below the count of poses.
    IPoint getKeypointLocation(int nPose, BodypixBodyPart bodyPart) const;
    float getKeypointScore(int nPose, BodypixBodyPart bodyPart) const;
    Keypoints getKeypoints(int nPose) const;
    float getPoseScore(int nPose) const;
    int getNumberOfPoses() const { return _nPoses; }

    static const Dequantizer _displacementBackwardDequantizer; // 174, 0.7755094, 1/16
    static const Dequantizer _displacementForwardDequantizer;  // 51, 0.8475879, 1/16
    static const Dequantizer _heatmapDequantizer;              // 167, 0.1002763, 1
    static const Dequantizer _longOffsetDequantizer;           // 127, 0.8586689, 1/16
    static const Dequantizer _partHeatmapDequantizer;          // 90, 0.10960945, 1
    static const Dequantizer _partOffsetDequantizer;           // 0, 0.003921569, 1/16
    static const Dequantizer _segmentsDequantizer;             // 160, 0.10387437, 1
    static const Dequantizer _shortOffsetDequantizer;          // 134, 0.5554287, 1/16

protected:
    std::unique_ptr<MemoryMappedFile> _PosenetInputImageFile;
    std::unique_ptr<MemoryMappedFile> _PosenetOutputDisplacementBackwardsFile;
    std::unique_ptr<MemoryMappedFile> _PosenetOutputDisplacementForwardsFile;
    std::unique_ptr<MemoryMappedFile> _PosenetOutputHeatmapsFile;
    std::unique_ptr<MemoryMappedFile> _PosenetOutputLongOffsetsFile;
    std::unique_ptr<MemoryMappedFile> _PosenetOutputPartHeatmapsFile;
    std::unique_ptr<MemoryMappedFile> _PosenetOutputPartOffsetsFile;
    std::unique_ptr<MemoryMappedFile> _PosenetOutputSegmentsFile;
    std::unique_ptr<MemoryMappedFile> _PosenetOutputShortOffsetsFile;
    std::array<float, 9600> _PosenetOutputDisplacementBackwardsDequantized;
    std::array<float, 9600> _PosenetOutputDisplacementForwardsDequantized;
    std::array<float, 5100> _PosenetOutputHeatmapsDequantized;
    std::array<float, 10200> _PosenetOutputLongOffsetsDequantized;
    std::array<float, 7200> _PosenetOutputPartHeatmapsDequantized;
    std::array<float, 14400> _PosenetOutputPartOffsetsDequantized;
    std::array<float, 300> _PosenetOutputSegmentsDequantized;
    std::array<float, 10200> _PosenetOutputShortOffsetsDequantized;
    std::array<float, 19200> _PosenetOutputMidOffsetsDequantized;

    std::array<float, 680> _PoseKeypoints;
    std::array<float, 340> _PoseKeypointScores;
    std::array<float, 20> _PoseScores;
    int _nPoses;
};

} // namespace Ombrel
