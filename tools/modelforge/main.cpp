// modelforge: writes TensorFlow Lite models with weights we choose, and converts the published
// PoseNet's trained weights.
//
//   modelforge [--posenet <dir> [--calibration <dir>]] <output directory>   writes every model
//                                                                           as <name>.tflite
//   modelforge [--posenet <dir> [--calibration <dir>]] <output directory> <name>   one model
//   modelforge [--posenet <dir> [--calibration <dir>]] --list                 lists the names
//
// The models are described in ForgedModels.h. The pass-through models copy runs of the input
// picture to their outputs, the SSD detector decodes boxes written into the picture, and the pose
// network has fixed pseudo-random weights. With --posenet, <dir> holds the TensorFlow.js graph
// model posenet.json and its weights posenet.bin (scripts/fetch-posenet.sh), and the converted
// PoseNet models are written as well. With --calibration as well, <dir> holds the sample data
// (vtest.avi and basketball1.png: scripts/fetch-sample-data.sh), and the int8 PoseNet is fitted
// on its pictures and written too.
#include "ForgedModels.h"
#include "ModelGraph.h"
#include "PosenetConversion.h"
#include "PosenetQuantization.h"

#include <flatbuffers/flexbuffers.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>

namespace modelforge {

namespace {

std::vector<int> flatShape(std::size_t count) {
    return {1, static_cast<int>(count)};
}

// Reshapes the picture to [1, N] once; the slices are cut from that.
int flattenInput(ModelGraph& graph, int input, int width, int height) {
    const std::size_t bytes = static_cast<std::size_t>(width) * height * 3;
    const int shape = graph.addInt32Constant("flat_shape", {1, static_cast<int>(bytes)});
    const int flat = graph.addTensor("flat_input", ElementType::UInt8, flatShape(bytes),
                                     Quantization{1.0f / 255.0f, 0});
    graph.addBuiltin(Builtin::Reshape, {input, shape}, {flat});
    return flat;
}

// A run of the flattened picture as a [1, count] uint8 tensor with the given quantization.
int sliceBytes(ModelGraph& graph, int flat, const std::string& name, std::size_t offset,
               std::size_t count, Quantization quantization) {
    const int begin = graph.addInt32Constant(name + "_begin", {0, static_cast<int>(offset)});
    const int size = graph.addInt32Constant(name + "_size", {1, static_cast<int>(count)});
    const int out =
        graph.addTensor(name + "_bytes", ElementType::UInt8, flatShape(count), quantization);
    graph.addBuiltin(Builtin::Slice, {flat, begin, size}, {out});
    return out;
}

int reshape(ModelGraph& graph, int tensor, const std::string& name, ElementType type,
            const std::vector<int>& shape, std::optional<Quantization> quantization) {
    std::vector<std::int32_t> dims(shape.begin(), shape.end());
    const int shapeTensor = graph.addInt32Constant(name + "_shape", dims);
    const int out = graph.addTensor(name, type, shape, quantization);
    graph.addBuiltin(Builtin::Reshape, {tensor, shapeTensor}, {out});
    return out;
}

int dequantize(ModelGraph& graph, int tensor, const std::string& name, std::size_t count) {
    const int out = graph.addTensor(name, ElementType::Float32, flatShape(count));
    graph.addBuiltin(Builtin::Dequantize, {tensor}, {out});
    return out;
}

int addPictureInput(ModelGraph& graph, int width, int height) {
    return graph.addTensor("input", ElementType::UInt8, {1, height, width, 3},
                           Quantization{1.0f / 255.0f, 0});
}

ModelGraph passThroughGraph(const PassThroughModel& model) {
    ModelGraph graph;
    const int input = addPictureInput(graph, model.width, model.height);
    const int flat = flattenInput(graph, input, model.width, model.height);
    std::vector<int> outputs;
    for (const OutputSlice& slice : model.outputs) {
        const Quantization q{slice.scale, slice.zeroPoint};
        const std::size_t count = slice.elementCount();
        int bytes = sliceBytes(graph, flat, slice.name, slice.inputOffset, count, q);
        if (slice.isFloat) {
            bytes = dequantize(graph, bytes, slice.name + "_values", count);
            outputs.push_back(
                reshape(graph, bytes, slice.name, ElementType::Float32, slice.shape, std::nullopt));
        } else {
            outputs.push_back(
                reshape(graph, bytes, slice.name, ElementType::UInt8, slice.shape, q));
        }
    }
    graph.setInputs({input});
    graph.setOutputs(outputs);
    return graph;
}

ModelGraph ssdGraph(const SsdDetectorModel& model) {
    ModelGraph graph;
    const int input = addPictureInput(graph, model.width, model.height);
    const int flat = flattenInput(graph, input, model.width, model.height);
    const std::size_t boxCount = static_cast<std::size_t>(model.numBoxes) * 4;
    const std::size_t scoreCount =
        static_cast<std::size_t>(model.numBoxes) * (static_cast<std::size_t>(model.numClasses) + 1);

    int boxes = sliceBytes(graph, flat, "box_encodings", model.boxOffset, boxCount,
                           Quantization{model.boxScale, model.boxZeroPoint});
    boxes = dequantize(graph, boxes, "box_encoding_values", boxCount);
    boxes = reshape(graph, boxes, "box_encodings", ElementType::Float32, {1, model.numBoxes, 4},
                    std::nullopt);

    int scores = sliceBytes(graph, flat, "class_predictions", model.scoreOffset, scoreCount,
                            Quantization{model.scoreScale, 0});
    scores = dequantize(graph, scores, "class_prediction_values", scoreCount);
    scores = reshape(graph, scores, "class_predictions", ElementType::Float32,
                     {1, model.numBoxes, model.numClasses + 1}, std::nullopt);

    std::vector<float> anchorValues;
    for (int i = 0; i < model.numBoxes; ++i) {
        anchorValues.insert(anchorValues.end(), {0.5f, 0.5f, 1.0f, 1.0f});
    }
    const int anchors = graph.addFloatConstant("anchors", {model.numBoxes, 4}, anchorValues);

    const int outBoxes =
        graph.addTensor("detection_boxes", ElementType::Float32, {1, model.maxDetections, 4});
    const int outClasses =
        graph.addTensor("detection_classes", ElementType::Float32, {1, model.maxDetections});
    const int outScores =
        graph.addTensor("detection_scores", ElementType::Float32, {1, model.maxDetections});
    const int outCount = graph.addTensor("num_detections", ElementType::Float32, {1});

    flexbuffers::Builder options;
    options.Map([&]() {
        options.Int("max_detections", model.maxDetections);
        options.Int("max_classes_per_detection", 1);
        options.Int("detections_per_class", 100);
        options.Bool("use_regular_nms", false);
        options.Float("nms_score_threshold", model.scoreThreshold);
        options.Float("nms_iou_threshold", model.iouThreshold);
        options.Int("num_classes", model.numClasses);
        options.Float("y_scale", 1.0f);
        options.Float("x_scale", 1.0f);
        options.Float("h_scale", 1.0f);
        options.Float("w_scale", 1.0f);
    });
    options.Finish();

    graph.addCustom("TFLite_Detection_PostProcess", {boxes, scores, anchors},
                    {outBoxes, outClasses, outScores, outCount}, options.GetBuffer());
    graph.setInputs({input});
    graph.setOutputs({outBoxes, outClasses, outScores, outCount});
    return graph;
}

// Fixed pseudo-random bytes, the same on every machine.
class ByteSource {
public:
    explicit ByteSource(std::uint32_t seed) : _state(seed) {}
    // A byte around 128, spread by +- spread.
    std::uint8_t next(int spread) {
        _state = _state * 1664525u + 1013904223u;
        const int value = 128 + static_cast<int>((_state >> 16) % (2 * spread + 1)) - spread;
        return static_cast<std::uint8_t>(value);
    }

private:
    std::uint32_t _state;
};

struct Layer {
    int tensor;
    int channels;
    Quantization q;
};

// A layer's constant filter of the given shape, pseudo-random around its zero point, and its
// zero biases, one per output channel (the shape's last dimension for a depthwise filter).
std::vector<int> filterAndBias(ModelGraph& graph, ByteSource& random, const Layer& in,
                               const std::string& name, const std::vector<int>& shape,
                               int outChannels) {
    const Quantization weightQ{0.02f, 128};
    std::size_t count = 1;
    for (int dim : shape) {
        count *= static_cast<std::size_t>(dim);
    }
    std::vector<std::uint8_t> weights(count);
    for (auto& w : weights) {
        w = random.next(24);
    }
    const int filter =
        graph.addTensor(name + "_weights", ElementType::UInt8, shape, weightQ, std::move(weights));
    const int bias =
        graph.addTensor(name + "_bias", ElementType::Int32, {outChannels},
                        Quantization{in.q.scale * weightQ.scale, 0},
                        std::vector<std::uint8_t>(static_cast<std::size_t>(outChannels) * 4, 0));
    return {in.tensor, filter, bias};
}

Layer convLayer(ModelGraph& graph, ByteSource& random, const Layer& in, const std::string& name,
                int outChannels, int kernel, int stride, Activation activation,
                const std::vector<int>& outShape) {
    const std::vector<int> inputs = filterAndBias(
        graph, random, in, name, {outChannels, kernel, kernel, in.channels}, outChannels);
    const Quantization outQ{activation == Activation::None ? 0.05f : 6.0f / 255.0f,
                            activation == Activation::None ? 128 : 0};
    const int out = graph.addTensor(name, ElementType::UInt8, outShape, outQ);
    graph.addConv2D(inputs, out, Conv2DOptions{stride, stride, true, activation});
    return Layer{out, outChannels, outQ};
}

Layer depthwiseLayer(ModelGraph& graph, ByteSource& random, const Layer& in,
                     const std::string& name, int stride, const std::vector<int>& outShape) {
    const std::vector<int> inputs =
        filterAndBias(graph, random, in, name, {1, 3, 3, in.channels}, in.channels);
    const Quantization outQ{6.0f / 255.0f, 0};
    const int out = graph.addTensor(name, ElementType::UInt8, outShape, outQ);
    graph.addDepthwiseConv2D(inputs, out,
                             DepthwiseConv2DOptions{stride, stride, 1, true, Activation::Relu6});
    return Layer{out, in.channels, outQ};
}

// A MobileNet-like backbone at output stride 16 with PoseNet's three heads: about 150 million
// multiply-adds for a 481 x 353 picture.
ModelGraph poseNetworkGraph() {
    ModelGraph graph;
    ByteSource random(20240521u);
    int height = 353;
    int width = 481;
    const int input = addPictureInput(graph, width, height);
    Layer layer{input, 3, Quantization{1.0f / 255.0f, 0}};

    auto down = [](int size, int stride) { return (size + stride - 1) / stride; };
    height = down(height, 2);
    width = down(width, 2);
    layer =
        convLayer(graph, random, layer, "conv0", 8, 3, 2, Activation::Relu6, {1, height, width, 8});
    const struct {
        int stride;
        int channels;
    } blocks[] = {{1, 16},  {2, 32},  {1, 32},  {2, 64},  {1, 64}, {2, 128},
                  {1, 128}, {1, 128}, {1, 128}, {1, 128}, {1, 128}};
    int index = 1;
    for (const auto& block : blocks) {
        height = down(height, block.stride);
        width = down(width, block.stride);
        const std::string name = "block" + std::to_string(index++);
        layer = depthwiseLayer(graph, random, layer, name + "_dw", block.stride,
                               {1, height, width, layer.channels});
        layer = convLayer(graph, random, layer, name + "_pw", block.channels, 1, 1,
                          Activation::Relu6, {1, height, width, block.channels});
    }
    const int heatmaps = convLayer(graph, random, layer, "heatmaps", 17, 1, 1, Activation::None,
                                   {1, height, width, 17})
                             .tensor;
    const int shortOffsets = convLayer(graph, random, layer, "short_offsets", 34, 1, 1,
                                       Activation::None, {1, height, width, 34})
                                 .tensor;
    const int midOffsets = convLayer(graph, random, layer, "mid_offsets", 64, 1, 1,
                                     Activation::None, {1, height, width, 64})
                               .tensor;
    graph.setInputs({input});
    graph.setOutputs({heatmaps, shortOffsets, midOffsets});
    return graph;
}

// A picture scaled to the model's input size, RGB.
std::vector<std::uint8_t> modelPicture(const cv::Mat& bgr, const PosenetModel& model) {
    cv::Mat scaled;
    cv::resize(bgr, scaled, cv::Size(model.width, model.height), 0, 0, cv::INTER_LINEAR);
    cv::Mat rgb;
    cv::cvtColor(scaled, rgb, cv::COLOR_BGR2RGB);
    return std::vector<std::uint8_t>(rgb.data, rgb.data + rgb.total() * rgb.elemSize());
}

// The calibration pictures: frames of the sample clip, and a photograph of players.
std::vector<CalibrationPicture> calibrationPictures(const std::string& directory,
                                                    const PosenetModel& model) {
    std::vector<CalibrationPicture> pictures;
    cv::VideoCapture clip(directory + "/vtest.avi");
    if (!clip.isOpened()) {
        throw std::runtime_error("cannot read " + directory + "/vtest.avi");
    }
    int next = 0;
    cv::Mat frame;
    for (int index : posenetCalibrationFrames()) {
        for (; next <= index; ++next) {
            if (!clip.read(frame)) {
                throw std::runtime_error(directory + "/vtest.avi ends before frame " +
                                         std::to_string(index));
            }
        }
        pictures.push_back(
            {"vtest.avi frame " + std::to_string(index), modelPicture(frame, model)});
    }
    const cv::Mat photograph = cv::imread(directory + "/basketball1.png", cv::IMREAD_COLOR);
    if (photograph.empty()) {
        throw std::runtime_error("cannot read " + directory + "/basketball1.png");
    }
    pictures.push_back({"basketball1.png", modelPicture(photograph, model)});
    return pictures;
}

std::map<std::string, std::function<ModelGraph()>> recipes(const std::string& posenetDirectory,
                                                           const std::string& calibration) {
    std::map<std::string, std::function<ModelGraph()>> result;
    if (!posenetDirectory.empty()) {
        // Read once, on first use, for all sizes.
        auto network = std::make_shared<std::unique_ptr<GraphModel>>();
        if (!calibration.empty()) {
            const PosenetModel model = posenetInt8Model();
            result[model.name] = [model, network, posenetDirectory, calibration]() {
                if (!*network) {
                    *network = std::make_unique<GraphModel>(
                        loadGraphModel(posenetDirectory, "posenet.json"));
                }
                QuantizationReport report;
                const std::vector<CalibrationPicture> pictures =
                    calibrationPictures(calibration, model);
                ModelGraph graph = posenetInt8Graph(**network, model, pictures, &report);
                std::cout << "modelforge: " << model.name << " fitted on " << pictures.size()
                          << " pictures in " << report.seconds << " s; against the float network"
                          << " (largest / mean difference):";
                for (std::size_t i = 0; i < report.outputs.size(); ++i) {
                    std::cout << " " << report.outputs[i] << " " << report.largestDifference[i]
                              << " / " << report.meanDifference[i];
                }
                std::cout << std::endl;
                return graph;
            };
        }
        for (const PosenetModel& model : posenetModels()) {
            result[model.name] = [model, network, posenetDirectory]() {
                if (!*network) {
                    *network = std::make_unique<GraphModel>(
                        loadGraphModel(posenetDirectory, "posenet.json"));
                }
                return posenetGraph(**network, model);
            };
        }
    }
    for (const PassThroughModel& model : passThroughModels()) {
        result[model.name] = [model]() { return passThroughGraph(model); };
    }
    const SsdDetectorModel ssd;
    result[ssd.name] = [ssd]() { return ssdGraph(ssd); };
    result[poseNetworkName()] = []() { return poseNetworkGraph(); };
    return result;
}

bool writeModel(const std::string& directory, const std::string& name, const ModelGraph& graph) {
    const std::vector<std::uint8_t> bytes = graph.serialize("modelforge " + name);
    const std::string path = directory + "/" + name + ".tflite";
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file) {
        std::cerr << "modelforge: cannot write " << path << ": " << std::strerror(errno) << "\n";
        return false;
    }
    return true;
}

} // namespace

} // namespace modelforge

