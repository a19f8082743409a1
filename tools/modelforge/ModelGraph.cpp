#include "ModelGraph.h"

#include "tflite_subset_generated.h"

#include <cstring>
#include <map>
#include <stdexcept>

namespace modelforge {

namespace fb = modelforge::tflite;

namespace {

fb::TensorType toSchema(ElementType type) {
    switch (type) {
    case ElementType::Float32:
        return fb::TensorType::FLOAT32;
    case ElementType::Int32:
        return fb::TensorType::INT32;
    case ElementType::UInt8:
        return fb::TensorType::UINT8;
    case ElementType::Int8:
        return fb::TensorType::INT8;
    }
    return fb::TensorType::FLOAT32;
}

fb::ActivationFunctionType toSchema(Activation activation) {
    switch (activation) {
    case Activation::None:
        return fb::ActivationFunctionType::NONE;
    case Activation::Relu:
        return fb::ActivationFunctionType::RELU;
    case Activation::Relu6:
        return fb::ActivationFunctionType::RELU6;
    }
    return fb::ActivationFunctionType::NONE;
}

fb::BuiltinOperator toSchema(Builtin op) {
    switch (op) {
    case Builtin::Add:
        return fb::BuiltinOperator::ADD;
    case Builtin::Conv2D:
        return fb::BuiltinOperator::CONV_2D;
    case Builtin::DepthwiseConv2D:
        return fb::BuiltinOperator::DEPTHWISE_CONV_2D;
    case Builtin::Dequantize:
        return fb::BuiltinOperator::DEQUANTIZE;
    case Builtin::Quantize:
        return fb::BuiltinOperator::QUANTIZE;
    case Builtin::Reshape:
        return fb::BuiltinOperator::RESHAPE;
    case Builtin::Slice:
        return fb::BuiltinOperator::SLICE;
    }
    return fb::BuiltinOperator::ADD;
}

template <typename T>
std::vector<std::uint8_t> bytesOf(const std::vector<T>& values) {
    std::vector<std::uint8_t> bytes(values.size() * sizeof(T));
    if (!bytes.empty()) {
        std::memcpy(bytes.data(), values.data(), bytes.size());
    }
    return bytes;
}

} // namespace

int ModelGraph::addTensor(const std::string& name, ElementType type, const std::vector<int>& shape,
                          std::optional<Quantization> quantization,
                          std::vector<std::uint8_t> data) {
    _tensors.push_back(Tensor{name, type, shape, quantization, std::move(data)});
    return static_cast<int>(_tensors.size() - 1);
}

int ModelGraph::addInt32Constant(const std::string& name, const std::vector<std::int32_t>& values) {
    return addTensor(name, ElementType::Int32, {static_cast<int>(values.size())}, std::nullopt,
                     bytesOf(values));
}

int ModelGraph::addFloatConstant(const std::string& name, const std::vector<int>& shape,
                                 const std::vector<float>& values) {
    return addTensor(name, ElementType::Float32, shape, std::nullopt, bytesOf(values));
}

int ModelGraph::addInt8Constant(const std::string& name, const std::vector<int>& shape,
                                const std::vector<std::int8_t>& values, Quantization quantization) {
    return addTensor(name, ElementType::Int8, shape, std::move(quantization), bytesOf(values));
}

int ModelGraph::addInt32Constant(const std::string& name, const std::vector<int>& shape,
                                 const std::vector<std::int32_t>& values,
                                 Quantization quantization) {
    return addTensor(name, ElementType::Int32, shape, std::move(quantization), bytesOf(values));
}

void ModelGraph::addBuiltin(Builtin op, const std::vector<int>& inputs,
                            const std::vector<int>& outputs) {
    Operator entry;
    entry.builtin = op;
    entry.inputs = inputs;
    entry.outputs = outputs;
    _operators.push_back(std::move(entry));
}

void ModelGraph::addConv2D(const std::vector<int>& inputs, int output,
                           const Conv2DOptions& options) {
    addBuiltin(Builtin::Conv2D, inputs, {output});
    _operators.back().conv = options;
}

void ModelGraph::addDepthwiseConv2D(const std::vector<int>& inputs, int output,
                                    const DepthwiseConv2DOptions& options) {
    addBuiltin(Builtin::DepthwiseConv2D, inputs, {output});
    _operators.back().depthwise = options;
}

void ModelGraph::addCustom(const std::string& code, const std::vector<int>& inputs,
                           const std::vector<int>& outputs,
                           std::vector<std::uint8_t> customOptions) {
    addBuiltin(Builtin::Reshape, inputs, outputs);
    _operators.back().customCode = code;
    _operators.back().customOptions = std::move(customOptions);
}

std::vector<std::uint8_t> ModelGraph::serialize(const std::string& description) const {
    flatbuffers::FlatBufferBuilder builder(1 << 20);

    // Buffer 0 is the empty buffer of every computed tensor.
    std::vector<flatbuffers::Offset<fb::Buffer>> buffers;
    buffers.push_back(fb::CreateBuffer(builder));

    std::vector<flatbuffers::Offset<fb::Tensor>> tensors;
    for (const Tensor& tensor : _tensors) {
        std::uint32_t bufferIndex = 0;
        if (!tensor.data.empty()) {
            builder.ForceVectorAlignment(tensor.data.size(), sizeof(std::uint8_t), 16);
            auto data = builder.CreateVector(tensor.data);
            buffers.push_back(fb::CreateBuffer(builder, data));
            bufferIndex = static_cast<std::uint32_t>(buffers.size() - 1);
        }
        flatbuffers::Offset<fb::QuantizationParameters> quantization = 0;
        if (tensor.quantization) {
            const Quantization& q = *tensor.quantization;
            const bool perChannel = !q.channelScales.empty();
            const std::vector<float> scales =
                perChannel ? q.channelScales : std::vector<float>{q.scale};
            const std::vector<std::int64_t> zeroPoints(scales.size(), q.zeroPoint);
            quantization = fb::CreateQuantizationParameters(
                builder, 0, 0, builder.CreateVector(scales), builder.CreateVector(zeroPoints),
                fb::QuantizationDetails::NONE, 0, perChannel ? q.dimension : 0);
        }
        tensors.push_back(fb::CreateTensor(builder, builder.CreateVector(tensor.shape),
                                           toSchema(tensor.type), bufferIndex,
                                           builder.CreateString(tensor.name), quantization));
    }

    // One operator code per distinct builtin or custom operator, in order of first use.
    std::map<std::string, std::uint32_t> codeIndex;
    std::vector<flatbuffers::Offset<fb::OperatorCode>> codes;
    std::vector<flatbuffers::Offset<fb::Operator>> operators;
    for (const Operator& op : _operators) {
        const bool custom = !op.customCode.empty();
        const std::string key =
            custom ? "custom:" + op.customCode
                   : "builtin:" + std::to_string(static_cast<int>(toSchema(op.builtin)));
        auto found = codeIndex.find(key);
        if (found == codeIndex.end()) {
            const fb::BuiltinOperator code =
                custom ? fb::BuiltinOperator::CUSTOM : toSchema(op.builtin);
            // Codes below 127 are also written to the older one-byte field.
            const auto oldCode = static_cast<std::int8_t>(static_cast<int>(code));
            codes.push_back(fb::CreateOperatorCode(
                builder, oldCode, custom ? builder.CreateString(op.customCode) : 0, 1, code));
            found = codeIndex.emplace(key, static_cast<std::uint32_t>(codes.size() - 1)).first;
        }

        fb::BuiltinOptions optionsType = fb::BuiltinOptions::NONE;
        flatbuffers::Offset<void> options = 0;
        if (op.conv) {
            optionsType = fb::BuiltinOptions::Conv2DOptions;
            options = fb::CreateConv2DOptions(
                          builder, op.conv->samePadding ? fb::Padding::SAME : fb::Padding::VALID,
                          op.conv->strideW, op.conv->strideH, toSchema(op.conv->activation))
                          .Union();
        } else if (op.depthwise) {
            optionsType = fb::BuiltinOptions::DepthwiseConv2DOptions;
            options =
                fb::CreateDepthwiseConv2DOptions(
                    builder, op.depthwise->samePadding ? fb::Padding::SAME : fb::Padding::VALID,
                    op.depthwise->strideW, op.depthwise->strideH, op.depthwise->depthMultiplier,
                    toSchema(op.depthwise->activation))
                    .Union();
        } else if (!custom && op.builtin == Builtin::Reshape) {
            // The shape travels both as the second input and in the options.
            optionsType = fb::BuiltinOptions::ReshapeOptions;
            options =
                fb::CreateReshapeOptions(builder, builder.CreateVector(shapeOf(op.outputs.at(0))))
                    .Union();
        }
        flatbuffers::Offset<flatbuffers::Vector<std::uint8_t>> customOptions = 0;
        if (custom) {
            customOptions = builder.CreateVector(op.customOptions);
        }
        operators.push_back(fb::CreateOperator(
            builder, found->second, builder.CreateVector(op.inputs),
            builder.CreateVector(op.outputs), optionsType, options, customOptions));
    }

    auto subgraph =
        fb::CreateSubGraph(builder, builder.CreateVector(tensors), builder.CreateVector(_inputs),
                           builder.CreateVector(_outputs), builder.CreateVector(operators),
                           builder.CreateString("main"));
    auto model = fb::CreateModel(builder, 3, builder.CreateVector(codes),
                                 builder.CreateVector(std::vector{subgraph}),
                                 builder.CreateString(description), builder.CreateVector(buffers));
    fb::FinishModelBuffer(builder, model);
    return std::vector<std::uint8_t>(builder.GetBufferPointer(),
                                     builder.GetBufferPointer() + builder.GetSize());
}

} // namespace modelforge
