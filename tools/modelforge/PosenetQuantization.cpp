#include "PosenetQuantization.h"

#include "PosenetConversion.h"

#include <tensorflow/lite/c/c_api.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>

namespace modelforge {

namespace {

// Backbone activations: RELU6's 0..6 over the whole int8 range.
constexpr float kActivationScale = 6.0f / 255.0f;
constexpr int kActivationZeroPoint = -128;
// The int8 picture: byte - 128, at the float network's 1/127.5.
constexpr float kPictureScale = 1.0f / 127.5f;
constexpr int kPictureZeroPoint = 128;
// Damping of the inputs' second moments, a share of their mean diagonal.
constexpr double kDamping = 0.01;

// A graph on TensorFlow Lite's default kernels, one thread.
class Engine {
public:
    explicit Engine(const ModelGraph& graph)
        : _bytes(graph.serialize("modelforge calibration")),
          _model(TfLiteModelCreate(_bytes.data(), _bytes.size()), TfLiteModelDelete),
          _options(TfLiteInterpreterOptionsCreate(), TfLiteInterpreterOptionsDelete),
          _interpreter(nullptr, TfLiteInterpreterDelete) {
        if (_model && _options) {
            TfLiteInterpreterOptionsSetNumThreads(_options.get(), 1);
            _interpreter.reset(TfLiteInterpreterCreate(_model.get(), _options.get()));
        }
        if (!_interpreter || TfLiteInterpreterAllocateTensors(_interpreter.get()) != kTfLiteOk) {
            throw std::runtime_error("TensorFlow Lite cannot run the calibration graph");
        }
    }

    void run(const std::vector<std::uint8_t>& picture) {
        TfLiteTensor* input = TfLiteInterpreterGetInputTensor(_interpreter.get(), 0);
        if (TfLiteTensorByteSize(input) != picture.size() ||
            TfLiteTensorCopyFromBuffer(input, picture.data(), picture.size()) != kTfLiteOk ||
            TfLiteInterpreterInvoke(_interpreter.get()) != kTfLiteOk) {
            throw std::runtime_error("TensorFlow Lite cannot run a calibration picture");
        }
    }

    template <typename T>
    const T* output(int index) const {
        return static_cast<const T*>(
            TfLiteTensorData(TfLiteInterpreterGetOutputTensor(_interpreter.get(), index)));
    }

private:
    std::vector<std::uint8_t> _bytes; // read in place by the engine
    std::unique_ptr<TfLiteModel, void (*)(TfLiteModel*)> _model;
    std::unique_ptr<TfLiteInterpreterOptions, void (*)(TfLiteInterpreterOptions*)> _options;
    std::unique_ptr<TfLiteInterpreter, void (*)(TfLiteInterpreter*)> _interpreter;
};

// TensorFlow Lite's SAME padding before the first row or column.
int padBefore(int in, int out, int stride, int kernel, bool same) {
    return same ? std::max((out - 1) * stride + kernel - in, 0) / 2 : 0;
}

// Adds the mean over the output positions of a layer's input patches, per tap and channel in the
// filter's order [kh][kw][in] (zero where a tap falls in the padding), to `means`.
void addPatchMeans(const PosenetLayer& l, const float* input, std::vector<double>& means) {
    const int top = padBefore(l.inHeight, l.outHeight, l.strideH, l.kernelH, l.samePadding);
    const int left = padBefore(l.inWidth, l.outWidth, l.strideW, l.kernelW, l.samePadding);
    const std::size_t channels = static_cast<std::size_t>(l.inChannels);
    std::vector<double> sums(static_cast<std::size_t>(l.kernelH * l.kernelW) * channels, 0.0);
    for (int ky = 0; ky < l.kernelH; ++ky) {
        for (int kx = 0; kx < l.kernelW; ++kx) {
            double* sum = &sums[static_cast<std::size_t>(ky * l.kernelW + kx) * channels];
            for (int oy = 0; oy < l.outHeight; ++oy) {
                const int iy = oy * l.strideH - top + ky;
                if (iy < 0 || iy >= l.inHeight) {
                    continue;
                }
                for (int ox = 0; ox < l.outWidth; ++ox) {
                    const int ix = ox * l.strideW - left + kx;
                    if (ix < 0 || ix >= l.inWidth) {
                        continue;
                    }
                    const float* pixel =
                        input + (static_cast<std::size_t>(iy) * l.inWidth + ix) * channels;
                    for (std::size_t c = 0; c < channels; ++c) {
                        sum[c] += pixel[c];
                    }
                }
            }
        }
    }
    means.resize(sums.size(), 0.0);
    const double positions = static_cast<double>(l.outHeight) * l.outWidth;
    for (std::size_t i = 0; i < sums.size(); ++i) {
        means[i] += sums[i] / positions;
    }
}

// Sums of x x^T over a layer's input patches: one d x d matrix (upper triangle) for a
// convolution, d = kh * kw * in in the filter's order; one kh * kw square per channel for a
// depthwise convolution. Summed in float per picture, then in double.
class Moments {
public:
    explicit Moments(const PosenetLayer& layer)
        : _layer(layer), _taps(layer.kernelH * layer.kernelW),
          _size(layer.depthwise ? _taps : _taps * layer.inChannels),
          _sums(static_cast<std::size_t>(layer.depthwise ? layer.inChannels : 1) * _size * _size,
                0.0) {}

