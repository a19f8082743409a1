// PosenetPoseDetector: skeletons from a quantised multi-person PoseNet model of 481 x 353 pixels
// (a grid of 23 x 31 cells at stride 16) on the inference service.
//
// detect(source, rectangle) writes the frame straight into the model's input file, rewinds the
// three output files, runs the one job request, dequantises heatmaps, short and mid offsets,
// decodes up to 20 poses, cuts the list at the first pose scored below the confidence threshold
// and maps the poses into the rectangle, the part of the caller's pixel space onto which the
// model's input maps. It never throws: a missing frame or a failed job gives one error line and
// an empty result. detect(source) alone is refused with an error line.
//
// The detector keeps about 1.7 MB of working arrays as members: allocate it on the heap. It owns
// its mapped files; no lock, one thread at a time.
#pragma once

#include "LarodPoseDetector.h"

namespace Ombrel {

class PosenetPoseDetector : public LarodDetectorBase<PoseDetectionBase<BodypixBodyPart>> {
public:
    PosenetPoseDetector(const std::string& modelFilepath, const std::string& deviceName);
    ~PosenetPoseDetector() override;

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

protected:
    std::unique_ptr<MemoryMappedFile> _PosenetInputImageFile;
    std::unique_ptr<MemoryMappedFile> _PosenetOutputHeatmapsFile;
    std::unique_ptr<MemoryMappedFile> _PosenetOutputShortOffsetsFile;
    std::unique_ptr<MemoryMappedFile> _PosenetOutputMidOffsetsFile;
    std::array<float, 63342> _PosenetOutputHeatmapsDequantized;
    std::array<float, 126684> _PosenetOutputShortOffsetsDequantized;
    std::array<float, 238464> _PosenetOutputMidOffsetsDequantized;

    std::array<float, 680> _PoseKeypoints;
    std::array<float, 340> _PoseKeypointScores;
    std::array<float, 20> _PoseScores;
    int _nPoses;
};

} // namespace Ombrel
