// The host inference service on XNNPACK, and the PoseNet in int8 that the model forge fits:
// which devices delegate and what the service logs, the delegate's declarations against the
// engine's library, float results with and without the delegate, and the int8 network finding
// the people that the float network finds on footage it was not fitted on.
#include "AxisVideoStreamSource.h"
#include "HostCameraScope.h"
#include "ImageBufferFrameSource.h"
#include "ImageFromImageFileSource.h"
#include "LarodModelBase.h"
#include "PosenetPoseDetector.h"
#include "RealPosenet.h"
#include "SyslogCapture.h"
#include "XnnpackDelegate.h"

#include <gtest/gtest.h>
#include <larod.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <syslog.h>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

// Any model through the service, its input and every output bound to files.
class ServiceModel : public LarodModelBase {
public:
    ServiceModel(const std::string& path, const std::string& device)
        : LarodModelBase(path, device) {}

    void bindTensorsToFiles() override {
        _input = std::make_unique<MemoryMappedFile>(
            "/tmp/larod.in0-XXXXXX", static_cast<int>(3 * _inputWidth * _inputHeight));
        bindTensorToFile(_larodInputTensorArray[0], _input, "Input Image");
        for (std::size_t i = 0; i < _numOutputTensors; ++i) {
            std::size_t bytes = 0;
            larodGetTensorByteSize(_larodOutputTensorArray[i], &bytes, nullptr);
            _sizes.push_back(bytes);
            _outputs.emplace_back();
            _outputs.back() = std::make_unique<MemoryMappedFile>("/tmp/larod.out0-XXXXXX",
                                                                 static_cast<int>(bytes));
            bindTensorToFile(_larodOutputTensorArray[i], _outputs.back(), "Output");
        }
    }

    // The outputs' bytes for a picture of the model's input size.
    std::vector<std::vector<std::uint8_t>> run(const std::vector<std::uint8_t>& picture) {
        std::memcpy(_input->getBuffer(), picture.data(), picture.size());
        for (auto& output : _outputs) {
            output->rewind();
        }
        larodError* error = nullptr;
        EXPECT_TRUE(larodRunJob(_larodConnection, _larodJobRequest, &error));
        larodClearError(&error);
        std::vector<std::vector<std::uint8_t>> result;
        for (std::size_t i = 0; i < _outputs.size(); ++i) {
            const auto* bytes = static_cast<const std::uint8_t*>(_outputs[i]->getBuffer());
            result.emplace_back(bytes, bytes + _sizes[i]);
        }
        return result;
    }

private:
    std::unique_ptr<MemoryMappedFile> _input;
    std::vector<std::unique_ptr<MemoryMappedFile>> _outputs;
    std::vector<std::size_t> _sizes;
};

// The service's log lines ("larod: ..."), in order.
std::vector<std::string> serviceLines(const SyslogCapture& capture, int priority) {
    std::vector<std::string> lines;
    for (const SyslogRecord& record : capture.records()) {
        if (record.priority == priority && record.message.rfind("larod: ", 0) == 0) {
            lines.push_back(record.message);
        }
    }
    return lines;
}

std::string loadLine(const std::string& model, const std::string& device, const std::string& what) {
    return "larod: model \"" + model + "\" on " + device + ": " + what;
}

std::string int8Model() {
    return forgedModel(modelforge::posenetInt8Model().name);
}

std::string int8Missing() {
    const std::string missing = realPosenetMissing();
    if (!missing.empty()) {
        return missing;
    }
    if (!fileExists(int8Model())) {
        return "the int8 PoseNet was not forged (it needs the sample data at build time)";
    }
    return "";
}

std::vector<float> floats(const std::vector<std::uint8_t>& bytes) {
    std::vector<float> values(bytes.size() / sizeof(float));
    std::memcpy(values.data(), bytes.data(), values.size() * sizeof(float));
    return values;
}

