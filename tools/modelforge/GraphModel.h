// GraphModel: a trained convolutional network read from a TensorFlow.js graph model (the JSON
// topology with its weight manifest, and the binary weight file it names).
//
// Only what a MobileNet-style network needs is understood: one float placeholder, float32
// constants, and _FusedConv2D / FusedDepthwiseConv2dNative nodes in NHWC with a fused BiasAdd and
// an optional Relu or Relu6. Anything else (another operator, dilation, quantised weights, a
// weight file of the wrong size, a dangling input) is refused with a std::runtime_error that
// names the node or file. Filters are kept in the graph model's layout: [kh, kw, in, out] for a
// convolution, [kh, kw, in, multiplier] for a depthwise one.
//
// A plain value: no threads; the files are read once by loadGraphModel.
#pragma once

#include "ModelGraph.h"

#include <string>
#include <vector>

namespace modelforge {

struct ConvNode {
    std::string name;
    bool depthwise = false;
    std::string input; // the node or placeholder it reads
    int strideH = 1;
    int strideW = 1;
    bool samePadding = true;
    Activation activation = Activation::None;
    std::vector<int> filterShape; // [kh, kw, in, out or multiplier]
    std::vector<float> filter;
    std::vector<float> bias;

    int outputChannels() const {
        return depthwise ? filterShape[2] * filterShape[3] : filterShape[3];
    }
};

struct GraphModel {
    std::string inputName;
    std::vector<ConvNode> nodes;      // in an order where each node follows its input
    std::vector<std::string> outputs; // nodes that no other node reads, in node order

    // The node of that name; throws std::runtime_error when there is none.
    const ConvNode& node(const std::string& name) const;
};

// Reads <directory>/<modelFile> and the weight files of its manifest beside it.
GraphModel loadGraphModel(const std::string& directory, const std::string& modelFile);

} // namespace modelforge
