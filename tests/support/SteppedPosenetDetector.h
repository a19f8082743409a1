// A PosenetPoseDetector with the steps of detect opened up, so that benchmarks can time each:
// the frame into the input file, the job, the dequantisation and the decoding (mapping is the
// detector's own, on the decoded poses).
#pragma once

#include "Dequantizer.h"
#include "PosenetDecoder.h"
#include "PosenetPoseDetector.h"

#include <larod.h>

#include <cstdint>
#include <string>

namespace StemlibTest {

class SteppedPosenetDetector : public Ombrel::PosenetPoseDetector {
public:
    SteppedPosenetDetector(const std::string& modelPath, const std::string& device)
        : Ombrel::PosenetPoseDetector(modelPath, device) {}

    bool copyFrame(Ombrel::ImageFrameSource& source) {
        return source.getFrame(_inputResolution, 0,
                               static_cast<std::uint8_t*>(_PosenetInputImageFile->getBuffer()));
    }
    bool runJob() {
        _PosenetOutputMidOffsetsFile->rewind();
        _PosenetOutputHeatmapsFile->rewind();
        _PosenetOutputShortOffsetsFile->rewind();
        return larodRunJob(_larodConnection, _larodJobRequest, nullptr);
    }
    void dequantize() {
        Ombrel::posenetHeatmapDequantizer.dequantize(
            static_cast<const std::uint8_t*>(_PosenetOutputHeatmapsFile->getBuffer()),
            _PosenetOutputHeatmapsDequantized.data(), 12121);
        Ombrel::posenetShortOffsetDequantizer.dequantize(
            static_cast<const std::uint8_t*>(_PosenetOutputShortOffsetsFile->getBuffer()),
            _PosenetOutputShortOffsetsDequantized.data(), 24242);
        Ombrel::posenetMidOffsetDequantizer.dequantize(
            static_cast<const std::uint8_t*>(_PosenetOutputMidOffsetsFile->getBuffer()),
            _PosenetOutputMidOffsetsDequantized.data(), 45632);
    }
    // The number of poses found on the 23 x 31 grid.
    int decode() {
        return Ombrel::PosenetDecoder::DecodeAllPoses(
            _PosenetOutputHeatmapsDequantized.data(), _PosenetOutputShortOffsetsDequantized.data(),
            _PosenetOutputMidOffsetsDequantized.data(), 23, 31, 20, 0.01f, 5, 2.0f, 16, _poses,
            _scores, _poseScores);
    }

private:
    Ombrel::PosenetDecoder::PoseKeypoints _poses[20];
    Ombrel::PosenetDecoder::PoseKeypointScores _scores[20];
    float _poseScores[20];
};

} // namespace StemlibTest