// The same detections of the box decoder (boxes, classes, scores, count), to float rounding:
// XNNPACK dequantizes in float, the default kernels in double. Slots past the count hold
// whatever the engine left there.
void expectSameDetections(const std::vector<std::vector<std::uint8_t>>& got,
                          const std::vector<std::vector<std::uint8_t>>& expected) {
    ASSERT_EQ(got.size(), 4u);
    ASSERT_EQ(expected.size(), 4u);
    ASSERT_EQ(floats(got[3]), floats(expected[3]));
    const auto count = static_cast<std::size_t>(floats(expected[3]).at(0));
    EXPECT_GT(count, 0u);
    for (std::size_t o = 0; o < 3; ++o) {
        const std::vector<float> a = floats(got[o]);
        const std::vector<float> b = floats(expected[o]);
        const std::size_t used = count * (o == 0 ? 4 : 1);
        ASSERT_LE(used, b.size());
        for (std::size_t i = 0; i < used; ++i) {
            ASSERT_NEAR(a[i], b[i], 1e-5f * std::max(1.0f, std::fabs(b[i])))
                << "output " << o << " value " << i;
        }
    }
}

} // namespace

// The accelerators of the description run through XNNPACK and cpu-tflite on the default
// kernels, unless "larod.xnnpack" names other devices; the service logs which, and how many
// operators XNNPACK took. A model with operators that XNNPACK refuses runs all the same, the
// rest on the default kernels, with the same results; so does one whose delegate fails.
TEST(HostInferenceXnnpack, DevicesChooseTheKernelsAndTheLogSaysSo) {
    HostCameraScope camera("larod.devices = cpu-tflite, a9-dlpu-tflite, axis-a8-dlpu-tflite\n"
                           "larod.threads = 2\n");
    const std::string ssd = forgedModel("detector_ssd_300x300");
    std::vector<std::uint8_t> picture(300 * 300 * 3);
    for (std::size_t i = 0; i < picture.size(); ++i) {
        picture[i] = static_cast<std::uint8_t>((i * 7) % 251);
    }
    std::vector<std::vector<std::vector<std::uint8_t>>> results;
    {
        SyslogCapture capture;
        for (const char* device : {"cpu-tflite", "a9-dlpu-tflite", "axis-a8-dlpu-tflite"}) {
            ServiceModel model(ssd, device);
            ASSERT_TRUE(model.initialize());
            results.push_back(model.run(picture));
        }
        // The box decoder (a custom operator) and the slices stay on the default kernels.
        const std::vector<std::string> expected = {
            loadLine(ssd, "cpu-tflite", "every operator on the default kernels, 2 threads"),
            loadLine(ssd, "a9-dlpu-tflite",
                     "4 of 8 operators delegated to XNNPACK in 1 partition, 4 on the default "
                     "kernels, 2 threads"),
            loadLine(ssd, "axis-a8-dlpu-tflite",
                     "4 of 8 operators delegated to XNNPACK in 1 partition, 4 on the default "
                     "kernels, 2 threads")};
        EXPECT_EQ(serviceLines(capture, LOG_INFO), expected);
        EXPECT_TRUE(serviceLines(capture, LOG_WARNING).empty());
    }
    expectSameDetections(results[1], results[0]);
    expectSameDetections(results[2], results[0]);

    // The description chooses: here cpu-tflite alone delegates, on one thread.
    camera.reload("larod.devices = cpu-tflite, a9-dlpu-tflite\nlarod.xnnpack = cpu-tflite\n");
    SyslogCapture capture;
    for (const char* device : {"cpu-tflite", "a9-dlpu-tflite"}) {
        ServiceModel model(ssd, device);
        ASSERT_TRUE(model.initialize());
        expectSameDetections(model.run(picture), results[0]);
    }
    const std::vector<std::string> expected = {
        loadLine(ssd, "cpu-tflite",
                 "4 of 8 operators delegated to XNNPACK in 1 partition, 4 on the default "
                 "kernels, 1 thread"),
        loadLine(ssd, "a9-dlpu-tflite", "every operator on the default kernels, 1 thread")};
    EXPECT_EQ(serviceLines(capture, LOG_INFO), expected);

    // A delegate that fails leaves the model to the default kernels, with a warning.
    camera.reload("larod.devices = a9-dlpu-tflite\n");
    stemlib_host_set_failure("TfLiteXNNPackDelegateCreate", "no memory for the weights");
    SyslogCapture failed;
    ServiceModel model(ssd, "a9-dlpu-tflite");
    ASSERT_TRUE(model.initialize());
    expectSameDetections(model.run(picture), results[0]);
    EXPECT_TRUE(serviceLines(failed, LOG_INFO).empty());
    EXPECT_EQ(serviceLines(failed, LOG_WARNING),
              std::vector<std::string>{loadLine(ssd, "a9-dlpu-tflite",
                                                "XNNPACK failed (no memory for the weights); every "
                                                "operator on the default kernels, 1 thread")});
}

