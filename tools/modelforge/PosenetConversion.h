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

// One convolution of the converted network, its filter in TensorFlow Lite's layout.
struct PosenetLayer {
    std::string name;
    int input = -1;  // the layer it reads; -1 for the picture brought to [-1, 1]
    int output = -1; // the model output it computes; -1 inside the backbone
    bool depthwise = false;
    int depthMultiplier = 1;
    int strideH = 1;
    int strideW = 1;
    bool samePadding = true;
    Activation activation = Activation::None;
    int kernelH = 1;
    int kernelW = 1;
    int inChannels = 0;
    int inHeight = 0;
    int inWidth = 0;
    int outChannels = 0;
    int outHeight = 0;
    int outWidth = 0;
    std::vector<float> filter; // [out, kh, kw, in], or [1, kh, kw, out] when depthwise
    std::vector<float> bias;
};

// The network's layers for a model's input size and outputs, each after the layer it reads.
std::vector<PosenetLayer> posenetLayers(const GraphModel& network, const PosenetModel& model);

// The float network written into a graph: the uint8 picture, DEQUANTIZE and ADD to [-1, 1], and
// every layer; the tensors of the picture, of the normalised picture and of each layer's output.
struct FloatNetwork {
    int input = -1;
    int normalized = -1;
    std::vector<int> layers;
};
FloatNetwork floatNetwork(ModelGraph& graph, const std::vector<PosenetLayer>& layers,
                          const PosenetModel& model);

// An output the network does not compute, a constant at its zero point.
int absentOutput(ModelGraph& graph, const PosenetModel& model, const PosenetOutput& output);

ModelGraph posenetGraph(const GraphModel& network, const PosenetModel& model);

} // namespace modelforge
