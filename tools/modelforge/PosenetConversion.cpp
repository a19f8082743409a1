#include "PosenetConversion.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <stdexcept>

namespace modelforge {

namespace {

// A computed feature map: the layer that computes it (-1: the picture) and its size.
struct Feature {
    int layer;
    int height;
    int width;
    int channels;
};

int outputSize(int size, int stride, int kernel, bool samePadding) {
    return samePadding ? (size + stride - 1) / stride : (size - kernel) / stride + 1;
}

// TensorFlow's [kh, kw, in, out] filter as TensorFlow Lite's [out, kh, kw, in].
std::vector<float> convFilter(const ConvNode& node) {
    const int kh = node.filterShape[0];
    const int kw = node.filterShape[1];
    const int in = node.filterShape[2];
    const int out = node.filterShape[3];
    std::vector<float> result(node.filter.size());
    for (int o = 0; o < out; ++o) {
        for (int y = 0; y < kh; ++y) {
            for (int x = 0; x < kw; ++x) {
                for (int i = 0; i < in; ++i) {
                    result[static_cast<std::size_t>(((o * kh + y) * kw + x) * in + i)] =
                        node.filter[static_cast<std::size_t>(((y * kw + x) * in + i) * out + o)];
                }
            }
        }
    }
    return result;
}

// The graph model's convolutions as PosenetLayers, the heads merged as the outputs want them.
class Converter {
public:
    Converter(const GraphModel& network, const PosenetModel& model)
        : _network(network), _model(model) {}

    std::vector<PosenetLayer> run() {
        findHeads();
        _features[_network.inputName] = Feature{-1, _model.height, _model.width, 3};
        for (const ConvNode& node : _network.nodes) {
            if (!isHead(node.name)) {
                _features[node.name] = convolve(node.name, {&node}, -1);
            }
        }
        for (std::size_t o = 0; o < _model.outputs.size(); ++o) {
            const PosenetOutput& output = _model.outputs[o];
            std::vector<const ConvNode*> nodes;
            switch (output.head) {
            case PosenetHead::Heatmaps:
                nodes = {&_network.node(_heads[0])};
                break;
            case PosenetHead::ShortOffsets:
                nodes = {&_network.node(_heads[1])};
                break;
            case PosenetHead::MidOffsets:
                nodes = {&_network.node(_heads[2]), &_network.node(_heads[3])};
                break;
            case PosenetHead::Forward:
                nodes = {&_network.node(_heads[2])};
                break;
            case PosenetHead::Backward:
                nodes = {&_network.node(_heads[3])};
                break;
            case PosenetHead::Absent:
                continue;
            }
            const std::string name = _model.floatOutputs ? output.name : output.name + "_values";
            const Feature values = convolve(name, nodes, static_cast<int>(o));
            if (values.height != _model.gridHeight() || values.width != _model.gridWidth() ||
                values.channels != output.channels) {
                throw std::runtime_error(
                    "output " + output.name + " comes out " + std::to_string(values.height) +
                    " x " + std::to_string(values.width) + " x " + std::to_string(values.channels) +
                    ", not " + std::to_string(_model.gridHeight()) + " x " +
                    std::to_string(_model.gridWidth()) + " x " + std::to_string(output.channels));
            }
        }
        return std::move(_layers);
    }

private:
    void findHeads() {
        const char* keys[] = {"heatmap", "offset", "displacement_fwd", "displacement_bwd"};
        for (const std::string& name : _network.outputs) {
            int found = -1;
            for (int k = 0; k < 4; ++k) {
                if (name.find(keys[k]) != std::string::npos) {
                    found = k;
                    break;
                }
            }
            if (found < 0 || !_heads[found].empty()) {
                throw std::runtime_error("output " + name + " is not one of PoseNet's heads");
            }
            _heads[found] = name;
        }
        for (int k = 0; k < 4; ++k) {
            if (_heads[k].empty()) {
                throw std::runtime_error(std::string("the graph has no ") + keys[k] + " head");
            }
        }
    }

