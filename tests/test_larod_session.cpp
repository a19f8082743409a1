// The model session on the host inference service: start sequence, default device choice, every
// start failure with its text, binding, and the fixed tear-down order, for LarodModelBase and
// for the detector base.
#include "HostInference.h"

#ifdef STEMLIB_TEST_HOST_LAROD

#include "ForgedModels.h"
#include "LarodDetectorBase.h"
#include "LarodModelBase.h"
#include "LogLines.h"
#include "ObjectDetection.h"
#include "ScopedLogger.h"

#include <larod.h>

#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

// A session on the PoseNet pass-through model: one picture in, three byte tensors out.
class PosenetSession : public LarodModelBase {
public:
    explicit PosenetSession(const std::string& deviceName = "",
                            const std::string& modelPath = forgedModel("posenet_481x353"),
                            std::string inputTemplate = "/tmp/larod.in0-XXXXXX")
        : LarodModelBase(modelPath, deviceName), _inputTemplate(std::move(inputTemplate)) {}

    void bindTensorsToFiles() override {
        _input = std::make_unique<MemoryMappedFile>(
            _inputTemplate, static_cast<int>(3 * _inputWidth * _inputHeight));
        bindTensorToFile(_larodInputTensorArray[0], _input, "Input Image");
        const int sizes[] = {12121, 24242, 45632};
        const char* names[] = {"Output Heatmaps", "Output Short Offsets", "Output Mid Offsets"};
        for (int i = 0; i < 3; ++i) {
            _outputs[i] = std::make_unique<MemoryMappedFile>(
                "/tmp/larod.out" + std::to_string(i) + "-XXXXXX", sizes[i]);
            bindTensorToFile(_larodOutputTensorArray[i], _outputs[i], names[i]);
        }
    }

    // Fills the picture, rewinds the outputs and runs the job.
    bool run(std::uint8_t firstByte) {
        auto* picture = static_cast<std::uint8_t*>(_input->getBuffer());
        for (int i = 0; i < _input->getFileSize(); ++i) {
            picture[i] = static_cast<std::uint8_t>(firstByte + i);
        }
        for (auto& output : _outputs) {
            output->rewind();
        }
        return larodRunJob(_larodConnection, _larodJobRequest, nullptr);
    }
    const std::uint8_t* output(int i) const {
        return static_cast<const std::uint8_t*>(_outputs[i]->getBuffer());
    }

private:
    std::string _inputTemplate;
    std::unique_ptr<MemoryMappedFile> _input;
    std::unique_ptr<MemoryMappedFile> _outputs[3];
};

// A detector base on a model with any number of outputs, binding one picture and four outputs.
class FourOutputDetector : public LarodDetectorBase<ObjectDetection> {
public:
    explicit FourOutputDetector(const std::string& modelPath)
        : LarodDetectorBase<ObjectDetection>(modelPath, "") {}

    void bindTensorsToFiles() override {
        requireTensors(1, 4, "FourOutputDetector");
        _input = std::make_unique<MemoryMappedFile>(
            "/tmp/larod.in0-XXXXXX",
            static_cast<int>(3 * _inputResolution.width * _inputResolution.height));
        bindTensorToFile(_larodInputTensorArray[0], _input, "Input Image");
        for (int i = 0; i < 4; ++i) {
            _outputs[i] = std::make_unique<MemoryMappedFile>("/tmp/larod.out0-XXXXXX", 400);
            bindTensorToFile(_larodOutputTensorArray[i], _outputs[i], "Output");
        }
    }
    larodTensor* inputTensor() const { return _larodInputTensorArray[0]; }

private:
    std::unique_ptr<MemoryMappedFile> _input;
    std::unique_ptr<MemoryMappedFile> _outputs[4];
};

const std::vector<std::string> kReleaseCalls = {"larodDestroyJobRequest", "larodDestroyTensors",
                                                "larodDeleteModel", "larodDestroyModel",
                                                "larodDisconnect"};
const std::vector<std::string> kTearDown = {"larodDestroyJobRequest", "larodDestroyTensors",
                                            "larodDeleteModel",       "larodDestroyModel",
                                            "larodDisconnect",        "larodClearError"};