// The delegate's declarations hold against the engine's library: the default options come back
// by value whole (all zero: a longer declaration picks up whatever the register behind them
// holds), num_threads makes a thread pool where it should, and flags reach the delegate, which
// takes every operator of the int8 network only with quantized operators enabled.
TEST(HostInferenceXnnpack, DeclarationsMatchTheEngineLibrary) {
    const TfLiteXNNPackDelegateOptions defaults = TfLiteXNNPackDelegateOptionsDefault();
    TfLiteXNNPackDelegateOptions zero;
    std::memset(&zero, 0, sizeof zero);
    EXPECT_EQ(std::memcmp(&defaults, &zero, sizeof zero), 0);
    for (int threads : {1, 2}) {
        TfLiteXNNPackDelegateOptions options = defaults;
        options.num_threads = threads;
        TfLiteDelegate* delegate = TfLiteXNNPackDelegateCreate(&options);
        ASSERT_NE(delegate, nullptr);
        EXPECT_EQ(TfLiteXNNPackDelegateGetThreadPool(delegate) != nullptr, threads > 1);
        TfLiteXNNPackDelegateDelete(delegate);
    }

    const std::string missing = int8Missing();
    if (!missing.empty()) {
        GTEST_SKIP() << missing;
    }
    HostCameraScope camera("larod.threads = 2\n");
    SyslogCapture capture;
    ServiceModel model(int8Model(), "");
    ASSERT_TRUE(model.initialize());
    EXPECT_EQ(model.getDeviceName(), "a9-dlpu-tflite");
    // DEQUANTIZE and QUANTIZE of the picture, 27 convolutions, 3 heads, and DEQUANTIZE and
    // QUANTIZE of each output.
    const std::vector<std::string> expected = {
        loadLine(int8Model(), "a9-dlpu-tflite",
                 "38 of 38 operators delegated to XNNPACK in 1 partition, 0 on the default "
                 "kernels, 2 threads")};
    EXPECT_EQ(serviceLines(capture, LOG_INFO), expected);
}

// The float network gives the same values with and without the delegate, to float rounding,
// on real pictures; its uint8 model's bytes differ by at most one step, where a value lies on a
// rounding boundary.
TEST(HostInferenceXnnpack, FloatResultsMatchTheDefaultKernels) {
    STEMLIB_REQUIRE_REAL_POSENET();
    HostCameraScope camera;
    const modelforge::PosenetModel model = modelforge::posenetFloatModel();
    const std::vector<std::uint8_t> pictures[] = {
        samplePicture("messi5.jpg", model.width, model.height),
        samplePicture("basketball2.png", model.width, model.height)};
    for (const std::string& name : {model.name, modelforge::posenetModel().name}) {
        SCOPED_TRACE(name);
        ServiceModel plain(forgedModel(name), "cpu-tflite");
        ServiceModel delegated(forgedModel(name), "a9-dlpu-tflite");
        ASSERT_TRUE(plain.initialize());
        ASSERT_TRUE(delegated.initialize());
        for (const auto& picture : pictures) {
            const auto expected = plain.run(picture);
            const auto got = delegated.run(picture);
            ASSERT_EQ(got.size(), 3u);
            for (std::size_t o = 0; o < 3; ++o) {
                ASSERT_EQ(got[o].size(), expected[o].size());
                if (name != model.name) {
                    std::size_t offByOne = 0;
                    for (std::size_t i = 0; i < got[o].size(); ++i) {
                        ASSERT_LE(std::abs(got[o][i] - expected[o][i]), 1) << i;
                        offByOne += got[o][i] != expected[o][i];
                    }
                    EXPECT_LT(offByOne, got[o].size() / 1000 + 1);
                    continue;
                }
                const std::vector<float> a = floats(got[o]);
                const std::vector<float> b = floats(expected[o]);
                float worst = 0.0f;
                for (std::size_t i = 0; i < a.size(); ++i) {
                    worst =
                        std::max(worst, std::fabs(a[i] - b[i]) / std::max(1.0f, std::fabs(b[i])));
                }
                EXPECT_LE(worst, 1e-3f) << "output " << o;
                std::printf("[ xnnpack  ] output %zu: largest difference %.3g (relative above 1)\n",
                            o, static_cast<double>(worst));
            }
        }
    }
}