    int size() const { return _size; }
    // The moments of channel c (0 for a convolution), d x d, upper triangle.
    const double* of(int c) const {
        return _sums.data() + static_cast<std::size_t>(c) * _size * _size;
    }

    void add(const float* input) {
        const PosenetLayer& l = _layer;
        const int top = padBefore(l.inHeight, l.outHeight, l.strideH, l.kernelH, l.samePadding);
        const int left = padBefore(l.inWidth, l.outWidth, l.strideW, l.kernelW, l.samePadding);
        const int channels = l.inChannels;
        const std::size_t d = static_cast<std::size_t>(_size);
        std::vector<float> sums(_sums.size(), 0.0f);
        std::vector<float> patch(static_cast<std::size_t>(_taps) * channels);
        for (int oy = 0; oy < l.outHeight; ++oy) {
            for (int ox = 0; ox < l.outWidth; ++ox) {
                for (int ky = 0; ky < l.kernelH; ++ky) {
                    for (int kx = 0; kx < l.kernelW; ++kx) {
                        const int iy = oy * l.strideH - top + ky;
                        const int ix = ox * l.strideW - left + kx;
                        float* to =
                            &patch[static_cast<std::size_t>(ky * l.kernelW + kx) * channels];
                        if (iy < 0 || ix < 0 || iy >= l.inHeight || ix >= l.inWidth) {
                            std::fill(to, to + channels, 0.0f);
                        } else {
                            std::memcpy(to,
                                        input + (static_cast<std::size_t>(iy) * l.inWidth + ix) *
                                                    channels,
                                        sizeof(float) * static_cast<std::size_t>(channels));
                        }
                    }
                }
                if (!l.depthwise) {
                    for (std::size_t i = 0; i < d; ++i) {
                        const float xi = patch[i];
                        if (xi == 0.0f) {
                            continue;
                        }
                        float* row = &sums[i * d];
                        for (std::size_t j = i; j < d; ++j) {
                            row[j] += xi * patch[j];
                        }
                    }
                    continue;
                }
                for (int c = 0; c < channels; ++c) {
                    float* square = &sums[static_cast<std::size_t>(c) * d * d];
                    for (std::size_t i = 0; i < d; ++i) {
                        const float xi = patch[i * channels + c];
                        for (std::size_t j = i; j < d; ++j) {
                            square[i * d + j] += xi * patch[j * channels + c];
                        }
                    }
                }
            }
        }
        for (std::size_t i = 0; i < sums.size(); ++i) {
            _sums[i] += sums[i];
        }
    }

private:
    const PosenetLayer& _layer;
    int _taps;
    int _size;
    std::vector<double> _sums;
};

// U, upper triangular with U^T U the inverse of the damped moments: the weights still to be
// rounded absorb each rounding error along U's rows. `moments` is d x d in the rounding order.
std::vector<double> inverseFactor(const double* moments, int size) {
    const std::size_t d = static_cast<std::size_t>(size);
    std::vector<double> h(d * d);
    double mean = 0.0;
    for (std::size_t i = 0; i < d; ++i) {
        mean += moments[i * d + i];
    }
    mean = mean > 0.0 ? mean / static_cast<double>(d) : 1.0;
    for (std::size_t i = 0; i < d; ++i) {
        for (std::size_t j = i; j < d; ++j) {
            h[i * d + j] = h[j * d + i] = moments[i * d + j];
        }
        // An input that is never anything but 0 leaves its weight free.
        if (h[i * d + i] <= 0.0) {
            h[i * d + i] = mean;
        }
        h[i * d + i] += kDamping * mean;
    }
    // In place: lower Cholesky factor L of h (h = L L^T).
    const auto cholesky = [d](std::vector<double>& m) {
        for (std::size_t j = 0; j < d; ++j) {
            double diagonal = m[j * d + j];
            for (std::size_t k = 0; k < j; ++k) {
                diagonal -= m[j * d + k] * m[j * d + k];
            }
            if (!(diagonal > 0.0)) {
                throw std::runtime_error("the calibration moments are not positive definite");
            }
            diagonal = std::sqrt(diagonal);
            m[j * d + j] = diagonal;
            for (std::size_t i = j + 1; i < d; ++i) {
                double value = m[i * d + j];
                for (std::size_t k = 0; k < j; ++k) {
                    value -= m[i * d + k] * m[j * d + k];
                }
                m[i * d + j] = value / diagonal;
            }
            for (std::size_t i = 0; i < j; ++i) {
                m[i * d + j] = 0.0;
            }
        }
    };
    cholesky(h);
    // Inverse of L (lower), then h^-1 = L^-T L^-1.
    std::vector<double> inv(d * d, 0.0);
    for (std::size_t j = 0; j < d; ++j) {
        inv[j * d + j] = 1.0 / h[j * d + j];
        for (std::size_t i = j + 1; i < d; ++i) {
            double value = 0.0;
            for (std::size_t k = j; k < i; ++k) {
                value -= h[i * d + k] * inv[k * d + j];
            }
            inv[i * d + j] = value / h[i * d + i];
        }
    }
    std::vector<double> hinv(d * d, 0.0);
    for (std::size_t i = 0; i < d; ++i) {
        for (std::size_t j = 0; j <= i; ++j) {
            double value = 0.0;
            for (std::size_t k = i; k < d; ++k) {
                value += inv[k * d + i] * inv[k * d + j];
            }
            hinv[i * d + j] = hinv[j * d + i] = value;
        }
    }
    // h^-1 = M M^T with M lower; U = M^T.
    cholesky(hinv);
    std::vector<double> u(d * d, 0.0);
    for (std::size_t i = 0; i < d; ++i) {
        for (std::size_t j = i; j < d; ++j) {
            u[i * d + j] = hinv[j * d + i];
        }
    }
    return u;
}

// How a layer's weights (of one channel, or of every channel sharing the inputs) are rounded:
// the inputs that vary most first, so that the weights rounded last, which can no longer pass
// their error on, are the ones that matter least.
struct Rounding {
    std::vector<std::size_t> order;
    std::vector<double> u;