TEST(LarodModelBase, StartsRunsAndTearsDownInTheFixedOrder) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    stemlib_host_larod_clear_log();
    {
        PosenetSession session;
        EXPECT_EQ(session.getInputWidth(), 0u);
        EXPECT_TRUE(session.initialize());
        EXPECT_EQ(session.getDeviceName(), "a9-dlpu-tflite");
        EXPECT_EQ(session.getInputWidth(), 481u);
        EXPECT_EQ(session.getInputHeight(), 353u);
        EXPECT_EQ(linesAt(logger, "info"),
                  (std::vector<std::string>{"logDevices: Found 2 devices",
                                            "logDevices: Device: cpu-tflite",
                                            "logDevices: Device: a9-dlpu-tflite",
                                            "initializeFromModelPath: Model size (WxH): 481x353",
                                            "initializeFromModelPath: Model loaded successfully"}));
        EXPECT_TRUE(linesAt(logger, "error").empty());

        // The job reuses the one request; outputs are runs of the picture's bytes.
        const modelforge::PassThroughModel model = modelforge::posenetPassThrough();
        for (std::uint8_t first : {std::uint8_t(0), std::uint8_t(100)}) {
            ASSERT_TRUE(session.run(first));
            for (int i = 0; i < 3; ++i) {
                EXPECT_EQ(session.output(i)[0],
                          static_cast<std::uint8_t>(first + model.outputs[i].inputOffset));
            }
        }
    }
    EXPECT_TRUE(hasLine(logger, "info", "~LarodModelBase: LarodModelBase destructor called."));
    EXPECT_EQ(
        larodCallLog({"larodConnect", "larodLoadModel", "larodCreateModelInputs",
                      "larodCreateModelOutputs", "larodGetTensorDims", "larodSetTensorFd",
                      "larodCreateJobRequest", "larodRunJob", "larodDestroyJobRequest",
                      "larodDestroyTensors", "larodDeleteModel", "larodDestroyModel",
                      "larodDisconnect"}),
        (std::vector<std::string>{
            "larodConnect", "larodLoadModel a9-dlpu-tflite", "larodCreateModelInputs 1",
            "larodCreateModelOutputs 3", "larodGetTensorDims input 0", "larodSetTensorFd input 0",
            "larodSetTensorFd output 0", "larodSetTensorFd output 1", "larodSetTensorFd output 2",
            "larodCreateJobRequest", "larodRunJob", "larodRunJob", "larodDestroyJobRequest",
            // The derived class's files are gone before the session is released.
            "larodDestroyTensors inputs, files closed", "larodDestroyTensors outputs, files closed",
            "larodDeleteModel", "larodDestroyModel", "larodDisconnect"}));
}

TEST(LarodModelBase, TakesTheFirstAcceleratorInTheServicesOrder) {
    const struct {
        const char* devices;
        const char* chosen;
    } cases[] = {
        {"cpu-tflite, axis-a8-dlpu-tflite, google-edge-tpu-tflite", "axis-a8-dlpu-tflite"},
        {"google-edge-tpu-tflite, axis-a8-dlpu-tflite", "google-edge-tpu-tflite"},
        {"cpu-proc, a9-dlpu-tflite, axis-a8-dlpu-tflite", "a9-dlpu-tflite"},
    };
    for (const auto& c : cases) {
        HostCameraScope camera(std::string("larod.devices = ") + c.devices + "\n");
        PosenetSession session;
        EXPECT_EQ(session.getDefaultDeviceName(), "") << "not connected yet";
        EXPECT_TRUE(session.initialize());
        EXPECT_EQ(session.getDeviceName(), c.chosen);
        EXPECT_EQ(session.getDefaultDeviceName(), c.chosen);
    }

    // A name given at construction is taken as it stands.
    RecordingLogger logger;
    ScopedLogger scope(logger);
    stemlib_host_larod_clear_log();
    PosenetSession session("cpu-tflite");
    EXPECT_TRUE(session.initialize());
    EXPECT_EQ(larodCallLog({"larodLoadModel"}),
              std::vector<std::string>{"larodLoadModel cpu-tflite"});
    EXPECT_TRUE(linesOf(logger, {"getDefaultDeviceName"}).empty());
    EXPECT_NE(session.getDeviceByName("a9-dlpu-tflite"), nullptr);
}

struct StartFailure {
    std::string name;
    std::function<void()> arrange; // requests failures or changes the camera
    std::function<PosenetSession*()> make;
    std::string text;                  // the exception's text
    std::vector<std::string> logged;   // error lines, in order, with their function names
    std::vector<std::string> teardown; // the tear-down calls afterwards
};

