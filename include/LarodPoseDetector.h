// LarodPoseDetector: skeletons from a quantised multi-person BodyPix model of 1281 x 721 pixels
// (a grid of 46 x 81 cells at stride 16) on the inference service.
//
// detect() writes the frame straight into the model's input file, rewinds the six output files,
// runs the one job request, dequantises heatmaps, short and mid offsets, decodes up to 20 poses,
// cuts the list at the first pose scored below the confidence threshold and returns the poses as
// detections: in the model's input pixels, or mapped into the caller's rectangle. It never
// throws: a missing frame or a failed job gives one error line and an empty result. The segment,
// part heatmap and long offset outputs are bound but not read.
//
// This header also holds the dequantisers of the pose models, (zero point, scale, extra scale),
// built at program start; the extra scale 1/16 turns offsets into grid cells.
//
// The detector keeps about 1.7 MB of working arrays as members: allocate it on the heap. It owns
// its mapped files; no lock, one thread at a time.
#pragma once

#include "LarodDetectorBase.h"
#include "PoseBase.h"

#include <array>
#include <memory>
#include <string>

namespace Ombrel {

extern template class LarodDetectorBase<PoseDetectionBase<BodypixBodyPart>>;

extern const Dequantizer heatmapDequantizer;            // 210, 0.08174263, 1
extern const Dequantizer shortOffsetDequantizer;        // 142, 0.73682034, 1/16
extern const Dequantizer midOffsetDequantizer;          // 123, 1.4407082, 1/16
extern const Dequantizer posenetHeatmapDequantizer;     // 128, 0.078431375, 1
extern const Dequantizer posenetShortOffsetDequantizer; // 128, 0.078431375, 1/16
extern const Dequantizer posenetMidOffsetDequantizer;   // 117, 1.3875765, 1/16
extern const Dequantizer identityDequantizer;           // 0, 1, 1
extern const Dequantizer uint8ToFloatDequantizer;       // 0, 0.003921569, 1
extern const Dequantizer uint8ToFloatOffsetDequantizer; // 0, 0.003921569, 1/16
extern const Dequantizer zeroDequantizer;               // 0, 0, 1

class LarodPoseDetector : public LarodDetectorBase<PoseDetectionBase<BodypixBodyPart>> {
public:
    LarodPoseDetector(const std::string& modelFilepath, const std::string& deviceName);
    ~LarodPoseDetector() override;

    // The poses in the model's input pixels.
    Detections detect(ImageFrameSource& imageFrameSource) override;
    void bindTensorsToFiles() override;
    // The poses mapped into denormalizationBoundingBox, the part of the caller's pixel space onto
    // which the model's input maps.
    virtual Detections detect(ImageFrameSource& imageFrameSource,
                              const IRectangle& denormalizationBoundingBox);

    Detections tensorsToDetections(const IRectangle& denormalizationBoundingBox) const;
    // The poses in the model's input pixels; the resolution is not used.
    Detections tensorsToDetections(const Resolution& resolution) const;

    // Results of the last detect, in the model's input pixels; nPose below the count of poses.
    IPoint getKeypointLocation(int nPose, BodypixBodyPart bodyPart) const;
    float getKeypointScore(int nPose, BodypixBodyPart bodyPart) const;
    Keypoints getKeypoints(int nPose) const;
    float getPoseScore(int nPose) const;
    int getNumberOfPoses() const { return _nPoses; }

protected:
    // Steps 1 to 9 of detect; false after an error line.
    bool runAndDecode(ImageFrameSource& imageFrameSource);

    std::unique_ptr<MemoryMappedFile> _BodypixInputImageFile;
    std::unique_ptr<MemoryMappedFile> _BodypixOutputHeatmapsFile;
    std::unique_ptr<MemoryMappedFile> _BodypixOutputShortOffsetsFile;
    std::unique_ptr<MemoryMappedFile> _BodypixOutputMidOffsetsFile;
    std::unique_ptr<MemoryMappedFile> _BodypixOutputLongOffsetsFile;
    std::unique_ptr<MemoryMappedFile> _BodypixOutputSegmentsFile;
    std::unique_ptr<MemoryMappedFile> _BodypixOutputPartHeatmapsFile;
    std::array<float, 63342> _BodypixOutputHeatmapsDequantized;
    std::array<float, 126684> _BodypixOutputShortOffsetsDequantized;
    std::array<float, 238464> _BodypixOutputMidOffsetsDequantized;

    std::array<float, 680> _PoseKeypoints;
    std::array<float, 340> _PoseKeypointScores;
    std::array<float, 20> _PoseScores;
    int _nPoses;
};

} // namespace Ombrel
