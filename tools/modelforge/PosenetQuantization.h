// The published PoseNet in 8-bit integers, as a camera's accelerator runs it: int8 weights per
// output channel (symmetric), int32 biases, int8 activations, and the float model's uint8 picture
// input and uint8 outputs with their zero points and scales, so that the same detector runs it.
//
//   uint8 picture -> DEQUANTIZE -> QUANTIZE to int8 (the picture brought to [-1, 1]) -> int8
//   CONV_2D / DEPTHWISE_CONV_2D with fused RELU6 (activations 0..6 at 6/255) -> int8 heads at the
//   outputs' scales -> DEQUANTIZE -> QUANTIZE to each output's uint8.
//
// The input is converted through float so that XNNPACK, which does not turn uint8 into int8 by
// itself, takes every operator. The int8 picture holds byte - 128 at 1/127.5, half a step below
// the float network's (byte - 127.5) / 127.5; the first layer's biases make up for it.
//
// The weights are fitted on calibration pictures run through the float network on TensorFlow
// Lite: each layer's weights are rounded one input at a time, the rounding error of each carried
// onto the weights not yet rounded in proportion to how the layer's inputs go together on the
// pictures (the inverse of their second moments), so that the layer's output moves as little as
// it can. Each backbone layer's biases then take up the mean error of its own rounding, and the
// heads' biases the mean error that the whole int8 network leaves, per channel. Channels with
// near-zero weights get a scale floor that keeps their int32 biases in range. Plain rounding to
// the nearest step loses weak people.
//
// A plain function of its arguments: no files, no threads; throws std::runtime_error when the
// engine cannot run a graph.
#pragma once

#include "ForgedModels.h"
#include "GraphModel.h"
#include "ModelGraph.h"

#include <cstdint>
#include <string>
#include <vector>

namespace modelforge {

// A calibration picture at the model's input size, RGB, rows from the top.
struct CalibrationPicture {
    std::string label;
    std::vector<std::uint8_t> rgb;
};

// What fitting found, for the forge's report: per output, the largest and mean absolute
// difference of the int8 network's values from the float network's on the calibration pictures
// (before the outputs' uint8 saturation), and the calibration's cost.
struct QuantizationReport {
    std::vector<std::string> outputs;
    std::vector<float> largestDifference;
    std::vector<float> meanDifference;
    double seconds = 0.0;
};

ModelGraph posenetInt8Graph(const GraphModel& network, const PosenetModel& model,
                            const std::vector<CalibrationPicture>& pictures,
                            QuantizationReport* report = nullptr);

} // namespace modelforge
