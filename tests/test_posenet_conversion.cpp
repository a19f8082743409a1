// The published PoseNet as the model forge converts it: its float outputs against TensorFlow.js
// running the original graph model on real pictures, its uint8 outputs against the detectors'
// quantization, and the forge's refusal of graph models it cannot convert.
#include "ChildProcess.h"
#include "ImageBufferFrameSource.h"
#include "RealPosenet.h"
#include "ScratchDirectory.h"

#include <gtest/gtest.h>
#include <tensorflow/lite/c/c_api.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sys/wait.h>

using namespace StemlibTest;

namespace {

// One model on TensorFlow Lite called directly, one thread.
class DirectModel {
public:
    explicit DirectModel(const std::string& path)
        : _model(TfLiteModelCreateFromFile(path.c_str()), TfLiteModelDelete),
          _options(TfLiteInterpreterOptionsCreate(), TfLiteInterpreterOptionsDelete),
          _interpreter(nullptr, TfLiteInterpreterDelete) {
        if (_model) {
            TfLiteInterpreterOptionsSetNumThreads(_options.get(), 1);
            _interpreter.reset(TfLiteInterpreterCreate(_model.get(), _options.get()));
        }
        if (!_interpreter || TfLiteInterpreterAllocateTensors(_interpreter.get()) != kTfLiteOk) {
            throw std::runtime_error("cannot load " + path);
        }
    }

    // The outputs' bytes for one picture.
    std::vector<std::vector<std::uint8_t>> run(const std::vector<std::uint8_t>& picture) {
        TfLiteTensor* input = TfLiteInterpreterGetInputTensor(_interpreter.get(), 0);
        EXPECT_EQ(TfLiteTensorByteSize(input), picture.size());
        TfLiteTensorCopyFromBuffer(input, picture.data(), picture.size());
        EXPECT_EQ(TfLiteInterpreterInvoke(_interpreter.get()), kTfLiteOk);
        std::vector<std::vector<std::uint8_t>> outputs;
        for (int i = 0; i < TfLiteInterpreterGetOutputTensorCount(_interpreter.get()); ++i) {
            const TfLiteTensor* tensor = TfLiteInterpreterGetOutputTensor(_interpreter.get(), i);
            outputs.emplace_back(TfLiteTensorByteSize(tensor));
            TfLiteTensorCopyToBuffer(tensor, outputs.back().data(), outputs.back().size());
        }
        return outputs;
    }

private:
    std::unique_ptr<TfLiteModel, void (*)(TfLiteModel*)> _model;
    std::unique_ptr<TfLiteInterpreterOptions, void (*)(TfLiteInterpreterOptions*)> _options;
    std::unique_ptr<TfLiteInterpreter, void (*)(TfLiteInterpreter*)> _interpreter;
};

std::vector<float> floats(const std::vector<std::uint8_t>& bytes) {
    std::vector<float> values(bytes.size() / sizeof(float));
    std::memcpy(values.data(), bytes.data(), values.size() * sizeof(float));
    return values;
}

// The reference outputs (heatmaps, short offsets, mid offsets) of TensorFlow.js's plain
// JavaScript backend for a picture.
std::vector<std::vector<float>> referenceOutputs(const std::vector<std::uint8_t>& picture,
                                                 int width, int height) {
    ScratchDirectory scratch;
    {
        std::ofstream file(scratch.file("picture.rgb"), std::ios::binary);
        file.write(reinterpret_cast<const char*>(picture.data()),
                   static_cast<std::streamsize>(picture.size()));
    }
    const std::string command = "'" + std::string(STEMLIB_NODE) + "' '" + STEMLIB_SOURCE_DIR +
                                "/tools/posenet-reference/posenet-reference.js' '" +
                                STEMLIB_TFJS_DIR + "' '" + STEMLIB_POSENET_DIR + "' '" +
                                scratch.file("picture.rgb") + "' " + std::to_string(width) + " " +
                                std::to_string(height) + " '" + scratch.file("out") + "' cpu > '" +
                                scratch.file("log") + "' 2>&1";
    const int status = std::system(command.c_str());
    EXPECT_EQ(status, 0) << readWholeFile(scratch.file("log"));
    std::vector<std::vector<float>> outputs;
    for (const char* name : {"heatmaps", "short_offsets", "mid_offsets"}) {
        const std::string bytes = readWholeFile(scratch.file(std::string("out.") + name));
        outputs.push_back(floats(std::vector<std::uint8_t>(bytes.begin(), bytes.end())));
    }
    return outputs;
}

std::string nodeMissing() {
    const std::string node = STEMLIB_NODE;
    if (node.empty() || !fileExists(node)) {
        return "Node.js is not installed: no reference engine to compare with";
    }
    if (std::string(STEMLIB_TFJS_DIR).empty()) {
        return "TensorFlow.js was not found at build time (scripts/fetch-posenet.sh)";
    }
    return "";
}

} // namespace

