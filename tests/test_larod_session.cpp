// The model session on the host inference service: the mapped exchange files, the start
// sequence, the default device choice, every start failure with its text, the fixed tear-down
// order, for LarodModelBase and for the detector base; and the service's exchange of tensors
// through the files.
#include "HostInference.h"

#ifdef STEMLIB_TEST_HOST_LAROD

#include "LarodModelBase.h"
#include "LarodObjectDetector.h"
#include "LogLines.h"
#include "ScopedLogger.h"

#include <larod.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <sys/stat.h>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

// A session on the MoveNet pass-through model: one picture in (of inputSize bytes, or the
// model's size), 51 floats out, each a byte of the picture's start over 256.
class MovenetSession : public LarodModelBase {
public:
    explicit MovenetSession(const std::string& deviceName = "",
                            const std::string& modelPath = forgedModel("movenet_192x192"),
                            std::string inputTemplate = "/tmp/larod.in0-XXXXXX", int inputSize = 0)
        : LarodModelBase(modelPath, deviceName), _inputTemplate(std::move(inputTemplate)),
          _inputSize(inputSize) {}

    void bindTensorsToFiles() override {
        _input = std::make_unique<MemoryMappedFile>(
            _inputTemplate,
            _inputSize > 0 ? _inputSize : static_cast<int>(3 * _inputWidth * _inputHeight));
        bindTensorToFile(_larodInputTensorArray[0], _input, "Input Image");
        _output = std::make_unique<MemoryMappedFile>("/tmp/larod.out0-XXXXXX", 204);
        bindTensorToFile(_larodOutputTensorArray[0], _output, "Output Skeleton");
    }

    // Runs the job as a detector does; the service's message when it fails.
    std::string run() {
        larodError* error = nullptr;
        const std::string message = larodRunJob(_larodConnection, _larodJobRequest, &error)
                                        ? std::string()
                                        : std::string(error->msg);
        larodClearError(&error);
        return message;
    }
    std::uint8_t* picture() const { return static_cast<std::uint8_t*>(_input->getBuffer()); }
    int inputFd() const { return _input->getFileDescriptor(); }
    MemoryMappedFile& output() const { return *_output; }

private:
    std::string _inputTemplate;
    int _inputSize;
    std::unique_ptr<MemoryMappedFile> _input;
    std::unique_ptr<MemoryMappedFile> _output;
};

const std::vector<std::string> kReleaseCalls = {"larodDestroyJobRequest", "larodDestroyTensors",
                                                "larodDeleteModel", "larodDestroyModel",
                                                "larodDisconnect"};

TEST(MemoryMappedFile, MapsAnUnlinkedFileAndThrowsTheTextOfEachFailure) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    {
        MemoryMappedFile file("/tmp/larod.out0-XXXXXX", 300);
        struct stat status {};
        EXPECT_NE(stat(file.getFilename().c_str(), &status), 0) << "unlinked at once";
        EXPECT_EQ(fstat(file.getFileDescriptor(), &status), 0);
        EXPECT_EQ(status.st_size, 300);
        lseek(file.getFileDescriptor(), 50, SEEK_SET);
        EXPECT_TRUE(file.rewind());
        EXPECT_EQ(lseek(file.getFileDescriptor(), 0, SEEK_CUR), 0);
    }
    const struct {
        const char* nameTemplate;
        int size;
        const char* thrown;
        std::string logged; // the name mkstemp made stands between the two parts
        std::string loggedEnd;
    } failures[] = {
        {"/nonexistent-directory/larod.in0-XXXXXX", 10, "Failed to create temporary file",
         "MemoryMappedFile: failed to create temporary file "
         "/nonexistent-directory/larod.in0-XXXXXX",
         " : No such file or directory"},
        {"/tmp/larod.out0-XXXXXX", -1, "Failed to adjust file size",
         "MemoryMappedFile: failed to adjust temporary file /tmp/larod.out0-",
         " to size -1 : Invalid argument"},
        {"/tmp/larod.out0-XXXXXX", 0, "Failed to create map file",
         "MemoryMappedFile: failed to create map file /tmp/larod.out0-", " : Invalid argument"},
    };
    for (const auto& f : failures) {
        logger.lines.clear();
        try {
            MemoryMappedFile file(f.nameTemplate, f.size);
            ADD_FAILURE() << "no exception for " << f.thrown;
        } catch (const char* text) {
            EXPECT_STREQ(text, f.thrown);
        }
        const std::vector<std::string> errors = linesAt(logger, "error");
        ASSERT_EQ(errors.size(), 1u) << f.thrown;
        EXPECT_EQ(errors[0].substr(0, f.logged.size()), f.logged);
        EXPECT_EQ(errors[0].substr(errors[0].size() - f.loggedEnd.size()), f.loggedEnd);
    }
}

