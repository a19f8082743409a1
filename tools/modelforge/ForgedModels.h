// The models that the model forge writes, described so that a test can predict what they output.
//
// Pass-through models: the input is a uint8 picture [1, height, width, 3]; each output is a
// run of the picture's bytes, taken from the flattened picture (row by row, three bytes a pixel)
// at inputOffset. The runs follow each other from byte 0 in output order. A uint8 output carries
// the bytes as they stand, with the quantization given here as its metadata; a float32 output
// holds (byte - zeroPoint) * scale. So a frame painted with chosen bytes yields chosen tensors.
//
// The SSD detector: box encodings and class scores are runs of the picture's bytes, decoded by
// the TFLite_Detection_PostProcess custom operator against one constant anchor per box.
//
// The pose network: a convolutional network of the size of a real pose model (for benchmarks),
// with random fixed weights and the output tensors of the PoseNet model.
//
// The published PoseNet, converted with its trained weights at each detector's input size.
//
// Header-only, so that tests include it without linking the forge.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace modelforge {

struct OutputSlice {
    std::string name;
    std::vector<int> shape;
    bool isFloat;  // float32 output; otherwise uint8
    int zeroPoint; // quantization of the bytes
    float scale;
    std::size_t inputOffset; // first byte of the flattened picture that feeds the output

    std::size_t elementCount() const {
        std::size_t count = 1;
        for (int dim : shape) {
            count *= static_cast<std::size_t>(dim);
        }
        return count;
    }
    // The value a float32 output holds for one byte of the picture.
    float valueOf(unsigned char byte) const {
        return static_cast<float>(static_cast<int>(byte) - zeroPoint) * scale;
    }
};

struct PassThroughModel {
    std::string name; // also the file name without ".tflite"
    int width;
    int height;
    std::vector<OutputSlice> outputs;

    std::size_t inputBytes() const {
        return static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 3;
    }
    const OutputSlice& output(const std::string& outputName) const {
        for (const OutputSlice& slice : outputs) {
            if (slice.name == outputName) {
                return slice;
            }
        }
        return outputs.at(outputs.size()); // throws std::out_of_range
    }
};

namespace detail {

inline PassThroughModel makePassThrough(std::string name, int width, int height,
                                        std::vector<OutputSlice> outputs) {
    std::size_t offset = 0;
    for (OutputSlice& slice : outputs) {
        slice.inputOffset = offset;
        offset += slice.elementCount();
    }
    return PassThroughModel{std::move(name), width, height, std::move(outputs)};
}

inline OutputSlice u8(std::string name, std::vector<int> shape, int zeroPoint, float scale) {
    return OutputSlice{std::move(name), std::move(shape), false, zeroPoint, scale, 0};
}

inline OutputSlice f32(std::string name, std::vector<int> shape, int zeroPoint, float scale) {
    return OutputSlice{std::move(name), std::move(shape), true, zeroPoint, scale, 0};
}

} // namespace detail

// PosenetPoseDetector: 481 x 353 picture, grid of 23 rows and 31 columns at stride 16.
inline PassThroughModel posenetPassThrough() {
    using namespace detail;
    return makePassThrough("posenet_481x353", 481, 353,
                           {u8("heatmaps", {1, 23, 31, 17}, 128, 0.078431375f),
                            u8("short_offsets", {1, 23, 31, 34}, 128, 0.078431375f),
                            u8("mid_offsets", {1, 23, 31, 64}, 117, 1.3875765f)});
}

// LarodPoseDetector: 1281 x 721 picture, grid of 46 rows and 81 columns (3726 cells).
inline PassThroughModel bodypixPassThrough() {
    using namespace detail;
    return makePassThrough("bodypix_1281x721", 1281, 721,
                           {u8("heatmaps", {1, 46, 81, 17}, 210, 0.08174263f),
                            u8("short_offsets", {1, 46, 81, 34}, 142, 0.73682034f),
                            u8("mid_offsets", {1, 46, 81, 64}, 123, 1.4407082f),
                            u8("segments", {1, 46, 81, 1}, 160, 0.10387437f),
                            u8("part_heatmaps", {1, 46, 81, 24}, 90, 0.10960945f),
                            u8("long_offsets", {1, 46, 81, 34}, 127, 0.8586689f)});
}