namespace {

using Poses = std::vector<PoseDetectionBase<BodypixBodyPart>>;

// The detector with its dequantised outputs in view.
class OpenPosenet : public PosenetPoseDetector {
public:
    OpenPosenet(const std::string& model, const std::string& device)
        : PosenetPoseDetector(model, device) {}
    const float* heatmaps() const { return _PosenetOutputHeatmapsDequantized.data(); }
    const float* shortOffsets() const { return _PosenetOutputShortOffsetsDequantized.data(); }
    const float* midOffsets() const { return _PosenetOutputMidOffsetsDequantized.data(); }
};

FPoint feetOf(const PoseDetectionBase<BodypixBodyPart>& person) {
    FPoint feet;
    if (!person.skeleton.getInferior(feet, 0.3f)) {
        feet = FPoint(static_cast<float>(person.boundingBox.x) +
                          static_cast<float>(person.boundingBox.width) / 2.0f,
                      static_cast<float>(person.boundingBox.y + person.boundingBox.height));
    }
    return feet;
}

// The poses of `found` scoring at least `score` that no pose of `reference` scoring at least
// `near` matches: none whose feet lie within 30 pixels.
std::size_t unmatched(const Poses& found, const Poses& reference, float score, float near) {
    std::size_t missing = 0;
    for (const auto& pose : found) {
        if (pose.confidence < score) {
            continue;
        }
        bool matched = false;
        for (const auto& other : reference) {
            matched = matched || (other.confidence >= near &&
                                  std::hypot(feetOf(pose).x - feetOf(other).x,
                                             feetOf(pose).y - feetOf(other).y) <= 30.0f);
        }
        missing += !matched;
    }
    return missing;
}

std::size_t atLeast(const Poses& poses, float score) {
    return static_cast<std::size_t>(
        std::count_if(poses.begin(), poses.end(),
                      [score](const auto& pose) { return pose.confidence >= score; }));
}

float largestDifference(const float* a, const float* b, std::size_t count) {
    float largest = 0.0f;
    for (std::size_t i = 0; i < count; ++i) {
        largest = std::max(largest, std::fabs(a[i] - b[i]));
    }
    return largest;
}

} // namespace