// The tear-down also meets a model that will not go and a service that has gone away: it
// reports both and goes on.
TEST(LarodModelBase, StartsAndTearsDownInTheFixedOrder) {
    HostCameraScope camera; // clears the requested failures at the end
    RecordingLogger logger;
    ScopedLogger scope(logger);
    stemlib_host_larod_clear_log();
    {
        MovenetSession session;
        EXPECT_TRUE(session.initialize());
        EXPECT_EQ(session.getDeviceName(), "a9-dlpu-tflite");
        EXPECT_EQ(session.getInputHeight(), 192u);
        EXPECT_EQ(linesAt(logger, "info"),
                  (std::vector<std::string>{"logDevices: Found 2 devices",
                                            "logDevices: Device: cpu-tflite",
                                            "logDevices: Device: a9-dlpu-tflite",
                                            "initializeFromModelPath: Model size (WxH): 192x192",
                                            "initializeFromModelPath: Model loaded successfully"}));
        stemlib_host_set_failure("larodDestroyTensors", "tensors busy");
        stemlib_host_set_failure("larodDeleteModel", "model busy");
        stemlib_host_set_failure("larodDisconnect", "service gone");
    }
    EXPECT_TRUE(hasLine(logger, "info", "~LarodModelBase: LarodModelBase destructor called."));
    EXPECT_EQ(linesAt(logger, "error"),
              (std::vector<std::string>{"~LarodModelBase: Failed to delete larod model: model busy",
                                        "~LarodModelBase: Failed to disconnect from larod: "
                                        "service gone"}));
    std::vector<std::string> calls = {"larodConnect",           "larodLoadModel",
                                      "larodCreateModelInputs", "larodCreateModelOutputs",
                                      "larodGetTensorDims",     "larodSetTensorFd",
                                      "larodCreateJobRequest",  "larodClearError"};
    calls.insert(calls.end(), kReleaseCalls.begin(), kReleaseCalls.end());
    EXPECT_EQ(
        larodCallLog(calls),
        (std::vector<std::string>{
            "larodConnect", "larodLoadModel a9-dlpu-tflite", "larodCreateModelInputs 1",
            "larodCreateModelOutputs 1", "larodGetTensorDims input 0", "larodSetTensorFd input 0",
            "larodSetTensorFd output 0", "larodCreateJobRequest", "larodDestroyJobRequest",
            // The derived class's files are gone before the session is released. A failed
            // release of the tensors releases them all the same.
            "larodDestroyTensors inputs, files closed failed", "larodClearError",
            "larodDestroyTensors outputs, files closed failed", "larodClearError",
            "larodDeleteModel failed", "larodClearError", "larodDestroyModel",
            "larodDisconnect failed", "larodClearError"}));
}

