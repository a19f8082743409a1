// The published PoseNet as a TensorFlow Lite model: a graph model's network (GraphModel.h) written
// with builtin operators only, for one of the input sizes and output layouts of ForgedModels.h.
//
//   input uint8 -> DEQUANTIZE (scale 1/127.5) -> ADD -1 -> CONV_2D / DEPTHWISE_CONV_2D with the
//   graph's strides, padding and fused activations -> the heads as 1x1 CONV_2D -> QUANTIZE to
//   each output's uint8 (or float32 outputs as they stand).
//
// The two displacement heads become one 64-channel convolution where an output wants them
// concatenated. Throws std::runtime_error when the graph is not a PoseNet (four heads named
// heatmap, offset, displacement_fwd, displacement_bwd) or its layers do not fit together.
#pragma once

#include "ForgedModels.h"
#include "GraphModel.h"
#include "ModelGraph.h"

namespace modelforge {

ModelGraph posenetGraph(const GraphModel& network, const PosenetModel& model);

} // namespace modelforge
