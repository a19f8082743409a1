// LarodObjectDetector: boxes from an object-detection model with four float outputs
// (locations, classes, scores, number of detections), as the post-processing of SSD-style models
// gives them, in the pixels of the frame source.
//
// detect() writes the frame straight into the model's input file, rewinds the output files, runs
// the one job request, decodes at most MAX_NUMBER_OF_RESULTS detections above the confidence
// threshold, thins them with the NMS filter and keeps those strictly above the threshold. It
// never throws: a missing frame or a failed job gives one error line and an empty result.
//
// Runs on the default device. Owns its five mapped files; no lock, one thread at a time.
#pragma once

#include "LarodDetectorBase.h"
#include "ObjectDetection.h"

#include <memory>
#include <string>

namespace Ombrel {

extern template class LarodDetectorBase<ObjectDetection>;

class LarodObjectDetector : public LarodDetectorBase<ObjectDetection> {
public:
    explicit LarodObjectDetector(const std::string& modelPath);
    ~LarodObjectDetector() override;

    Detections detect(ImageFrameSource& imageFrameSource) override;
    void bindTensorsToFiles() override;
    // The model's outputs as detections in the pixels of streamResolution, before filtering.
    Detections tensorsToDetections(const Resolution& streamResolution) const;

protected:
    std::unique_ptr<MemoryMappedFile> _LarodInputFile;
    std::unique_ptr<MemoryMappedFile> _LarodOutputLocationsFile;
    std::unique_ptr<MemoryMappedFile> _LarodOutputClassesFile;
    std::unique_ptr<MemoryMappedFile> _LarodOutputScoresFile;
    std::unique_ptr<MemoryMappedFile> _LarodOutputNumDetectionsFile;
    const int MAX_NUMBER_OF_RESULTS = 100;
};

} // namespace Ombrel