// The service reads each input from offset 0 without moving the descriptor, and writes each
// output at the descriptor's position: so a detector must rewind its outputs before each job.
TEST(HostInferenceService, ReadsInputsAtOffsetZeroAndWritesOutputsAtThePosition) {
    MovenetSession session;
    ASSERT_TRUE(session.initialize());
    const int output = session.output().getFileDescriptor();
    float values[102] = {};
    const auto readOutput = [&values, output]() { return pread(output, values, sizeof values, 0); };
    session.picture()[50] = 50;
    lseek(session.inputFd(), 1000, SEEK_SET);
    EXPECT_EQ(session.run(), "");
    EXPECT_EQ(lseek(session.inputFd(), 0, SEEK_CUR), 1000);
    EXPECT_EQ(lseek(output, 0, SEEK_CUR), 204);
    EXPECT_EQ(readOutput(), 204);
    EXPECT_FLOAT_EQ(values[50], 50 / 256.0f);

    session.picture()[50] = 100;
    EXPECT_EQ(session.run(), "");
    EXPECT_EQ(readOutput(), 408);
    EXPECT_FLOAT_EQ(values[50], 50 / 256.0f);
    EXPECT_FLOAT_EQ(values[101], 100 / 256.0f);
    session.picture()[50] = 200;
    session.output().rewind();
    EXPECT_EQ(session.run(), "");
    EXPECT_EQ(readOutput(), 408);
    EXPECT_FLOAT_EQ(values[50], 200 / 256.0f);

    // An input file shorter than its tensor fails the job.
    MovenetSession shortInput("", forgedModel("movenet_192x192"), "/tmp/larod.in0-XXXXXX", 1000);
    ASSERT_TRUE(shortInput.initialize());
    EXPECT_EQ(shortInput.run(), "input tensor 0: the file holds 1000 of the tensor's 110592 bytes");
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
        MovenetSession session;
        EXPECT_TRUE(session.initialize());
        EXPECT_EQ(session.getDeviceName(), c.chosen);
    }
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += (text.empty() ? "" : "\n") + line;
    }
    return text;
}