    bool isHead(const std::string& name) const {
        for (const std::string& head : _heads) {
            if (head == name) {
                return true;
            }
        }
        return false;
    }

    // One convolution of the nodes' filters stacked on their output channels: the nodes must
    // read the same input with the same options (a single node in all but the merged heads).
    Feature convolve(const std::string& name, const std::vector<const ConvNode*>& nodes,
                     int output) {
        const ConvNode& first = *nodes.front();
        const auto in = _features.find(first.input);
        if (in == _features.end()) {
            throw std::runtime_error("node " + first.name + " reads " + first.input +
                                     ", which is not computed");
        }
        const Feature& input = in->second;
        PosenetLayer layer;
        for (const ConvNode* node : nodes) {
            if (node->input != first.input || node->depthwise != first.depthwise ||
                node->strideH != first.strideH || node->strideW != first.strideW ||
                node->samePadding != first.samePadding || node->activation != first.activation ||
                node->filterShape[0] != first.filterShape[0] ||
                node->filterShape[1] != first.filterShape[1]) {
                throw std::runtime_error("nodes " + first.name + " and " + node->name +
                                         " cannot be merged");
            }
            if (node->filterShape[2] != input.channels) {
                throw std::runtime_error(
                    "node " + node->name + " expects " + std::to_string(node->filterShape[2]) +
                    " input channels, its input has " + std::to_string(input.channels));
            }
            // A depthwise filter [kh, kw, in, multiplier] is already TensorFlow Lite's
            // [1, kh, kw, in * multiplier].
            const std::vector<float> part = node->depthwise ? node->filter : convFilter(*node);
            layer.filter.insert(layer.filter.end(), part.begin(), part.end());
            layer.bias.insert(layer.bias.end(), node->bias.begin(), node->bias.end());
            layer.outChannels += node->outputChannels();
        }
        if (first.depthwise && nodes.size() != 1) {
            throw std::runtime_error("depthwise node " + first.name + " cannot be merged");
        }
        layer.name = name;
        layer.input = input.layer;
        layer.output = output;
        layer.depthwise = first.depthwise;
        layer.depthMultiplier = first.depthwise ? first.filterShape[3] : 1;
        layer.strideH = first.strideH;
        layer.strideW = first.strideW;
        layer.samePadding = first.samePadding;
        layer.activation = first.activation;
        layer.kernelH = first.filterShape[0];
        layer.kernelW = first.filterShape[1];
        layer.inChannels = input.channels;
        layer.inHeight = input.height;
        layer.inWidth = input.width;
        layer.outHeight = outputSize(input.height, first.strideH, layer.kernelH, first.samePadding);
        layer.outWidth = outputSize(input.width, first.strideW, layer.kernelW, first.samePadding);
        if (layer.outHeight < 1 || layer.outWidth < 1) {
            throw std::runtime_error("node " + first.name + " leaves no output at " +
                                     std::to_string(_model.width) + " x " +
                                     std::to_string(_model.height));
        }
        _layers.push_back(std::move(layer));
        const PosenetLayer& added = _layers.back();
        return Feature{static_cast<int>(_layers.size() - 1), added.outHeight, added.outWidth,
                       added.outChannels};
    }

