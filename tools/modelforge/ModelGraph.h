// ModelGraph: a TensorFlow Lite model held in memory and written as a .tflite file.
//
// One subgraph of tensors and operators. A tensor is either computed (filled by the interpreter)
// or constant (its bytes are stored in the file). Operators are the builtin operators of the
// schema subset plus custom operators with FlexBuffers options. serialize() writes the whole
// model; the graph can be serialized any number of times.
//
// A plain value: no threads, no files.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace modelforge {

enum class ElementType { Float32, Int32, UInt8, Int8 };

// value = (q - zeroPoint) * scale. With channelScales, each slice of the tensor along
// `dimension` has its own scale (symmetric: zeroPoint is then 0), and `scale` is unused.
struct Quantization {
    float scale = 1.0f;
    std::int64_t zeroPoint = 0;
    std::vector<float> channelScales = {};
    int dimension = 0;
};

enum class Activation { None, Relu, Relu6 };

// Options of the builtin operators that need them.
struct Conv2DOptions {
    int strideW = 1;
    int strideH = 1;
    bool samePadding = true;
    Activation activation = Activation::None;
};

struct DepthwiseConv2DOptions {
    int strideW = 1;
    int strideH = 1;
    int depthMultiplier = 1;
    bool samePadding = true;
    Activation activation = Activation::None;
};

enum class Builtin { Add, Conv2D, DepthwiseConv2D, Dequantize, Quantize, Reshape, Slice };

class ModelGraph {
public:
    // Adds a tensor and returns its index. Constant tensors carry their bytes in data.
    int addTensor(const std::string& name, ElementType type, const std::vector<int>& shape,
                  std::optional<Quantization> quantization = std::nullopt,
                  std::vector<std::uint8_t> data = {});
    int addInt32Constant(const std::string& name, const std::vector<std::int32_t>& values);
    int addFloatConstant(const std::string& name, const std::vector<int>& shape,
                         const std::vector<float>& values);
    int addInt8Constant(const std::string& name, const std::vector<int>& shape,
                        const std::vector<std::int8_t>& values, Quantization quantization);
    int addInt32Constant(const std::string& name, const std::vector<int>& shape,
                         const std::vector<std::int32_t>& values, Quantization quantization);

    void addBuiltin(Builtin op, const std::vector<int>& inputs, const std::vector<int>& outputs);
    void addConv2D(const std::vector<int>& inputs, int output, const Conv2DOptions& options);
    void addDepthwiseConv2D(const std::vector<int>& inputs, int output,
                            const DepthwiseConv2DOptions& options);
    void addCustom(const std::string& code, const std::vector<int>& inputs,
                   const std::vector<int>& outputs, std::vector<std::uint8_t> customOptions);

    void setInputs(std::vector<int> inputs) { _inputs = std::move(inputs); }
    void setOutputs(std::vector<int> outputs) { _outputs = std::move(outputs); }

    const std::vector<int>& shapeOf(int tensor) const { return _tensors.at(tensor).shape; }

    // The model as the bytes of a .tflite file.
    std::vector<std::uint8_t> serialize(const std::string& description) const;

private:
    struct Tensor {
        std::string name;
        ElementType type;
        std::vector<int> shape;
        std::optional<Quantization> quantization;
        std::vector<std::uint8_t> data;
    };
    struct Operator {
        Builtin builtin = Builtin::Reshape;
        std::string customCode; // non-empty for a custom operator
        std::vector<int> inputs;
        std::vector<int> outputs;
        std::optional<Conv2DOptions> conv;
        std::optional<DepthwiseConv2DOptions> depthwise;
        std::vector<std::uint8_t> customOptions;
    };

    std::vector<Tensor> _tensors;
    std::vector<Operator> _operators;
    std::vector<int> _inputs;
    std::vector<int> _outputs;
};

} // namespace modelforge
