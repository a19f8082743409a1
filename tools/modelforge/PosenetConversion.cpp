#include "PosenetConversion.h"

#include <cstring>
#include <map>
#include <stdexcept>

namespace modelforge {

namespace {

// A computed float tensor and what it holds.
struct Feature {
    int tensor;
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

class Converter {
public:
    Converter(const GraphModel& network, const PosenetModel& model)
        : _network(network), _model(model) {}

    ModelGraph run() {
        findHeads();
        const int input =
            _graph.addTensor("image", ElementType::UInt8, {1, _model.height, _model.width, 3},
                             Quantization{1.0f / 127.5f, 0});
        const int scaled = _graph.addTensor("image_scaled", ElementType::Float32,
                                            {1, _model.height, _model.width, 3});
        _graph.addBuiltin(Builtin::Dequantize, {input}, {scaled});
        const int minusOne = _graph.addFloatConstant("minus_one", {1}, {-1.0f});
        const int normalized = _graph.addTensor("image_normalized", ElementType::Float32,
                                                {1, _model.height, _model.width, 3});
        _graph.addBuiltin(Builtin::Add, {scaled, minusOne}, {normalized});
        _features[_network.inputName] = Feature{normalized, _model.height, _model.width, 3};

        for (const ConvNode& node : _network.nodes) {
            if (!isHead(node.name)) {
                _features[node.name] = convolve(node.name, {&node});
            }
        }

        std::vector<int> outputs;
        for (const PosenetOutput& output : _model.outputs) {
            outputs.push_back(writeOutput(output));
        }
        _graph.setInputs({input});
        _graph.setOutputs(outputs);
        return std::move(_graph);
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
    Feature convolve(const std::string& name, const std::vector<const ConvNode*>& nodes) {
        const ConvNode& first = *nodes.front();
        const auto in = _features.find(first.input);
        if (in == _features.end()) {
            throw std::runtime_error("node " + first.name + " reads " + first.input +
                                     ", which is not computed");
        }
        const Feature& input = in->second;
        std::vector<float> filter;
        std::vector<float> bias;
        int channels = 0;
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
            filter.insert(filter.end(), part.begin(), part.end());
            bias.insert(bias.end(), node->bias.begin(), node->bias.end());
            channels += node->outputChannels();
        }
        if (first.depthwise && nodes.size() != 1) {
            throw std::runtime_error("depthwise node " + first.name + " cannot be merged");
        }

        const int kh = first.filterShape[0];
        const int kw = first.filterShape[1];
        const Feature output{0, outputSize(input.height, first.strideH, kh, first.samePadding),
                             outputSize(input.width, first.strideW, kw, first.samePadding),
                             channels};
        if (output.height < 1 || output.width < 1) {
            throw std::runtime_error("node " + first.name + " leaves no output at " +
                                     std::to_string(_model.width) + " x " +
                                     std::to_string(_model.height));
        }
        const std::vector<int> filterShape =
            first.depthwise ? std::vector<int>{1, kh, kw, channels}
                            : std::vector<int>{channels, kh, kw, input.channels};
        const int filterTensor = _graph.addFloatConstant(name + "/weights", filterShape, filter);
        const int biasTensor = _graph.addFloatConstant(name + "/bias", {channels}, bias);
        const int out = _graph.addTensor(name, ElementType::Float32,
                                         {1, output.height, output.width, channels});
        if (first.depthwise) {
            _graph.addDepthwiseConv2D({input.tensor, filterTensor, biasTensor}, out,
                                      DepthwiseConv2DOptions{first.strideW, first.strideH,
                                                             first.filterShape[3],
                                                             first.samePadding, first.activation});
        } else {
            _graph.addConv2D(
                {input.tensor, filterTensor, biasTensor}, out,
                Conv2DOptions{first.strideW, first.strideH, first.samePadding, first.activation});
        }
        Feature result = output;
        result.tensor = out;
        return result;
    }

    int writeOutput(const PosenetOutput& output) {
        const std::vector<int> shape{1, _model.gridHeight(), _model.gridWidth(), output.channels};
        const Quantization q{output.scale, output.zeroPoint};
        if (output.head == PosenetHead::Absent) {
            // What the network does not compute holds the zero point: the value 0.
            std::size_t count = 1;
            for (int dim : shape) {
                count *= static_cast<std::size_t>(dim);
            }
            return _graph.addTensor(
                output.name, ElementType::UInt8, shape, q,
                std::vector<std::uint8_t>(count, static_cast<std::uint8_t>(output.zeroPoint)));
        }
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
            break;
        }
        const std::string name = _model.floatOutputs ? output.name : output.name + "_values";
        const Feature values = convolve(name, nodes);
        if (values.height != shape[1] || values.width != shape[2] ||
            values.channels != output.channels) {
            throw std::runtime_error(
                "output " + output.name + " comes out " + std::to_string(values.height) + " x " +
                std::to_string(values.width) + " x " + std::to_string(values.channels) + ", not " +
                std::to_string(shape[1]) + " x " + std::to_string(shape[2]) + " x " +
                std::to_string(shape[3]));
        }
        if (_model.floatOutputs) {
            return values.tensor;
        }
        const int out = _graph.addTensor(output.name, ElementType::UInt8, shape, q);
        _graph.addBuiltin(Builtin::Quantize, {values.tensor}, {out});
        return out;
    }

    const GraphModel& _network;
    const PosenetModel& _model;
    ModelGraph _graph;
    std::map<std::string, Feature> _features;
    std::string _heads[4]; // heatmaps, short offsets, forward and backward displacements
};

} // namespace

ModelGraph posenetGraph(const GraphModel& network, const PosenetModel& model) {
    return Converter(network, model).run();
}

} // namespace modelforge