TEST(LarodModelBase, EveryStartFailureThrowsItsTextAndLeavesTheRestToTheDestructor) {
    const std::string model = forgedModel("movenet_192x192");
    const std::string init = "initializeFromModelPath: ";
    const std::string noDevice = init + "Failed to get device by name . ";
    // A SLICE whose constant begin points far outside its input (found by fuzzing).
    // An SSD post-processing operator that writes over the scores tensor it reads.
    const std::string writtenTwice = std::string(STEMLIB_SOURCE_DIR) +
                                     "/tests/fuzz/corpus/larod_model/tensor-written-twice.tflite";
    const std::string sliceOutside =
        std::string(STEMLIB_SOURCE_DIR) +
        "/tests/fuzz/corpus/larod_model/slice-begin-far-outside.tflite";
    // The tear-down after each failure, growing with what the start acquired.
    std::vector<std::string> nothing = {"larodDestroyJobRequest null", "larodDestroyTensors null",
                                        "larodDestroyTensors null",    "larodDeleteModel null",
                                        "larodDestroyModel null",      "larodDisconnect null"};
    std::vector<std::string> connected = nothing;
    connected[5] = "larodDisconnect";
    std::vector<std::string> modelLoaded = connected;
    modelLoaded[3] = "larodDeleteModel";
    modelLoaded[4] = "larodDestroyModel";
    std::vector<std::string> inputsMade = modelLoaded;
    inputsMade[1] = "larodDestroyTensors inputs";
    std::vector<std::string> tensorsMade = inputsMade;
    tensorsMade[2] = "larodDestroyTensors outputs";
    std::vector<std::string> filesMade = tensorsMade;
    filesMade[1] += ", files closed";
    filesMade[2] += ", files closed";
    const struct {
        const char* devices;     // the host camera's larod.devices, or null for its default
        const char* failingCall; // made to fail with "injected"
        const char* deviceName;
        std::string modelPath;
        std::string logged; // the error lines; the last one's text is thrown
        const std::vector<std::string>& teardown;
    } cases[] = {
        {nullptr, "larodConnect", "", model, init + "Failed to create larod connection. injected",
         nothing},
        {nullptr, "", "", "/nonexistent/model.tflite",
         init + "Failed to open model file /nonexistent/model.tflite. No such file or directory",
         connected},
        {nullptr, "", "nonexistent-tflite", model,
         "getDeviceByName: No suitable device found for input device name: nonexistent-tflite\n" +
             init + "Failed to get device by name nonexistent-tflite. ",
         connected},
        {"cpu-tflite", "", "", model,
         "getDefaultDeviceName: No suitable device found\ngetDeviceByName: No suitable device "
         "found for input device name: \n" +
             noDevice,
         connected},
        {"", "", "", model,
         "getDefaultDeviceName: No devices found\ngetDeviceByName: No devices found\n" + noDevice,
         connected},
        {nullptr, "larodListDevices", "", model,
         "logDevices: Unable to larodListDevices: injected\ngetDefaultDeviceName: Unable to "
         "larodListDevices: injected\ngetDeviceByName: Unable to larodListDevices: injected\n" +
             noDevice,
         connected},
        {nullptr, "larodLoadModel", "", model,
         init + "Failed to load model " + model + ". injected", connected},
        // Models that the service itself refuses.
        {nullptr, "", "", __FILE__,
         init + "Failed to load model " + __FILE__ + ". the file \"" + __FILE__ +
             "\" is not a valid TensorFlow Lite model",
         connected},
        {nullptr, "", "", sliceOutside,
         init + "Failed to load model " + sliceOutside + ". the file \"" + sliceOutside +
             "\" is not a valid TensorFlow Lite model: operator 1 (SLICE) reads outside its input",
         connected},
        {nullptr, "", "", writtenTwice,
         init + "Failed to load model " + writtenTwice + ". the file \"" + writtenTwice +
             "\" is not a valid TensorFlow Lite model: tensor 14 is written by operator 7 and "
             "by operator 6",
         connected},
        {"cpu-proc", "", "cpu-proc", model,
         init + "Failed to load model " + model +
             ". device \"cpu-proc\" does not run TensorFlow Lite models",
         connected},
        {nullptr, "larodCreateModelInputs", "", model,
         init + "Failed to create model input tensor array. injected", modelLoaded},
        {nullptr, "larodCreateModelOutputs", "", model,
         init + "Failed to create model output tensor array. injected", inputsMade},
        {nullptr, "larodGetTensorDims", "", model,
         init + "Failed to get the input tensor's height and width. injected", tensorsMade},
        {nullptr, "larodSetTensorFd", "", model,
         "bindTensorToFile: Failed to set tensor file descriptor for Input Image. injected",
         tensorsMade},
        {nullptr, "larodCreateJobRequest", "", model,
         init + "Failed to create larod job request. injected", filesMade},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.logged);
        HostCameraScope camera(c.devices ? std::string("larod.devices = ") + c.devices + "\n" : "");
        if (*c.failingCall != '\0') {
            stemlib_host_set_failure(c.failingCall, "injected");
        }
        RecordingLogger logger;
        ScopedLogger scope(logger);
        stemlib_host_larod_clear_log();
        {
            MovenetSession session(c.deviceName, c.modelPath);
            try {
                session.initialize();
                ADD_FAILURE() << "no exception";
            } catch (const std::runtime_error& e) {
                const std::string last = c.logged.substr(c.logged.rfind('\n') + 1);
                EXPECT_EQ(e.what(), last.substr(last.find(": ") + 2));
            }
            EXPECT_EQ(joined(linesAt(logger, "error")), c.logged);
            stemlib_host_clear_failures();
        }
        EXPECT_EQ(larodCallLog(kReleaseCalls), c.teardown);
    }

    // A throw from a MemoryMappedFile passes straight through.
    MovenetSession session("", model, "/nonexistent-directory/larod.in0-XXXXXX");
    EXPECT_THROW(session.initialize(), const char*);
}

TEST(LarodDetectorBase, SharesTheSessionUnderItsOwnName) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    {
        LarodObjectDetector detector("unused.tflite");
        // The entry for a protected model needs what the protection step leaves: a readable
        // model.
        EXPECT_FALSE(detector.initialize("/nonexistent/protected.tflite"));
        EXPECT_EQ(linesAt(logger, "error"),
                  std::vector<std::string>{"initialize: Failed to decrypt model file"});
        EXPECT_TRUE(detector.initialize(forgedModel("detector_raw_300x300")));
        EXPECT_EQ(detector.getInputResolution(), Resolution(300, 300));
        EXPECT_TRUE(linesOf(logger, {"logDevices"}).empty()) << "no device list after connecting";
    }

    // A model without the detector's four outputs is refused while binding.
    logger.lines.clear();
    LarodObjectDetector detector(forgedModel("movenet_192x192"));
    const std::string text =
        "The model has 1 input and 1 output tensors; LarodObjectDetector binds 1 and 4.";
    try {
        detector.initialize();
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(e.what(), text);
    }
    EXPECT_EQ(linesAt(logger, "error"), std::vector<std::string>{"bindTensorsToFiles: " + text});
}

} // namespace

#endif