    Rounding(const double* moments, int size) : order(static_cast<std::size_t>(size)) {
        const std::size_t d = order.size();
        for (std::size_t i = 0; i < d; ++i) {
            order[i] = i;
        }
        std::stable_sort(order.begin(), order.end(), [moments, d](std::size_t a, std::size_t b) {
            return moments[a * d + a] > moments[b * d + b];
        });
        std::vector<double> sorted(d * d);
        for (std::size_t i = 0; i < d; ++i) {
            for (std::size_t j = i; j < d; ++j) {
                const std::size_t a = std::min(order[i], order[j]);
                const std::size_t b = std::max(order[i], order[j]);
                sorted[i * d + j] = moments[a * d + b];
            }
        }
        u = inverseFactor(sorted.data(), size);
    }

    // One output channel's weights rounded to steps of `scale`, each error carried onto the
    // weights after it.
    std::vector<std::int8_t> round(const std::vector<double>& weights, double scale) const {
        const std::size_t d = order.size();
        std::vector<double> w(d);
        for (std::size_t i = 0; i < d; ++i) {
            w[i] = weights[order[i]];
        }
        std::vector<std::int8_t> q(d);
        for (std::size_t i = 0; i < d; ++i) {
            const double steps = std::clamp(std::nearbyint(w[i] / scale), -127.0, 127.0);
            q[order[i]] = static_cast<std::int8_t>(steps);
            const double error = (w[i] - steps * scale) / u[i * d + i];
            for (std::size_t j = i + 1; j < d; ++j) {
                w[j] -= error * u[i * d + j];
            }
        }
        return q;
    }
};

// A layer in int8: weights in the float filter's layout, a scale per output channel, biases in
// float (turned into int32 when the graph is written).
struct Int8Layer {
    std::vector<std::int8_t> weights;
    std::vector<float> scales;
    std::vector<double> bias;
    float inputScale = kActivationScale;
    int inputZeroPoint = kActivationZeroPoint;
    float outputScale = kActivationScale;
    int outputZeroPoint = kActivationZeroPoint;