TEST(LarodModelBase, EveryStartFailureThrowsItsTextAndLeavesTheRestToTheDestructor) {
    const std::string model = forgedModel("posenet_481x353");
    const std::vector<std::string> nothingAcquired = {
        "larodDestroyJobRequest null", "larodDestroyTensors null", "larodDestroyTensors null",
        "larodDeleteModel null",       "larodDestroyModel null",   "larodDisconnect"};
    const std::vector<std::string> modelLoaded = {
        "larodDestroyJobRequest null", "larodDestroyTensors null",
        "larodDestroyTensors null",    "larodDeleteModel",
        "larodDestroyModel",           "larodDisconnect"};
    auto fail = [](const char* call, const char* message) {
        return [=]() { stemlib_host_set_failure(call, message); };
    };
    auto plain = []() { return new PosenetSession(); };
    const std::vector<StartFailure> cases = {
        {"connect",
         fail("larodConnect", "no service"),
         plain,
         "Failed to create larod connection. no service",
         {"initializeFromModelPath: Failed to create larod connection. no service"},
         {"larodDestroyJobRequest null", "larodDestroyTensors null", "larodDestroyTensors null",
          "larodDeleteModel null", "larodDestroyModel null", "larodDisconnect null"}},
        {"open",
         []() {},
         []() { return new PosenetSession("", "/nonexistent/model.tflite"); },
         "Failed to open model file /nonexistent/model.tflite. No such file or directory",
         {"initializeFromModelPath: Failed to open model file /nonexistent/model.tflite. No "
          "such file or directory"},
         nothingAcquired},
        {"unknown device",
         []() {},
         []() { return new PosenetSession("nonexistent-tflite"); },
         "Failed to get device by name nonexistent-tflite. ",
         {"getDeviceByName: No suitable device found for input device name: nonexistent-tflite",
          "initializeFromModelPath: Failed to get device by name nonexistent-tflite. "},
         nothingAcquired},
        {"no accelerator",
         []() {},
         plain,
         "Failed to get device by name . ",
         {"getDefaultDeviceName: No suitable device found",
          "getDeviceByName: No suitable device found for input device name: ",
          "initializeFromModelPath: Failed to get device by name . "},
         nothingAcquired},
        {"no devices",
         []() {},
         plain,
         "Failed to get device by name . ",
         {"getDefaultDeviceName: No devices found", "getDeviceByName: No devices found",
          "initializeFromModelPath: Failed to get device by name . "},
         nothingAcquired},
        {"device list",
         fail("larodListDevices", "list lost"),
         plain,
         "Failed to get device by name . ",
         {"logDevices: Unable to larodListDevices: list lost",
          "getDefaultDeviceName: Unable to larodListDevices: list lost",
          "getDeviceByName: Unable to larodListDevices: list lost",
          "initializeFromModelPath: Failed to get device by name . "},
         nothingAcquired},
        {"load",
         fail("larodLoadModel", "no memory"),
         plain,
         "Failed to load model " + model + ". no memory",
         {"initializeFromModelPath: Failed to load model " + model + ". no memory"},
         nothingAcquired},
        {"inputs",
         fail("larodCreateModelInputs", "no inputs"),
         plain,
         "Failed to create model input tensor array. no inputs",
         {"initializeFromModelPath: Failed to create model input tensor array. no inputs"},
         modelLoaded},
        {"outputs",
         fail("larodCreateModelOutputs", "no outputs"),
         plain,
         "Failed to create model output tensor array. no outputs",
         {"initializeFromModelPath: Failed to create model output tensor array. no outputs"},
         {"larodDestroyJobRequest null", "larodDestroyTensors inputs", "larodDestroyTensors null",
          "larodDeleteModel", "larodDestroyModel", "larodDisconnect"}},
        {"bind",
         fail("larodSetTensorFd", "bad descriptor"),
         plain,
         "Failed to set tensor file descriptor for Input Image. bad descriptor",
         {"bindTensorToFile: Failed to set tensor file descriptor for Input Image. bad "
          "descriptor"},
         {"larodDestroyJobRequest null", "larodDestroyTensors inputs",
          "larodDestroyTensors outputs", "larodDeleteModel", "larodDestroyModel",
          "larodDisconnect"}},
        {"dimensions",
         fail("larodGetTensorDims", "no dimensions"),
         plain,
         "Failed to get the input tensor's height and width. no dimensions",
         {"initializeFromModelPath: Failed to get the input tensor's height and width. no "
          "dimensions"},
         {"larodDestroyJobRequest null", "larodDestroyTensors inputs",
          "larodDestroyTensors outputs", "larodDeleteModel", "larodDestroyModel",
          "larodDisconnect"}},
        {"job request",
         fail("larodCreateJobRequest", "no job"),
         plain,
         "Failed to create larod job request. no job",
         {"initializeFromModelPath: Failed to create larod job request. no job"},
         {"larodDestroyJobRequest null", "larodDestroyTensors inputs, files closed",
          "larodDestroyTensors outputs, files closed", "larodDeleteModel", "larodDestroyModel",
          "larodDisconnect"}},
    };
    for (const StartFailure& c : cases) {
        SCOPED_TRACE(c.name);
        const char* devices = c.name == "no accelerator" ? "cpu-tflite"
                              : c.name == "no devices"   ? ""
                                                         : "cpu-tflite, a9-dlpu-tflite";
        HostCameraScope camera(std::string("larod.devices = ") + devices + "\n");
        c.arrange();
        RecordingLogger logger;
        ScopedLogger scope(logger);
        stemlib_host_larod_clear_log();
        {
            std::unique_ptr<PosenetSession> session(c.make());
            try {
                session->initialize();
                ADD_FAILURE() << "no exception";
            } catch (const std::runtime_error& e) {
                EXPECT_EQ(std::string(e.what()), c.text);
            }
            std::vector<std::string> errors = linesAt(logger, "error");
            EXPECT_EQ(errors, c.logged);
            stemlib_host_clear_failures();
        }
        EXPECT_EQ(larodCallLog(kReleaseCalls), c.teardown);
    }
}