// Bodypix_320W_240H_PoseDetector: 320 x 240 picture, grid of 15 rows and 20 columns.
inline PassThroughModel bodypix320PassThrough() {
    using namespace detail;
    return makePassThrough("bodypix_320x240", 320, 240,
                           {u8("displacement_bwd", {1, 15, 20, 32}, 174, 0.7755094f),
                            u8("displacement_fwd", {1, 15, 20, 32}, 51, 0.8475879f),
                            u8("heatmaps", {1, 15, 20, 17}, 167, 0.1002763f),
                            u8("long_offsets", {1, 15, 20, 34}, 127, 0.8586689f),
                            u8("part_heatmaps", {1, 15, 20, 24}, 90, 0.10960945f),
                            u8("part_offsets", {1, 15, 20, 48}, 0, 0.003921569f),
                            u8("segments", {1, 15, 20, 1}, 160, 0.10387437f),
                            u8("short_offsets", {1, 15, 20, 34}, 134, 0.5554287f)});
}

// MovenetPoseDetector: 192 x 192 picture, 17 rows of y, x, score as float32 in 0 .. 255/256.
inline PassThroughModel movenetPassThrough() {
    using namespace detail;
    return makePassThrough("movenet_192x192", 192, 192,
                           {f32("skeleton", {1, 1, 17, 3}, 0, 1.0f / 256.0f)});
}

// LarodObjectDetector without post-processing: 300 x 300 picture; locations and scores in
// 0 .. 255/256, classes and the count as whole numbers 0 .. 255.
inline PassThroughModel rawDetectorPassThrough() {
    using namespace detail;
    return makePassThrough("detector_raw_300x300", 300, 300,
                           {f32("locations", {1, 100, 4}, 0, 1.0f / 256.0f),
                            f32("classes", {1, 100}, 0, 1.0f),
                            f32("scores", {1, 100}, 0, 1.0f / 256.0f), f32("count", {1}, 0, 1.0f)});
}

inline std::vector<PassThroughModel> passThroughModels() {
    return {posenetPassThrough(), bodypixPassThrough(), bodypix320PassThrough(),
            movenetPassThrough(), rawDetectorPassThrough()};
}

// The SSD-style detector. Box i is decoded from four bytes at boxOffset + 4 i (y, x, h, w
// encodings, each (byte - boxZeroPoint) * boxScale) against an anchor centred at (0.5, 0.5) of
// size 1 x 1, with all four scales 1:
//   centre y = 0.5 + ey, centre x = 0.5 + ex, height = exp(eh), width = exp(ew),
//   box = (centre y - height / 2, centre x - width / 2, centre y + height / 2, ...).
// Its class scores are (numClasses + 1) bytes at scoreOffset + (numClasses + 1) i, each
// byte * scoreScale; the first is the background class. The operator keeps, for each box, its
// best class, drops scores at or below scoreThreshold, suppresses boxes that overlap a better
// one by more than iouThreshold (intersection over union), and writes at most maxDetections in
// falling order of score; class numbers start at 0 after the background.
struct SsdDetectorModel {
    std::string name = "detector_ssd_300x300";
    int width = 300;
    int height = 300;
    int numBoxes = 16;
    int numClasses = 9;
    int maxDetections = 10;
    std::size_t boxOffset = 0;
    int boxZeroPoint = 128;
    float boxScale = 1.0f / 64.0f;
    std::size_t scoreOffset = 16 * 4;
    float scoreScale = 1.0f / 256.0f;
    float scoreThreshold = 0.25f;
    float iouThreshold = 0.5f;
};

// The convolutional pose network: 481 x 353 picture, PoseNet's three outputs.
inline const char* poseNetworkName() {
    return "posenet_network_481x353";
}

// The published PoseNet (MobileNetV1, depth multiplier 0.75, output stride 16, trained weights),
// converted from its TensorFlow.js graph model when the build finds it (scripts/fetch-posenet.sh).
// The input is the uint8 RGB picture [1, height, width, 3], brought to [-1, 1] inside the model
// (x / 127.5 - 1). The outputs lie on the grid of ceil(height / 16) x ceil(width / 16) cells, in
// the order and with the quantization that a detector binds; each holds one of the network's
// heads, in pixels for offsets and as logits for heatmaps, so that (byte - zeroPoint) * scale
// gives back the network's value, saturated to the bytes' range. The mid offsets are the forward
// then the backward displacements, concatenated on channels. The network has no body-part
// segmentation: outputs of the 1281 x 721 and 320 x 240 detectors that it cannot fill (segments,
// part heatmaps, part and long offsets) hold their zero point, the value 0.
enum class PosenetHead { Heatmaps, ShortOffsets, MidOffsets, Forward, Backward, Absent };