// The int8 network, run by the detector unchanged through the host camera playing the clip,
// finds the people that the float network finds, matched by where their feet are: at most one
// difference in 30 people, on frames that neither the fitting nor the hand-counted tests use.
// A person counts from a pose score of 0.25; a pose scoring 0.2 to 0.25 in the other network is
// the same person seen a little more weakly, not a difference (hard cuts at 0.25 are printed).
TEST(PosenetInt8, FindsThePeopleTheFloatNetworkFinds) {
    constexpr float kScore = 0.25f;
    constexpr float kNear = 0.2f;
    const std::string missing = int8Missing();
    if (!missing.empty()) {
        GTEST_SKIP() << missing;
    }
    std::vector<int> frames = {100, 170, 300, 370, 500, 570, 680, 790};
    if (kSanitizedBuild) {
        frames = {100, 300, 500, 680};
    }
    const std::vector<int> calibration = modelforge::posenetCalibrationFrames();
    for (int frame : frames) {
        ASSERT_EQ(std::count(calibration.begin(), calibration.end(), frame), 0) << frame;
        for (int counted : {0, 200, 400, 600, 700}) {
            ASSERT_NE(frame, counted) << "a hand-counted frame of the float network's tests";
        }
    }
    HostCameraScope camera("root.ImageSource.I0.Sensor.AspectRatio = 4:3\n"
                           "channels = 1\n"
                           "channel.1.resolutions = 768x576, 384x288\n"
                           "video.input = file:" +
                           sampleDataPath("vtest.avi") + "\nvideo.framerate = 0\n");
    AxisVideoStreamSource stream(Resolution(768, 576));
    OpenPosenet reference(forgedModel(modelforge::posenetModel().name), "cpu-tflite");
    OpenPosenet int8(int8Model(), "");
    ASSERT_TRUE(reference.initialize());
    ASSERT_TRUE(int8.initialize());
    EXPECT_EQ(int8.getDeviceName(), "a9-dlpu-tflite");
    reference.setConfidenceThreshold(kNear);
    int8.setConfidenceThreshold(kNear);

    // 481 x 353 takes the centred 768 x 563; one frame buffer serves both detectors.
    const IRectangle view(0, 6, 768, 563);
    std::vector<std::uint8_t> frame(768 * 576 * 3);
    std::vector<std::uint8_t> small(64 * 48 * 3);
    int next = 0;
    std::size_t people = 0;
    std::size_t differences = 0;
    std::size_t hardCuts = 0;
    float worst[3] = {0.0f, 0.0f, 0.0f};
    for (int index : frames) {
        for (; next < index; ++next) {
            ASSERT_TRUE(stream.getFrame(Resolution(64, 48), 0, small.data()));
        }
        ASSERT_TRUE(stream.getFrame(Resolution(768, 576), 0, frame.data()));
        ++next;
        ImageBufferFrameSource source(Resolution(768, 576), frame.data());
        const Poses expected = reference.detect(source, view);
        const Poses got = int8.detect(source, view);
        const std::size_t lost = unmatched(expected, got, kScore, kNear);
        const std::size_t invented = unmatched(got, expected, kScore, kNear);
        hardCuts +=
            unmatched(expected, got, kScore, kScore) + unmatched(got, expected, kScore, kScore);
        const float heatmaps = largestDifference(int8.heatmaps(), reference.heatmaps(), 12121);
        const float shortOffsets =
            largestDifference(int8.shortOffsets(), reference.shortOffsets(), 24242);
        const float midOffsets =
            largestDifference(int8.midOffsets(), reference.midOffsets(), 45632);
        worst[0] = std::max(worst[0], heatmaps);
        worst[1] = std::max(worst[1], shortOffsets);
        worst[2] = std::max(worst[2], midOffsets);
        std::printf("[ int8     ] frame %d: float %zu people, int8 %zu; lost %zu, new %zu; largest "
                    "differences: heatmaps %.2f, short offsets %.2f px, mid offsets %.2f px\n",
                    index, atLeast(expected, kScore), atLeast(got, kScore), lost, invented,
                    static_cast<double>(heatmaps), static_cast<double>(shortOffsets * 16.0f),
                    static_cast<double>(midOffsets * 16.0f));
        people += atLeast(expected, kScore);
        differences += lost + invented;
    }
    EXPECT_GE(people, kSanitizedBuild ? 15u : 30u);
    EXPECT_LE(differences * 30, std::max<std::size_t>(people, 30))
        << differences << " in " << people;
    std::printf("[ int8     ] %zu differences in %zu people (%zu cut hard at %.2f); largest "
                "differences: heatmaps %.2f, short offsets %.2f px, mid offsets %.2f px\n",
                differences, people, hardCuts, static_cast<double>(kScore),
                static_cast<double>(worst[0]), static_cast<double>(worst[1] * 16.0f),
                static_cast<double>(worst[2] * 16.0f));
}