// The converted network computes what the original computes in another engine, to 1e-3 on every
// output value; and the detectors' uint8 model holds exactly those values, quantized with the
// detectors' zero points and scales (saturated where the scale's range ends).
TEST(PosenetConversion, MatchesTensorFlowJsOnRealPictures) {
    STEMLIB_REQUIRE_REAL_POSENET();
    const std::string missing = nodeMissing();
    if (!missing.empty()) {
        GTEST_SKIP() << missing;
    }
    const modelforge::PosenetModel floatModel = modelforge::posenetFloatModel();
    const modelforge::PosenetModel byteModel = modelforge::posenetModel();
    const int width = floatModel.width;
    const int height = floatModel.height;
    const std::size_t cells = static_cast<std::size_t>(floatModel.gridHeight()) *
                              static_cast<std::size_t>(floatModel.gridWidth());
    DirectModel floats(forgedModel(floatModel.name));
    DirectModel bytes(forgedModel(byteModel.name));

    // The reference runs on TensorFlow.js's plain JavaScript backend, about 7 s a picture: the
    // sanitizer build takes one picture.
    std::vector<std::pair<std::string, std::vector<std::uint8_t>>> pictures = {
        {"messi5.jpg", samplePicture("messi5.jpg", width, height)}};
    if (!kSanitizedBuild) {
        pictures.emplace_back("basketball2.png", samplePicture("basketball2.png", width, height));
        pictures.emplace_back("vtest.avi frame 200", sampleClipFrame(200, width, height));
    }
    for (const auto& [label, picture] : pictures) {
        SCOPED_TRACE(label);
        const std::vector<std::vector<float>> reference = referenceOutputs(picture, width, height);
        const std::vector<std::vector<std::uint8_t>> converted = floats.run(picture);
        const std::vector<std::vector<std::uint8_t>> quantized = bytes.run(picture);
        ASSERT_EQ(reference.size(), 3u);
        ASSERT_EQ(converted.size(), 3u);
        ASSERT_EQ(quantized.size(), 3u);
        for (std::size_t o = 0; o < 3; ++o) {
            const modelforge::PosenetOutput& output = byteModel.outputs[o];
            SCOPED_TRACE(output.name);
            const std::vector<float> values = ::floats(converted[o]);
            ASSERT_EQ(values.size(), cells * static_cast<std::size_t>(output.channels));
            ASSERT_EQ(reference[o].size(), values.size());
            ASSERT_EQ(quantized[o].size(), values.size());
            float worst = 0.0f;
            float peak = 0.0f;
            std::size_t below = 0;
            std::size_t above = 0;
            std::size_t offByOne = 0;
            for (std::size_t i = 0; i < values.size(); ++i) {
                worst = std::max(worst, std::fabs(values[i] - reference[o][i]));
                peak = std::max(peak, std::fabs(values[i]));
                const float exact = std::round(values[i] / output.scale) + output.zeroPoint;
                below += exact < 0.0f;
                above += exact > 255.0f;
                const int expected = static_cast<int>(std::clamp(exact, 0.0f, 255.0f));
                const int got = quantized[o][i];
                // Only a value on a rounding boundary may land one step away.
                ASSERT_LE(std::abs(got - expected), 1) << "value " << values[i] << " at " << i;
                offByOne += got != expected;
            }
            EXPECT_LE(worst, 1e-3f);
            EXPECT_GT(peak, 1.0f); // a real response, not a silent network
            EXPECT_LT(offByOne, values.size() / 1000 + 1);
            const double share = 100.0 / static_cast<double>(values.size());
            std::printf("[ posenet  ] %s %s: largest |value| %.2f, off TensorFlow.js by %.3g; "
                        "saturated in uint8: %.1f %% low, %.1f %% high\n",
                        label.c_str(), output.name.c_str(), static_cast<double>(peak),
                        static_cast<double>(worst), share * static_cast<double>(below),
                        share * static_cast<double>(above));
        }
    }
}

