#include "GraphModel.h"

#include <flatbuffers/flexbuffers.h>
#include <flatbuffers/idl.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <stdexcept>

namespace modelforge {

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what);
}

std::vector<char> readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        fail("cannot read " + path + ": " + std::strerror(errno));
    }
    return std::vector<char>(std::istreambuf_iterator<char>(file), {});
}

// Attribute strings of a graph model are base64.
std::string decodeBase64(const std::string& text) {
    static const std::string alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    unsigned int bits = 0;
    int count = 0;
    for (char c : text) {
        if (c == '=') {
            break;
        }
        const std::size_t value = alphabet.find(c);
        if (value == std::string::npos) {
            fail("invalid base64 attribute \"" + text + "\"");
        }
        bits = (bits << 6) | static_cast<unsigned int>(value);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out.push_back(static_cast<char>((bits >> count) & 0xFF));
        }
    }
    return out;
}

// Integers come as JSON strings ("2") or numbers.
long long integer(const flexbuffers::Reference& value) {
    if (value.IsString()) {
        const std::string text = value.AsString().str();
        try {
            std::size_t used = 0;
            const long long result = std::stoll(text, &used);
            if (used == text.size()) {
                return result;
            }
        } catch (const std::exception&) {
        }
        fail("\"" + text + "\" is not an integer");
    }
    if (!value.IsNumeric()) {
        fail("an integer was expected");
    }
    return value.AsInt64();
}

std::vector<long long> integerList(const flexbuffers::Map& attr, const std::string& key) {
    std::vector<long long> result;
    const flexbuffers::Vector list = attr[key].AsMap()["list"].AsMap()["i"].AsVector();
    for (std::size_t i = 0; i < list.size(); ++i) {
        result.push_back(integer(list[i]));
    }
    return result;
}

std::string stringAttr(const flexbuffers::Map& attr, const std::string& key) {
    const flexbuffers::Reference value = attr[key].AsMap()["s"];
    return value.IsString() ? decodeBase64(value.AsString().str()) : std::string();
}

std::vector<std::string> stringList(const flexbuffers::Map& attr, const std::string& key) {
    std::vector<std::string> result;
    const flexbuffers::Vector list = attr[key].AsMap()["list"].AsMap()["s"].AsVector();
    for (std::size_t i = 0; i < list.size(); ++i) {
        result.push_back(decodeBase64(list[i].AsString().str()));
    }
    return result;
}

// "name:0" and "name" are the same tensor; control inputs ("^name") carry no data.
std::string tensorName(const std::string& input) {
    const std::size_t colon = input.find(':');
    return colon == std::string::npos ? input : input.substr(0, colon);
}

struct Weight {
    std::vector<int> shape;
    std::vector<float> values;
};

std::map<std::string, Weight> readWeights(const flexbuffers::Vector& manifest,
                                          const std::string& directory) {
    std::map<std::string, Weight> weights;
    for (std::size_t g = 0; g < manifest.size(); ++g) {
        const flexbuffers::Map group = manifest[g].AsMap();
        std::vector<char> bytes;
        const flexbuffers::Vector paths = group["paths"].AsVector();
        for (std::size_t p = 0; p < paths.size(); ++p) {
            const std::vector<char> part = readFile(directory + "/" + paths[p].AsString().str());
            bytes.insert(bytes.end(), part.begin(), part.end());
        }
        std::size_t offset = 0;
        const flexbuffers::Vector specs = group["weights"].AsVector();
        for (std::size_t w = 0; w < specs.size(); ++w) {
            const flexbuffers::Map spec = specs[w].AsMap();
            const std::string name = spec["name"].AsString().str();
            if (spec["dtype"].AsString().str() != "float32" || !spec["quantization"].IsNull()) {
                fail("weight " + name + " is not plain float32");
            }
            Weight weight;
            std::size_t count = 1;
            const flexbuffers::Vector shape = spec["shape"].AsVector();
            for (std::size_t d = 0; d < shape.size(); ++d) {
                const long long dim = integer(shape[d]);
                if (dim <= 0 || dim > (1 << 24)) {
                    fail("weight " + name + " has a bad shape");
                }
                weight.shape.push_back(static_cast<int>(dim));
                count *= static_cast<std::size_t>(dim);
            }
            if (offset + count * sizeof(float) > bytes.size()) {
                fail("the weight files end inside weight " + name);
            }
            weight.values.resize(count);
            std::memcpy(weight.values.data(), bytes.data() + offset, count * sizeof(float));
            offset += count * sizeof(float);
            weights[name] = std::move(weight);
        }
        if (offset != bytes.size()) {
            fail("the weight files hold " + std::to_string(bytes.size() - offset) +
                 " bytes more than the manifest describes");
        }
    }
    return weights;
}

Activation fusedActivation(const std::vector<std::string>& fused, const std::string& node) {
    if (fused.empty() || fused[0] != "BiasAdd" || fused.size() > 2) {
        fail("node " + node + ": only a fused BiasAdd with an optional Relu or Relu6 is supported");
    }
    if (fused.size() == 1) {
        return Activation::None;
    }
    if (fused[1] == "Relu6") {
        return Activation::Relu6;
    }
    if (fused[1] == "Relu") {
        return Activation::Relu;
    }
    fail("node " + node + ": unsupported fused activation " + fused[1]);
}