struct PosenetOutput {
    std::string name;
    PosenetHead head;
    int channels;
    int zeroPoint;
    float scale;

    // The network's value that a byte stands for.
    float valueOf(unsigned char byte) const {
        return static_cast<float>(static_cast<int>(byte) - zeroPoint) * scale;
    }
};

struct PosenetModel {
    std::string name;
    int width;
    int height;
    bool floatOutputs; // float32 outputs holding the network's values, without quantization
    std::vector<PosenetOutput> outputs;

    int gridHeight() const { return (height + 15) / 16; }
    int gridWidth() const { return (width + 15) / 16; }
};

namespace detail {

inline PosenetOutput head(std::string name, PosenetHead head, int channels, int zeroPoint,
                          float scale) {
    return PosenetOutput{std::move(name), head, channels, zeroPoint, scale};
}

} // namespace detail

// PosenetPoseDetector and PosenetPanoDetector: 481 x 353.
inline PosenetModel posenetModel() {
    using detail::head;
    return PosenetModel{"posenet_mobilenet_481x353",
                        481,
                        353,
                        false,
                        {head("heatmaps", PosenetHead::Heatmaps, 17, 128, 0.078431375f),
                         head("short_offsets", PosenetHead::ShortOffsets, 34, 128, 0.078431375f),
                         head("mid_offsets", PosenetHead::MidOffsets, 64, 117, 1.3875765f)}};
}

// The same at 481 x 353 with float32 outputs, to compare with another engine.
inline PosenetModel posenetFloatModel() {
    PosenetModel model = posenetModel();
    model.name = "posenet_mobilenet_float_481x353";
    model.floatOutputs = true;
    for (PosenetOutput& output : model.outputs) {
        output.zeroPoint = 0;
        output.scale = 1.0f;
    }
    return model;
}

// The same network in 8-bit integers (PosenetQuantization.h), for the same detectors: the same
// uint8 input and outputs.
inline PosenetModel posenetInt8Model() {
    PosenetModel model = posenetModel();
    model.name = "posenet_mobilenet_int8_481x353";
    return model;
}

// The frames of the sample clip (vtest.avi) that the int8 network is calibrated on, besides the
// photograph basketball1.png.
inline std::vector<int> posenetCalibrationFrames() {
    return {50, 150, 250, 350, 450, 550, 650, 750};
}

// LarodPoseDetector and BodypixPanoPoseDetector: 1281 x 721.
inline PosenetModel posenetModel1281x721() {
    using detail::head;
    return PosenetModel{"posenet_mobilenet_1281x721",
                        1281,
                        721,
                        false,
                        {head("heatmaps", PosenetHead::Heatmaps, 17, 210, 0.08174263f),
                         head("short_offsets", PosenetHead::ShortOffsets, 34, 142, 0.73682034f),
                         head("mid_offsets", PosenetHead::MidOffsets, 64, 123, 1.4407082f),
                         head("segments", PosenetHead::Absent, 1, 160, 0.10387437f),
                         head("part_heatmaps", PosenetHead::Absent, 24, 90, 0.10960945f),
                         head("long_offsets", PosenetHead::Absent, 34, 127, 0.8586689f)}};
}

// Bodypix_320W_240H_PoseDetector: 320 x 240.
inline PosenetModel posenetModel320x240() {
    using detail::head;
    return PosenetModel{"posenet_mobilenet_320x240",
                        320,
                        240,
                        false,
                        {head("displacement_bwd", PosenetHead::Backward, 32, 174, 0.7755094f),
                         head("displacement_fwd", PosenetHead::Forward, 32, 51, 0.8475879f),
                         head("heatmaps", PosenetHead::Heatmaps, 17, 167, 0.1002763f),
                         head("long_offsets", PosenetHead::Absent, 34, 127, 0.8586689f),
                         head("part_heatmaps", PosenetHead::Absent, 24, 90, 0.10960945f),
                         head("part_offsets", PosenetHead::Absent, 48, 0, 0.003921569f),
                         head("segments", PosenetHead::Absent, 1, 160, 0.10387437f),
                         head("short_offsets", PosenetHead::ShortOffsets, 34, 134, 0.5554287f)}};
}

inline std::vector<PosenetModel> posenetModels() {
    return {posenetModel(), posenetFloatModel(), posenetModel1281x721(), posenetModel320x240()};
}

} // namespace modelforge