// A graph model the forge cannot convert is refused with the reason, and no model is written.
TEST(PosenetConversion, ForgeRefusesWhatItCannotConvert) {
    STEMLIB_REQUIRE_REAL_POSENET();
    const std::string json = readWholeFile(std::string(STEMLIB_POSENET_DIR) + "/posenet.json");
    const std::string bin = readWholeFile(std::string(STEMLIB_POSENET_DIR) + "/posenet.bin");
    ASSERT_FALSE(json.empty());
    ASSERT_FALSE(bin.empty());
    auto replaced = [&](const std::string& from, const std::string& to) {
        std::string text = json;
        const std::size_t at = text.find(from);
        EXPECT_NE(at, std::string::npos) << from;
        return at == std::string::npos ? text : text.replace(at, from.size(), to);
    };

    const struct {
        const char* label;
        std::string json;
        std::string bin;
        std::string error;
    } cases[] = {
        {"unknown operator",
         replaced("\"op\":\"FusedDepthwiseConv2dNative\"", "\"op\":\"MaxPool\""), bin,
         "modelforge: node MobilenetV1/MobilenetV1/Conv2d_1_depthwise/BatchNorm/batchnorm/"
         "add_1/conv: operator MaxPool is not supported"},
        {"weights cut short", json, bin.substr(0, bin.size() - 4),
         "modelforge: the weight files end inside weight "},
        {"weights too long", json, bin + std::string(8, '\0'),
         "modelforge: the weight files hold 8 bytes more than the manifest describes"},
        {"dilated convolution",
         replaced("\"dilations\":{\"list\":{\"i\":[\"1\",\"1\",\"1\",\"1\"]}}",
                  "\"dilations\":{\"list\":{\"i\":[\"1\",\"2\",\"2\",\"1\"]}}"),
         bin, "dilation is not supported"},
        {"not JSON", json.substr(0, json.size() / 2), bin, "posenet.json is not JSON: "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        ScratchDirectory scratch;
        std::filesystem::create_directory(scratch.file("model"));
        std::ofstream(scratch.file("model/posenet.json"), std::ios::binary) << c.json;
        std::ofstream(scratch.file("model/posenet.bin"), std::ios::binary) << c.bin;
        std::string command;
        for (const std::string& word : StemlibTest::builtProgram(STEMLIB_MODELFORGE)) {
            command += "'" + word + "' ";
        }
        command += "--posenet '" + scratch.file("model") + "' '" + scratch.path().string() + "' " +
                   modelforge::posenetModel().name + " > '" + scratch.file("log") + "' 2>&1";
        const int status = std::system(command.c_str());
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
        EXPECT_NE(readWholeFile(scratch.file("log")).find(c.error), std::string::npos)
            << readWholeFile(scratch.file("log"));
        EXPECT_FALSE(fileExists(scratch.file(modelforge::posenetModel().name + ".tflite")));
    }
}