TEST(LarodModelBase, ThrowsFromMemoryMappedFileStraightThrough) {
    PosenetSession session("", forgedModel("posenet_481x353"),
                           "/nonexistent-directory/larod.in0-XXXXXX");
    try {
        session.initialize();
        ADD_FAILURE() << "no exception";
    } catch (const char* text) {
        EXPECT_STREQ(text, "Failed to create temporary file");
    }
}

TEST(LarodModelBase, TearDownReportsFailuresAndGoesOn) {
    FailureScope failures;
    RecordingLogger logger;
    ScopedLogger scope(logger);
    {
        PosenetSession session;
        ASSERT_TRUE(session.initialize());
        stemlib_host_set_failure("larodDeleteModel", "model busy");
        stemlib_host_set_failure("larodDisconnect", "service gone");
        stemlib_host_larod_clear_log();
    }
    EXPECT_EQ(linesAt(logger, "error"),
              (std::vector<std::string>{"~LarodModelBase: Failed to delete larod model: model busy",
                                        "~LarodModelBase: Failed to disconnect from larod: "
                                        "service gone"}));
    EXPECT_EQ(
        larodCallLog(kTearDown),
        (std::vector<std::string>{
            "larodDestroyJobRequest", "larodDestroyTensors inputs, files closed",
            "larodDestroyTensors outputs, files closed", "larodDeleteModel failed",
            "larodClearError", "larodDestroyModel", "larodDisconnect failed", "larodClearError"}));
}

TEST(LarodDetectorBase, SharesTheSessionUnderItsOwnName) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    {
        FourOutputDetector detector(forgedModel("detector_raw_300x300"));
        EXPECT_EQ(detector.getInputResolution(), Resolution(0, 0));
        EXPECT_TRUE(detector.initialize());
        EXPECT_EQ(detector.getInputResolution(), Resolution(300, 300));
        EXPECT_EQ(detector.getDeviceName(), "a9-dlpu-tflite");
        EXPECT_EQ(detector.getModelPath(), forgedModel("detector_raw_300x300"));
        // No device list after connecting.
        EXPECT_TRUE(linesOf(logger, {"logDevices"}).empty());
        detector.logTensorInfo(detector.inputTensor(), "Input Image");
        EXPECT_TRUE(hasLine(logger, "info",
                            "logTensorInfo: Input Image: dims [1, 300, 300, 3], data type UINT8, "
                            "layout NHWC, 270000 bytes"));
        std::vector<std::uint8_t> picture(270000, 9);
        picture[1] = 250;
        detector.logTensorData(detector.inputTensor(), picture.data(), "Input Image");
        EXPECT_TRUE(hasLine(logger, "info",
                            "logTensorData: Input Image: 9 250 9 9 9 9 9 9 9 9 9 9 9 9 9 9 "
                            "(270000 bytes, UINT8)"));
    }
    EXPECT_TRUE(
        hasLine(logger, "info", "~LarodDetectorBase: LarodDetectorBase destructor called."));
    EXPECT_TRUE(linesAt(logger, "error").empty());
}

TEST(LarodDetectorBase, TheProtectedEntryNeedsAReadableModel) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    FourOutputDetector detector("unused.tflite");
    EXPECT_FALSE(detector.initialize("/nonexistent/protected.tflite"));
    EXPECT_EQ(linesAt(logger, "error"),
              std::vector<std::string>{"initialize: Failed to decrypt model file"});
    EXPECT_TRUE(detector.initialize(forgedModel("detector_raw_300x300")));
    EXPECT_EQ(detector.getInputResolution(), Resolution(300, 300));
}

TEST(LarodDetectorBase, RefusesAModelWithTooFewTensors) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    FourOutputDetector detector(forgedModel("movenet_192x192"));
    try {
        detector.initialize();
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(),
                     "The model has 1 input and 1 output tensors; FourOutputDetector binds 1 "
                     "and 4.");
    }
    EXPECT_EQ(linesAt(logger, "error"),
              std::vector<std::string>{"bindTensorsToFiles: The model has 1 input and 1 output "
                                       "tensors; FourOutputDetector binds 1 and 4."});
}

} // namespace

#endif