    float weight(std::size_t index, int channel) const {
        return static_cast<float>(weights[index]) * scales[static_cast<std::size_t>(channel)];
    }
};

Int8Layer quantizeLayer(const PosenetLayer& layer, const Moments& moments, bool first) {
    Int8Layer q;
    q.weights.resize(layer.filter.size());
    q.scales.resize(static_cast<std::size_t>(layer.outChannels));
    q.bias.assign(layer.bias.begin(), layer.bias.end());
    if (first) {
        q.inputScale = kPictureScale;
        q.inputZeroPoint = 0;
    }
    const int d = moments.size();
    std::unique_ptr<Rounding> shared;
    if (!layer.depthwise) {
        shared = std::make_unique<Rounding>(moments.of(0), d);
    }
    for (int c = 0; c < layer.outChannels; ++c) {
        // The channel's weights in the order of the moments' inputs.
        std::vector<double> w(static_cast<std::size_t>(d));
        for (int i = 0; i < d; ++i) {
            w[static_cast<std::size_t>(i)] =
                layer.filter[layer.depthwise ? static_cast<std::size_t>(i) * layer.outChannels + c
                                             : static_cast<std::size_t>(c) * d + i];
        }
        double largest = 0.0;
        for (double value : w) {
            largest = std::max(largest, std::fabs(value));
        }
        // Near-zero weights: a floor keeps the bias's int32 in range.
        const double biasFloor = std::fabs(q.bias[static_cast<std::size_t>(c)]) /
                                 (static_cast<double>(q.inputScale) * 1073741824.0);
        const float scale = static_cast<float>(std::max({largest / 127.0, biasFloor, 1e-8}));
        q.scales[static_cast<std::size_t>(c)] = scale;
        const std::vector<std::int8_t> rounded =
            layer.depthwise ? Rounding(moments.of(c), d).round(w, scale) : shared->round(w, scale);
        for (int i = 0; i < d; ++i) {
            q.weights[layer.depthwise ? static_cast<std::size_t>(i) * layer.outChannels + c
                                      : static_cast<std::size_t>(c) * d + i] =
                rounded[static_cast<std::size_t>(i)];
        }
    }
    if (first) {
        // The int8 picture lies half a step below the float network's: every tap inside the
        // picture adds its weight times that half step.
        for (int c = 0; c < layer.outChannels; ++c) {
            double sum = 0.0;
            for (int i = 0; i < d; ++i) {
                sum += q.weight(static_cast<std::size_t>(c) * d + i, c);
            }
            q.bias[static_cast<std::size_t>(c)] += 0.5 * kPictureScale * sum;
        }
    }
    return q;
}

std::vector<std::int32_t> int32Bias(const Int8Layer& q) {
    std::vector<std::int32_t> bias(q.bias.size());
    for (std::size_t c = 0; c < bias.size(); ++c) {
        const double step = static_cast<double>(q.inputScale) * q.scales[c];
        bias[c] = static_cast<std::int32_t>(
            std::clamp(std::nearbyint(q.bias[c] / step), -2147483647.0, 2147483647.0));
    }
    return bias;
}

std::vector<float> biasScales(const Int8Layer& q) {
    std::vector<float> scales(q.scales.size());
    for (std::size_t c = 0; c < scales.size(); ++c) {
        scales[c] = static_cast<float>(static_cast<double>(q.inputScale) * q.scales[c]);
    }
    return scales;
}

// The int8 network. With probes, the graph's outputs are those layers' int8 outputs instead (-1:
// the int8 picture).
ModelGraph int8Graph(const std::vector<PosenetLayer>& layers, const std::vector<Int8Layer>& qs,
                     const PosenetModel& model, const std::vector<int>& probes = {}) {
    ModelGraph graph;
    const std::vector<int> pictureShape{1, model.height, model.width, 3};
    const int input = graph.addTensor("image", ElementType::UInt8, pictureShape,
                                      Quantization{kPictureScale, kPictureZeroPoint});
    const int values = graph.addTensor("image_values", ElementType::Float32, pictureShape);
    graph.addBuiltin(Builtin::Dequantize, {input}, {values});
    const int picture = graph.addTensor("image_normalized", ElementType::Int8, pictureShape,
                                        Quantization{kPictureScale, 0});
    graph.addBuiltin(Builtin::Quantize, {values}, {picture});

    std::vector<int> computed;
    for (std::size_t n = 0; n < layers.size(); ++n) {
        const PosenetLayer& layer = layers[n];
        const Int8Layer& q = qs[n];
        const int in =
            layer.input < 0 ? picture : computed.at(static_cast<std::size_t>(layer.input));
        const std::vector<int> filterShape =
            layer.depthwise ? std::vector<int>{1, layer.kernelH, layer.kernelW, layer.outChannels}
                            : std::vector<int>{layer.outChannels, layer.kernelH, layer.kernelW,
                                               layer.inChannels};
        const int filter =
            graph.addInt8Constant(layer.name + "/weights", filterShape, q.weights,
                                  Quantization{1.0f, 0, q.scales, layer.depthwise ? 3 : 0});
        const int bias =
            graph.addInt32Constant(layer.name + "/bias", {layer.outChannels}, int32Bias(q),
                                   Quantization{1.0f, 0, biasScales(q), 0});
        const int out = graph.addTensor(layer.output >= 0 ? layer.name + "_int8" : layer.name,
                                        ElementType::Int8,
                                        {1, layer.outHeight, layer.outWidth, layer.outChannels},
                                        Quantization{q.outputScale, q.outputZeroPoint});
        if (layer.depthwise) {
            graph.addDepthwiseConv2D({in, filter, bias}, out,
                                     DepthwiseConv2DOptions{layer.strideW, layer.strideH,
                                                            layer.depthMultiplier,
                                                            layer.samePadding, layer.activation});
        } else {
            graph.addConv2D(
                {in, filter, bias}, out,
                Conv2DOptions{layer.strideW, layer.strideH, layer.samePadding, layer.activation});
        }
        computed.push_back(out);
    }
    graph.setInputs({input});
    if (!probes.empty()) {
        std::vector<int> outputs;
        for (int probe : probes) {
            outputs.push_back(probe < 0 ? picture : computed.at(static_cast<std::size_t>(probe)));
        }
        graph.setOutputs(outputs);
        return graph;
    }

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
        // int8 to the output's uint8 through float: the same scale, the zero point 128 higher,
        // so every byte is exact; XNNPACK converts between int8 and uint8 only through float.
        const std::vector<int> shape{1, model.gridHeight(), model.gridWidth(), output.channels};
        const int asFloat = graph.addTensor(output.name + "_values", ElementType::Float32, shape);
        graph.addBuiltin(Builtin::Dequantize,
                         {computed[static_cast<std::size_t>(layer - layers.begin())]}, {asFloat});
        const int out = graph.addTensor(output.name, ElementType::UInt8, shape,
                                        Quantization{output.scale, output.zeroPoint});
        graph.addBuiltin(Builtin::Quantize, {asFloat}, {out});
        outputs.push_back(out);
    }
    graph.setOutputs(outputs);
    return graph;
}

} // namespace

