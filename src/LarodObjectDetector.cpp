#include "LarodObjectDetector.h"

#include "ImageFrameSource.h"
#include "Points.h"

#include <cstdint>
#include <cstring>

namespace Ombrel {

namespace {

// The i-th 32-bit float of a mapped output. Read through memcpy: the mapping holds bytes.
float floatAt(const std::unique_ptr<MemoryMappedFile>& file, int i) {
    float value = 0.0f;
    std::memcpy(&value, static_cast<const std::uint8_t*>(file->getBuffer()) + 4 * i, sizeof value);
    return value;
}

int toPixel(float normalized, float extent) {
    return detail::truncateTo<int>(static_cast<double>(normalized * extent));
}

} // namespace

LarodObjectDetector::LarodObjectDetector(const std::string& modelPath)
    : LarodDetectorBase<ObjectDetection>(modelPath, "") {}

LarodObjectDetector::~LarodObjectDetector() {
    g_stemlibLogger.info("~LarodObjectDetector: LarodObjectDetector destructor called");
}

void LarodObjectDetector::bindTensorsToFiles() {
    g_stemlibLogger.info("bindTensorsToFiles: LarodObjectDetector::bindTensorsToFiles "
                         "numInputTensors=" +
                         std::to_string(_numInputTensors) +
                         " numOutputTensors=" + std::to_string(_numOutputTensors));
    requireTensors(1, 4, "LarodObjectDetector");
    // The output sizes are counts of values, not of bytes; a full read of the locations
    // (1600 bytes) still stays inside the first page of its mapping.
    _LarodInputFile = std::make_unique<MemoryMappedFile>(
        "/tmp/larod.in0-XXXXXX", static_cast<int>(3 * _inputResolution.area()));
    _LarodOutputLocationsFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out0-XXXXXX", 4 * MAX_NUMBER_OF_RESULTS);
    _LarodOutputClassesFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out1-XXXXXX", MAX_NUMBER_OF_RESULTS);
    _LarodOutputScoresFile =
        std::make_unique<MemoryMappedFile>("/tmp/larod.out2-XXXXXX", MAX_NUMBER_OF_RESULTS);
    _LarodOutputNumDetectionsFile = std::make_unique<MemoryMappedFile>("/tmp/larod.out3-XXXXXX", 1);

    bindTensorToFile(_larodInputTensorArray[0], _LarodInputFile, "Input Image");
    bindTensorToFile(_larodOutputTensorArray[0], _LarodOutputLocationsFile, "Output Locations");
    bindTensorToFile(_larodOutputTensorArray[1], _LarodOutputClassesFile, "Output Classes");
    bindTensorToFile(_larodOutputTensorArray[2], _LarodOutputScoresFile, "Output Scores");
    bindTensorToFile(_larodOutputTensorArray[3], _LarodOutputNumDetectionsFile,
                     "Number of Detections");
}

LarodObjectDetector::Detections LarodObjectDetector::detect(ImageFrameSource& imageFrameSource) {
    if (!runJobOnFrame(imageFrameSource, _LarodInputFile,
                       {_LarodOutputLocationsFile.get(), _LarodOutputClassesFile.get(),
                        _LarodOutputScoresFile.get(), _LarodOutputNumDetectionsFile.get()})) {
        return Detections();
    }

    Detections detections = tensorsToDetections(imageFrameSource.getResolution());
    _nmsFilter.filter(detections);
    Detections result;
    result.reserve(detections.size());
    for (const ObjectDetection& detection : detections) {
        if (detection.confidence > _confidenceThreshold) {
            result.push_back(detection);
        }
    }
    return result;
}

LarodObjectDetector::Detections
LarodObjectDetector::tensorsToDetections(const Resolution& streamResolution) const {
    Detections detections;
    if (!_LarodOutputNumDetectionsFile) {
        return detections;
    }
    int numDetections =
        detail::truncateTo<int>(static_cast<double>(floatAt(_LarodOutputNumDetectionsFile, 0)));
    if (numDetections > MAX_NUMBER_OF_RESULTS) {
        g_stemlibLogger.error("tensorsToDetections: numDetections > MAX_NUMBER_OF_RESULTS");
        numDetections = MAX_NUMBER_OF_RESULTS;
    }
    const float heightExtent =
        static_cast<float>(static_cast<long long>(streamResolution.height) - 1);
    const float widthExtent =
        static_cast<float>(static_cast<long long>(streamResolution.width) - 1);
    for (int i = 0; i < numDetections; ++i) {
        const float score = floatAt(_LarodOutputScoresFile, i);
        const int classID =
            detail::truncateTo<int>(static_cast<double>(floatAt(_LarodOutputClassesFile, i)));
        if (score < _confidenceThreshold) {
            continue;
        }
        // top, left, bottom, right, normalised to 0..1.
        const int top = toPixel(floatAt(_LarodOutputLocationsFile, 4 * i), heightExtent);
        const int left = toPixel(floatAt(_LarodOutputLocationsFile, 4 * i + 1), widthExtent);
        const int bottom = toPixel(floatAt(_LarodOutputLocationsFile, 4 * i + 2), heightExtent);
        const int right = toPixel(floatAt(_LarodOutputLocationsFile, 4 * i + 3), widthExtent);
        const FRectangle box(static_cast<float>(left), static_cast<float>(top),
                             static_cast<float>(static_cast<long long>(right) - left),
                             static_cast<float>(static_cast<long long>(bottom) - top));
        detections.emplace_back(box, classID, score);
    }
    return detections;
}

} // namespace Ombrel
