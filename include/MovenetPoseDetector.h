// MovenetPoseDetector: one skeleton from a single-person MoveNet model on the default device of
// the inference service. The model's float output is already the skeleton: 17 rows of y, x and
// score, normalised to 0..1.
//
// detect(source, rectangle) writes the frame straight into the model's input file, rewinds the
// output file, runs the one job request and maps the keypoints into the rectangle. The model
// gives no pose score: a detection's confidence is 0.5. It never throws: a missing frame or a
// failed job gives one error line and a default detection (no keypoints). detect(source) alone
// is refused with an error line.
//
// Owns its two mapped files; no lock, one thread at a time.
#pragma once

#include "LarodPoseDetector.h"

namespace Ombrel {

class MovenetPoseDetector : public LarodDetectorBase<PoseDetectionBase<BodypixBodyPart>> {
public:
    explicit MovenetPoseDetector(const std::string& modelFilepath);
    ~MovenetPoseDetector() override;

    // Logs an error and returns nothing: the rectangle is needed.
    Detections detect(ImageFrameSource& imageFrameSource) override;
    void bindTensorsToFiles() override;
    virtual Detection detect(ImageFrameSource& imageFrameSource,
                             const IRectangle& denormalizationBoundingBox);

    Detection tensorToDetection(const IRectangle& denormalizationBoundingBox) const;

protected:
    std::unique_ptr<MemoryMappedFile> _inputImageFile;
    std::unique_ptr<MemoryMappedFile> _outputSkeletonFile;
};

} // namespace Ombrel