ModelGraph posenetInt8Graph(const GraphModel& network, const PosenetModel& model,
                            const std::vector<CalibrationPicture>& pictures,
                            QuantizationReport* report) {
    const auto started = std::chrono::steady_clock::now();
    if (pictures.empty()) {
        throw std::runtime_error("no calibration pictures");
    }
    const std::vector<PosenetLayer> layers = posenetLayers(network, model);
    int headInput = -2;
    for (const PosenetLayer& layer : layers) {
        if (layer.depthwise && layer.depthMultiplier != 1) {
            throw std::runtime_error("layer " + layer.name + " has a depth multiplier");
        }
        if (layer.output >= 0) {
            if (headInput != -2 && headInput != layer.input) {
                throw std::runtime_error("the heads read different layers");
            }
            headInput = layer.input;
        }
    }
    if (headInput < 0) {
        throw std::runtime_error("the network has no heads on its backbone");
    }

    // The float network with every layer's output exposed, on the calibration pictures: the
    // second moments and the means of each layer's input patches, and the heads' float values
    // for the report.
    ModelGraph floatGraph;
    const FloatNetwork tensors = floatNetwork(floatGraph, layers, model);
    std::vector<int> exposed{tensors.normalized};
    exposed.insert(exposed.end(), tensors.layers.begin(), tensors.layers.end());
    floatGraph.setInputs({tensors.input});
    floatGraph.setOutputs(exposed);
    Engine floatEngine(floatGraph);
    std::vector<std::unique_ptr<Moments>> moments;
    std::vector<int> momentsOf(layers.size()); // the layer whose moments a layer shares
    for (std::size_t n = 0; n < layers.size(); ++n) {
        const PosenetLayer& layer = layers[n];
        momentsOf[n] = static_cast<int>(n);
        for (std::size_t m = 0; m < n; ++m) {
            const PosenetLayer& other = layers[m];
            if (other.input == layer.input && !other.depthwise && !layer.depthwise &&
                other.kernelH == layer.kernelH && other.kernelW == layer.kernelW &&
                other.strideH == layer.strideH && other.strideW == layer.strideW) {
                momentsOf[n] = momentsOf[m];
                break;
            }
        }
        moments.push_back(momentsOf[n] == static_cast<int>(n) ? std::make_unique<Moments>(layer)
                                                              : nullptr);
    }
    const std::size_t cells =
        static_cast<std::size_t>(layers[static_cast<std::size_t>(headInput)].outHeight) *
        static_cast<std::size_t>(layers[static_cast<std::size_t>(headInput)].outWidth);
    std::vector<int> heads;
    for (std::size_t n = 0; n < layers.size(); ++n) {
        if (layers[n].output >= 0) {
            heads.push_back(static_cast<int>(n));
        }
    }
    std::vector<std::vector<double>> floatMeans(layers.size());
    std::vector<std::vector<std::vector<float>>> floatHeads(pictures.size());
    for (std::size_t p = 0; p < pictures.size(); ++p) {
        floatEngine.run(pictures[p].rgb);
        for (std::size_t n = 0; n < layers.size(); ++n) {
            const float* input = floatEngine.output<float>(layers[n].input + 1);
            if (moments[n]) {
                moments[n]->add(input);
            }
            addPatchMeans(layers[n], input, floatMeans[n]);
        }
        for (int n : heads) {
            const float* head = floatEngine.output<float>(n + 1);
            floatHeads[p].emplace_back(
                head, head + cells * static_cast<std::size_t>(
                                         layers[static_cast<std::size_t>(n)].outChannels));
        }
    }

    std::vector<Int8Layer> qs;
    for (std::size_t n = 0; n < layers.size(); ++n) {
        qs.push_back(quantizeLayer(layers[n], *moments[static_cast<std::size_t>(momentsOf[n])],
                                   layers[n].input < 0));
        if (layers[n].output >= 0) {
            const PosenetOutput& output = model.outputs[static_cast<std::size_t>(layers[n].output)];
            qs.back().outputScale = output.scale;
            qs.back().outputZeroPoint = output.zeroPoint - 128;
        }
    }

    // Biases take up the mean error of each layer's values before its activation, per channel,
    // on the calibration pictures. A backbone layer's own: its weights' rounding error times the
    // mean of its float input patches (the error each layer passes on is taken up where it
    // arises). A head's, last: the float head's mean less the int8 head's on the whole int8
    // network's own inputs, so that the heads take up whatever the backbone leaves.
    const auto correct = [&](std::size_t n, const std::vector<double>& int8Means) {
        const PosenetLayer& layer = layers[n];
        const std::size_t patch = floatMeans[n].size();
        const std::size_t taps =
            layer.depthwise ? patch / static_cast<std::size_t>(layer.outChannels) : patch;
        const double count = static_cast<double>(pictures.size());
        for (int c = 0; c < layer.outChannels; ++c) {
            double exact = layer.bias[static_cast<std::size_t>(c)];
            double rounded = qs[n].bias[static_cast<std::size_t>(c)];
            for (std::size_t i = 0; i < taps; ++i) {
                const std::size_t mean = layer.depthwise
                                             ? i * static_cast<std::size_t>(layer.outChannels) +
                                                   static_cast<std::size_t>(c)
                                             : i;
                const std::size_t weight =
                    layer.depthwise ? mean : static_cast<std::size_t>(c) * taps + i;
                exact += static_cast<double>(layer.filter[weight]) * floatMeans[n][mean] / count;
                rounded += static_cast<double>(qs[n].weight(weight, c)) * int8Means[mean] / count;
            }
            qs[n].bias[static_cast<std::size_t>(c)] += exact - rounded;
        }
    };
    for (std::size_t n = 0; n < layers.size(); ++n) {
        // A backbone layer's own rounding error: the same float input on both sides.
        if (layers[n].output < 0) {
            correct(n, floatMeans[n]);
        }
    }
    {
        Engine int8Network(int8Graph(layers, qs, model, {headInput}));
        std::vector<double> int8Means;
        const Int8Layer& backbone = qs[static_cast<std::size_t>(headInput)];
        const PosenetLayer& head = layers[static_cast<std::size_t>(heads.front())];
        std::vector<float> values(cells * static_cast<std::size_t>(head.inChannels));
        for (const CalibrationPicture& picture : pictures) {
            int8Network.run(picture.rgb);
            const std::int8_t* bytes = int8Network.output<std::int8_t>(0);
            for (std::size_t i = 0; i < values.size(); ++i) {
                values[i] =
                    static_cast<float>(bytes[i] - backbone.outputZeroPoint) * backbone.outputScale;
            }
            addPatchMeans(head, values.data(), int8Means);
        }
        for (int n : heads) {
            correct(static_cast<std::size_t>(n), int8Means);
        }
    }

    ModelGraph result = int8Graph(layers, qs, model);
    if (report != nullptr) {
        // The finished network against the float one on the calibration pictures, on the heads'
        // values before the outputs' saturation.
        Engine finished(int8Graph(layers, qs, model, heads));
        std::vector<double> largest(heads.size(), 0.0);
        std::vector<double> total(heads.size(), 0.0);
        std::vector<std::size_t> count(heads.size(), 0);
        for (std::size_t p = 0; p < pictures.size(); ++p) {
            finished.run(pictures[p].rgb);
            for (std::size_t h = 0; h < heads.size(); ++h) {
                const Int8Layer& q = qs[static_cast<std::size_t>(heads[h])];
                const std::int8_t* bytes = finished.output<std::int8_t>(static_cast<int>(h));
                const std::vector<float>& exact = floatHeads[p][h];
                for (std::size_t i = 0; i < exact.size(); ++i) {
                    // Values the int8 output saturates tell nothing of the rounding.
                    if (bytes[i] == -128 || bytes[i] == 127) {
                        continue;
                    }
                    const double difference = std::fabs(
                        static_cast<double>(bytes[i] - q.outputZeroPoint) * q.outputScale -
                        exact[i]);
                    largest[h] = std::max(largest[h], difference);
                    total[h] += difference;
                    ++count[h];
                }
            }
        }
        report->outputs.clear();
        report->largestDifference.clear();
        report->meanDifference.clear();
        for (std::size_t h = 0; h < heads.size(); ++h) {
            report->outputs.push_back(model
                                          .outputs[static_cast<std::size_t>(
                                              layers[static_cast<std::size_t>(heads[h])].output)]
                                          .name);
            report->largestDifference.push_back(static_cast<float>(largest[h]));
            report->meanDifference.push_back(
                static_cast<float>(count[h] > 0 ? total[h] / static_cast<double>(count[h]) : 0.0));
        }
        report->seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    }
    return result;
}

} // namespace modelforge