ConvNode convNode(const flexbuffers::Map& node, const std::map<std::string, Weight>& weights) {
    ConvNode conv;
    conv.name = node["name"].AsString().str();
    const std::string op = node["op"].AsString().str();
    conv.depthwise = op == "FusedDepthwiseConv2dNative";
    const flexbuffers::Map attr = node["attr"].AsMap();
    const flexbuffers::Vector inputs = node["input"].AsVector();
    if (inputs.size() != 3) {
        fail("node " + conv.name + ": expected input, filter and bias");
    }
    conv.input = tensorName(inputs[0].AsString().str());
    const auto weight = [&](std::size_t i) -> const Weight& {
        const auto found = weights.find(tensorName(inputs[i].AsString().str()));
        if (found == weights.end()) {
            fail("node " + conv.name + ": input " + inputs[i].AsString().str() +
                 " is not a weight");
        }
        return found->second;
    };
    const Weight& filter = weight(1);
    const Weight& bias = weight(2);
    if (filter.shape.size() != 4 || bias.shape.size() != 1) {
        fail("node " + conv.name + ": filter or bias of the wrong rank");
    }
    conv.filterShape = filter.shape;
    conv.filter = filter.values;
    conv.bias = bias.values;
    if (conv.bias.size() != static_cast<std::size_t>(conv.outputChannels())) {
        fail("node " + conv.name + ": bias does not match the filter's output channels");
    }

    const std::string format = stringAttr(attr, "data_format");
    if (!format.empty() && format != "NHWC") {
        fail("node " + conv.name + ": data format " + format + " is not NHWC");
    }
    const std::string padding = stringAttr(attr, "padding");
    if (padding != "SAME" && padding != "VALID") {
        fail("node " + conv.name + ": unsupported padding \"" + padding + "\"");
    }
    conv.samePadding = padding == "SAME";
    const std::vector<long long> strides = integerList(attr, "strides");
    if (strides.size() != 4 || strides[0] != 1 || strides[3] != 1 || strides[1] < 1 ||
        strides[2] < 1 || strides[1] > 16 || strides[2] > 16) {
        fail("node " + conv.name + ": unsupported strides");
    }
    conv.strideH = static_cast<int>(strides[1]);
    conv.strideW = static_cast<int>(strides[2]);
    for (long long dilation : integerList(attr, "dilations")) {
        if (dilation != 1) {
            fail("node " + conv.name + ": dilation is not supported");
        }
    }
    conv.activation = fusedActivation(stringList(attr, "fused_ops"), conv.name);
    return conv;
}

} // namespace

const ConvNode& GraphModel::node(const std::string& name) const {
    for (const ConvNode& n : nodes) {
        if (n.name == name) {
            return n;
        }
    }
    fail("the graph model has no node " + name);
}

GraphModel loadGraphModel(const std::string& directory, const std::string& modelFile) {
    const std::string path = directory + "/" + modelFile;
    std::vector<char> text = readFile(path);
    text.push_back('\0');
    flatbuffers::Parser parser;
    flexbuffers::Builder builder;
    if (!parser.ParseFlexBuffer(text.data(), path.c_str(), &builder)) {
        fail(path + " is not JSON: " + parser.error_);
    }
    const flexbuffers::Map root = flexbuffers::GetRoot(builder.GetBuffer()).AsMap();
    if (root["format"].AsString().str() != "graph-model") {
        fail(path + " is not a TensorFlow.js graph model");
    }
    const std::map<std::string, Weight> weights =
        readWeights(root["weightsManifest"].AsVector(), directory);

    GraphModel graph;
    std::vector<ConvNode> pending;
    const flexbuffers::Vector nodes = root["modelTopology"].AsMap()["node"].AsVector();
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        const flexbuffers::Map node = nodes[i].AsMap();
        const std::string op = node["op"].AsString().str();
        const std::string name = node["name"].AsString().str();
        if (op == "Const") {
            if (weights.count(name) == 0) {
                fail("constant " + name + " has no weight in the manifest");
            }
        } else if (op == "Placeholder") {
            if (!graph.inputName.empty()) {
                fail(path + " has more than one input");
            }
            graph.inputName = name;
        } else if (op == "_FusedConv2D" || op == "FusedDepthwiseConv2dNative") {
            pending.push_back(convNode(node, weights));
        } else {
            fail("node " + name + ": operator " + op + " is not supported");
        }
    }
    if (graph.inputName.empty()) {
        fail(path + " has no input");
    }

    // Order the nodes so that each follows the node it reads.
    std::set<std::string> ready{graph.inputName};
    while (!pending.empty()) {
        bool progress = false;
        for (auto it = pending.begin(); it != pending.end();) {
            if (ready.count(it->input) != 0) {
                ready.insert(it->name);
                graph.nodes.push_back(std::move(*it));
                it = pending.erase(it);
                progress = true;
            } else {
                ++it;
            }
        }
        if (!progress) {
            fail("node " + pending.front().name + " reads " + pending.front().input +
                 ", which nothing computes");
        }
    }
    std::set<std::string> read;
    for (const ConvNode& node : graph.nodes) {
        read.insert(node.input);
    }
    for (const ConvNode& node : graph.nodes) {
        if (read.count(node.name) == 0) {
            graph.outputs.push_back(node.name);
        }
    }
    return graph;
}

} // namespace modelforge