int main(int argc, char** argv) {
    using namespace modelforge;
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string posenetDirectory;
    std::string calibration;
    if (args.size() >= 2 && args[0] == "--posenet") {
        posenetDirectory = args[1];
        args.erase(args.begin(), args.begin() + 2);
        if (args.size() >= 2 && args[0] == "--calibration") {
            calibration = args[1];
            args.erase(args.begin(), args.begin() + 2);
        }
    }
    const auto all = recipes(posenetDirectory, calibration);
    if (args.size() == 1 && args[0] == "--list") {
        for (const auto& entry : all) {
            std::cout << entry.first << "\n";
        }
        return 0;
    }
    if (args.empty() || args.size() > 2 || args[0].rfind("--", 0) == 0) {
        std::cerr << "usage: modelforge [--posenet <graph model dir> [--calibration <sample data "
                     "dir>]] <output directory> [model name] | modelforge [--posenet <dir> "
                     "[--calibration <dir>]] --list\n";
        return 2;
    }
    const std::string& directory = args[0];
    try {
        if (args.size() == 2) {
            const auto found = all.find(args[1]);
            if (found == all.end()) {
                std::cerr << "modelforge: unknown model " << args[1] << " (see --list)\n";
                return 2;
            }
            return writeModel(directory, found->first, found->second()) ? 0 : 1;
        }
        for (const auto& entry : all) {
            if (!writeModel(directory, entry.first, entry.second())) {
                return 1;
            }
        }
    } catch (const std::exception& error) {
        std::cerr << "modelforge: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