    const GraphModel& _network;
    const PosenetModel& _model;
    std::vector<PosenetLayer> _layers;
    std::map<std::string, Feature> _features;
    std::string _heads[4]; // heatmaps, short offsets, forward and backward displacements
};

} // namespace

std::vector<PosenetLayer> posenetLayers(const GraphModel& network, const PosenetModel& model) {
    return Converter(network, model).run();
}

FloatNetwork floatNetwork(ModelGraph& graph, const std::vector<PosenetLayer>& layers,
                          const PosenetModel& model) {
    FloatNetwork result;
    result.input = graph.addTensor("image", ElementType::UInt8, {1, model.height, model.width, 3},
                                   Quantization{1.0f / 127.5f, 0});
    const int scaled =
        graph.addTensor("image_scaled", ElementType::Float32, {1, model.height, model.width, 3});
    graph.addBuiltin(Builtin::Dequantize, {result.input}, {scaled});
    const int minusOne = graph.addFloatConstant("minus_one", {1}, {-1.0f});
    result.normalized = graph.addTensor("image_normalized", ElementType::Float32,
                                        {1, model.height, model.width, 3});
    graph.addBuiltin(Builtin::Add, {scaled, minusOne}, {result.normalized});
    for (const PosenetLayer& layer : layers) {
        const int input = layer.input < 0 ? result.normalized
                                          : result.layers.at(static_cast<std::size_t>(layer.input));
        const std::vector<int> filterShape =
            layer.depthwise ? std::vector<int>{1, layer.kernelH, layer.kernelW, layer.outChannels}
                            : std::vector<int>{layer.outChannels, layer.kernelH, layer.kernelW,
                                               layer.inChannels};
        const int filter =
            graph.addFloatConstant(layer.name + "/weights", filterShape, layer.filter);
        const int bias =
            graph.addFloatConstant(layer.name + "/bias", {layer.outChannels}, layer.bias);
        const int out = graph.addTensor(layer.name, ElementType::Float32,
                                        {1, layer.outHeight, layer.outWidth, layer.outChannels});
        if (layer.depthwise) {
            graph.addDepthwiseConv2D({input, filter, bias}, out,
                                     DepthwiseConv2DOptions{layer.strideW, layer.strideH,
                                                            layer.depthMultiplier,
                                                            layer.samePadding, layer.activation});
        } else {
            graph.addConv2D(
                {input, filter, bias}, out,
                Conv2DOptions{layer.strideW, layer.strideH, layer.samePadding, layer.activation});
        }
        result.layers.push_back(out);
    }
    return result;
}

int absentOutput(ModelGraph& graph, const PosenetModel& model, const PosenetOutput& output) {
    const std::vector<int> shape{1, model.gridHeight(), model.gridWidth(), output.channels};
    const std::size_t count = static_cast<std::size_t>(model.gridHeight()) *
                              static_cast<std::size_t>(model.gridWidth()) *
                              static_cast<std::size_t>(output.channels);
    // What the network does not compute holds the zero point: the value 0.
    return graph.addTensor(
        output.name, ElementType::UInt8, shape, Quantization{output.scale, output.zeroPoint},
        std::vector<std::uint8_t>(count, static_cast<std::uint8_t>(output.zeroPoint)));
}

ModelGraph posenetGraph(const GraphModel& network, const PosenetModel& model) {
    const std::vector<PosenetLayer> layers = posenetLayers(network, model);
    ModelGraph graph;
    const FloatNetwork computed = floatNetwork(graph, layers, model);
    std::vector<int> outputs;
    for (std::size_t o = 0; o < model.outputs.size(); ++o) {
        const PosenetOutput& output = model.outputs[o];
        const auto layer = std::find_if(layers.begin(), layers.end(), [o](const PosenetLayer& l) {
            return l.output == static_cast<int>(o);
        });
        if (layer == layers.end()) {
            outputs.push_back(absentOutput(graph, model, output));
            continue;
        }
        const int values = computed.layers[static_cast<std::size_t>(layer - layers.begin())];
        if (model.floatOutputs) {
            outputs.push_back(values);
            continue;
        }
        const int out = graph.addTensor(output.name, ElementType::UInt8,
                                        {1, model.gridHeight(), model.gridWidth(), output.channels},
                                        Quantization{output.scale, output.zeroPoint});
        graph.addBuiltin(Builtin::Quantize, {values}, {out});
        outputs.push_back(out);
    }
    graph.setInputs({computed.input});
    graph.setOutputs(outputs);
    return graph;
}

} // namespace modelforge
