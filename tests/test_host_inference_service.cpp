// The host inference service (liblarod on TensorFlow Lite) as a client of the camera SDK's C API
// sees it: devices, model loading, tensor descriptions, the descriptor exchange of a job, fault
// injection and the call log.
#include "HostInference.h"

#ifdef STEMLIB_TEST_HOST_LAROD

#include "ForgedModels.h"

#include <larod.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>

namespace {

using namespace StemlibTest;

// Releases whatever a test acquired from the service, in the camera's tear-down order.
struct Client {
    larodConnection* conn = nullptr;
    larodModel* model = nullptr;
    larodTensor** inputs = nullptr;
    size_t numInputs = 0;
    larodTensor** outputs = nullptr;
    size_t numOutputs = 0;
    larodJobRequest* job = nullptr;
    larodError* error = nullptr;

    Client() { EXPECT_TRUE(larodConnect(&conn, &error)); }
    ~Client() {
        larodDestroyJobRequest(&job);
        larodDestroyTensors(conn, &inputs, numInputs, nullptr);
        larodDestroyTensors(conn, &outputs, numOutputs, nullptr);
        larodDeleteModel(conn, model, nullptr);
        larodDestroyModel(&model);
        larodDisconnect(&conn, nullptr);
        larodClearError(&error);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    std::vector<std::string> deviceNames() {
        size_t count = 0;
        const larodDevice** devices = larodListDevices(conn, &count, &error);
        EXPECT_NE(devices, nullptr);
        std::vector<std::string> names;
        for (size_t i = 0; devices != nullptr && i < count; ++i) {
            names.push_back(larodGetDeviceName(devices[i], &error));
        }
        return names;
    }

    larodModel* load(const std::string& path, const char* device = "cpu-tflite") {
        const larodDevice* dev = larodGetDevice(conn, device, 0, &error);
        EXPECT_NE(dev, nullptr) << device;
        ScopedFd fd(open(path.c_str(), O_RDONLY));
        EXPECT_GE(fd.get(), 0) << path;
        return larodLoadModel(conn, fd.get(), dev, LAROD_ACCESS_PRIVATE, path.c_str(), nullptr,
                              &error);
    }

    void loadWithTensors(const std::string& path) {
        model = load(path);
        ASSERT_NE(model, nullptr) << (error ? error->msg : "");
        inputs = larodCreateModelInputs(model, &numInputs, &error);
        outputs = larodCreateModelOutputs(model, &numOutputs, &error);
        ASSERT_NE(inputs, nullptr);
        ASSERT_NE(outputs, nullptr);
    }

    std::string message() const { return error != nullptr ? error->msg : "(no error)"; }
    int code() const { return error != nullptr ? error->code : LAROD_ERROR_NONE; }
};

std::vector<size_t> dimsOf(const larodTensor* tensor) {
    const larodTensorDims* dims = larodGetTensorDims(tensor, nullptr);
    return std::vector<size_t>(dims->dims, dims->dims + dims->len);
}

std::vector<size_t> pitchesOf(const larodTensor* tensor) {
    const larodTensorPitches* pitches = larodGetTensorPitches(tensor, nullptr);
    return std::vector<size_t>(pitches->pitches, pitches->pitches + pitches->len);
}

std::vector<float> floatsOf(const std::vector<std::uint8_t>& bytes, size_t offset, size_t count) {
    std::vector<float> values(count);
    std::memcpy(values.data(), bytes.data() + offset, count * sizeof(float));
    return values;
}

// The MoveNet pass-through model's output for a picture: the first 51 bytes, over 256.
std::vector<float> movenetOutput(const std::vector<std::uint8_t>& picture) {
    std::vector<float> values;
    for (size_t i = 0; i < 51; ++i) {
        values.push_back(static_cast<float>(picture[i]) / 256.0f);
    }
    return values;
}

std::vector<std::uint8_t> pattern(size_t size, unsigned seed) {
    std::vector<std::uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>((i * 31 + seed) % 251);
    }
    return bytes;
}

TEST(HostInferenceService, ListsTheDevicesOfTheHostCameraInItsOrder) {
    {
        Client client;
        EXPECT_EQ(client.deviceNames(), (std::vector<std::string>{"cpu-tflite", "a9-dlpu-tflite"}));
    }
    {
        HostCameraScope camera("larod.devices = google-edge-tpu-tflite, axis-a8-dlpu-tflite, "
                               "cpu-proc, cpu-tflite, cpu-tflite\n");
        Client client;
        EXPECT_EQ(client.deviceNames(),
                  (std::vector<std::string>{"google-edge-tpu-tflite", "axis-a8-dlpu-tflite",
                                            "cpu-proc", "cpu-tflite", "cpu-tflite"}));
        const larodDevice* first = larodGetDevice(client.conn, "cpu-tflite", 0, nullptr);
        const larodDevice* second = larodGetDevice(client.conn, "cpu-tflite", 1, nullptr);
        ASSERT_NE(first, nullptr);
        ASSERT_NE(second, nullptr);
        EXPECT_NE(first, second);
        EXPECT_EQ(larodGetDevice(client.conn, "cpu-tflite", 2, &client.error), nullptr);
        EXPECT_EQ(client.code(), LAROD_ERROR_INVALID_CHIP_ID);
        EXPECT_NE(client.message().find("cpu-tflite"), std::string::npos);
    }
    {
        HostCameraScope camera("larod.devices =\n");
        Client client;
        size_t count = 99;
        EXPECT_NE(larodListDevices(client.conn, &count, nullptr), nullptr);
        EXPECT_EQ(count, 0u);
    }
}

TEST(HostInferenceService, DescribesTheTensorsOfALoadedModel) {
    Client client;
    client.loadWithTensors(forgedModel("posenet_481x353"));
    EXPECT_EQ(larodGetModelNumInputs(client.model, nullptr), 1u);
    EXPECT_EQ(larodGetModelNumOutputs(client.model, nullptr), 3u);
    ASSERT_EQ(client.numInputs, 1u);
    ASSERT_EQ(client.numOutputs, 3u);

    const larodTensor* input = client.inputs[0];
    EXPECT_EQ(dimsOf(input), (std::vector<size_t>{1, 353, 481, 3}));
    EXPECT_EQ(pitchesOf(input), (std::vector<size_t>{509379, 509379, 1443, 3}));
    EXPECT_EQ(larodGetTensorDataType(input, nullptr), LAROD_TENSOR_DATA_TYPE_UINT8);
    EXPECT_EQ(larodGetTensorLayout(input, nullptr), LAROD_TENSOR_LAYOUT_NHWC);
    size_t byteSize = 0;
    EXPECT_TRUE(larodGetTensorByteSize(input, &byteSize, nullptr));
    EXPECT_EQ(byteSize, 509379u);
    EXPECT_EQ(larodGetTensorFd(input, nullptr), LAROD_INVALID_FD);

    const size_t channels[] = {17, 34, 64};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(dimsOf(client.outputs[i]), (std::vector<size_t>{1, 23, 31, channels[i]}));
        EXPECT_TRUE(larodGetTensorByteSize(client.outputs[i], &byteSize, nullptr));
        EXPECT_EQ(byteSize, 713 * channels[i]);
    }

    Client movenet;
    movenet.loadWithTensors(forgedModel("movenet_192x192"));
    const larodTensor* skeleton = movenet.outputs[0];
    EXPECT_EQ(larodGetTensorDataType(skeleton, nullptr), LAROD_TENSOR_DATA_TYPE_FLOAT32);
    EXPECT_EQ(dimsOf(skeleton), (std::vector<size_t>{1, 1, 17, 3}));
    EXPECT_EQ(pitchesOf(skeleton), (std::vector<size_t>{204, 204, 204, 12}));
}

TEST(HostInferenceService, RefusesModelsItCannotRun) {
    HostCameraScope camera("larod.devices = cpu-tflite, cpu-proc\n");
    Client client;

    EXPECT_EQ(client.load(forgedModel("movenet_192x192"), "cpu-proc"), nullptr);
    EXPECT_EQ(client.code(), LAROD_ERROR_LOAD_MODEL);
    EXPECT_NE(client.message().find("does not run TensorFlow Lite models"), std::string::npos);

    const larodDevice* cpu = larodGetDevice(client.conn, "cpu-tflite", 0, nullptr);
    ScopedFd garbage(anonymousFile(pattern(4000, 7)));
    EXPECT_EQ(larodLoadModel(client.conn, garbage.get(), cpu, LAROD_ACCESS_PRIVATE, "garbage",
                             nullptr, &client.error),
              nullptr);
    EXPECT_EQ(client.code(), LAROD_ERROR_LOAD_MODEL);
    EXPECT_NE(client.message().find("not a valid TensorFlow Lite model"), std::string::npos);

    ScopedFd empty(anonymousFile({}));
    EXPECT_EQ(larodLoadModel(client.conn, empty.get(), cpu, LAROD_ACCESS_PRIVATE, "empty", nullptr,
                             &client.error),
              nullptr);
    EXPECT_EQ(client.message(), "the model file is empty");

    EXPECT_EQ(
        larodLoadModel(client.conn, -1, cpu, LAROD_ACCESS_PRIVATE, "none", nullptr, &client.error),
        nullptr);
    EXPECT_EQ(client.code(), LAROD_ERROR_FD);

    Client other;
    const larodDevice* foreign = larodGetDevice(other.conn, "cpu-tflite", 0, nullptr);
    ScopedFd model(open(forgedModel("movenet_192x192").c_str(), O_RDONLY));
    EXPECT_EQ(larodLoadModel(client.conn, model.get(), foreign, LAROD_ACCESS_PRIVATE, "m", nullptr,
                             &client.error),
              nullptr);
    EXPECT_EQ(client.code(), LAROD_ERROR_INVALID_CHIP_ID);
}

TEST(HostInferenceService, ReadsInputsAtOffsetZeroAndWritesOutputsAtThePosition) {
    Client client;
    client.loadWithTensors(forgedModel("movenet_192x192"));
    std::vector<std::uint8_t> picture = pattern(192 * 192 * 3, 1);
    ScopedFd input(anonymousFile(picture));
    ScopedFd output(anonymousFile({}));
    ASSERT_TRUE(larodSetTensorFd(client.inputs[0], input.get(), nullptr));
    ASSERT_TRUE(larodSetTensorFd(client.outputs[0], output.get(), nullptr));
    client.job = larodCreateJobRequest(client.model, client.inputs, 1, client.outputs, 1, nullptr,
                                       &client.error);
    ASSERT_NE(client.job, nullptr);

    // The input's position is neither used nor moved.
    lseek(input.get(), 1000, SEEK_SET);
    ASSERT_TRUE(larodRunJob(client.conn, client.job, &client.error)) << client.message();
    EXPECT_EQ(lseek(input.get(), 0, SEEK_CUR), 1000);
    EXPECT_EQ(lseek(output.get(), 0, SEEK_CUR), 204);
    std::vector<std::uint8_t> written = fileBytes(output.get());
    ASSERT_EQ(written.size(), 204u);
    EXPECT_EQ(floatsOf(written, 0, 51), movenetOutput(picture));

    // Without a rewind the next result lands behind the first one.
    const std::vector<std::uint8_t> secondPicture = pattern(picture.size(), 2);
    ASSERT_EQ(pwrite(input.get(), secondPicture.data(), secondPicture.size(), 0),
              static_cast<ssize_t>(secondPicture.size()));
    lseek(output.get(), 204, SEEK_SET);
    ASSERT_TRUE(larodRunJob(client.conn, client.job, &client.error));
    written = fileBytes(output.get());
    ASSERT_EQ(written.size(), 408u);
    EXPECT_EQ(floatsOf(written, 0, 51), movenetOutput(picture));
    EXPECT_EQ(floatsOf(written, 204, 51), movenetOutput(secondPicture));

    // After a rewind it overwrites the first.
    lseek(output.get(), 0, SEEK_SET);
    ASSERT_TRUE(larodRunJob(client.conn, client.job, &client.error));
    written = fileBytes(output.get());
    EXPECT_EQ(floatsOf(written, 0, 51), movenetOutput(secondPicture));
}

TEST(HostInferenceService, RejectsJobsItCannotRun) {
    Client client;
    client.loadWithTensors(forgedModel("movenet_192x192"));
    ScopedFd shortInput(anonymousFile(pattern(1000, 3)));
    ScopedFd output(anonymousFile({}));
    ASSERT_TRUE(larodSetTensorFd(client.inputs[0], shortInput.get(), nullptr));

    // The request copies the tensors: binding the output afterwards does not reach it.
    client.job = larodCreateJobRequest(client.model, client.inputs, 1, client.outputs, 1, nullptr,
                                       &client.error);
    ASSERT_NE(client.job, nullptr);
    ASSERT_TRUE(larodSetTensorFd(client.outputs[0], output.get(), nullptr));
    EXPECT_FALSE(larodRunJob(client.conn, client.job, &client.error));
    // The input is read first, and it is too short.
    EXPECT_EQ(client.code(), LAROD_ERROR_JOB);
    EXPECT_EQ(client.message(), "input tensor 0: the file holds 1000 of the tensor's 110592 bytes");

    ScopedFd input(anonymousFile(pattern(192 * 192 * 3, 4)));
    ASSERT_TRUE(larodSetTensorFd(client.inputs[0], input.get(), nullptr));
    larodDestroyJobRequest(&client.job);
    EXPECT_EQ(client.job, nullptr);
    client.job = larodCreateJobRequest(client.model, client.inputs, 1, client.outputs, 1, nullptr,
                                       &client.error);
    EXPECT_TRUE(larodRunJob(client.conn, client.job, &client.error)) << client.message();

    larodTensor* unbound[1] = {nullptr};
    size_t count = 0;
    larodTensor** fresh = larodCreateModelOutputs(client.model, &count, nullptr);
    unbound[0] = fresh[0];
    larodJobRequest* noOutput =
        larodCreateJobRequest(client.model, client.inputs, 1, unbound, 1, nullptr, &client.error);
    EXPECT_FALSE(larodRunJob(client.conn, noOutput, &client.error));
    EXPECT_EQ(client.code(), LAROD_ERROR_FD);
    EXPECT_EQ(client.message(), "output tensor 0 has no file descriptor");
    larodDestroyJobRequest(&noOutput);
    larodDestroyTensors(client.conn, &fresh, count, nullptr);

    // Tensors of another model, or too few, do not make a request.
    Client posenet;
    posenet.loadWithTensors(forgedModel("posenet_481x353"));
    EXPECT_EQ(larodCreateJobRequest(client.model, client.inputs, 1, posenet.outputs, 1, nullptr,
                                    &client.error),
              nullptr);
    EXPECT_EQ(client.code(), LAROD_ERROR_TENSOR_MISMATCH);
    EXPECT_EQ(larodCreateJobRequest(client.model, client.inputs, 1, client.outputs, 0, nullptr,
                                    &client.error),
              nullptr);
    EXPECT_EQ(client.message(), "the model has 1 output tensors, the request 0");

    // A model deleted from the service no longer runs.
    EXPECT_TRUE(larodDeleteModel(client.conn, client.model, &client.error));
    EXPECT_FALSE(larodRunJob(client.conn, client.job, &client.error));
    EXPECT_EQ(client.code(), LAROD_ERROR_MODEL_NOT_FOUND);
    EXPECT_FALSE(larodDeleteModel(client.conn, client.model, &client.error));
    EXPECT_EQ(client.code(), LAROD_ERROR_MODEL_NOT_FOUND);
}

TEST(HostInferenceService, FailsAnyCallOnRequest) {
    FailureScope failures;
    Client client;
    client.loadWithTensors(forgedModel("movenet_192x192"));
    ScopedFd input(anonymousFile(pattern(192 * 192 * 3, 5)));
    ScopedFd output(anonymousFile({}));
    ASSERT_TRUE(larodSetTensorFd(client.inputs[0], input.get(), nullptr));
    ASSERT_TRUE(larodSetTensorFd(client.outputs[0], output.get(), nullptr));
    client.job =
        larodCreateJobRequest(client.model, client.inputs, 1, client.outputs, 1, nullptr, nullptr);
    const larodDevice* cpu = larodGetDevice(client.conn, "cpu-tflite", 0, nullptr);
    ScopedFd modelFile(open(forgedModel("movenet_192x192").c_str(), O_RDONLY));

    struct Case {
        const char* call;
        int code;
        std::function<bool(larodError**)> run; // true when the call reported success
    };
    const std::vector<Case> cases = {
        {"larodConnect", LAROD_ERROR_CONNECTION,
         [](larodError** e) {
             larodConnection* conn = nullptr;
             const bool ok = larodConnect(&conn, e);
             larodDisconnect(&conn, nullptr);
             return ok;
         }},
        {"larodListDevices", LAROD_ERROR_CONNECTION,
         [&](larodError** e) {
             size_t n = 0;
             return larodListDevices(client.conn, &n, e) != nullptr;
         }},
        {"larodGetDevice", LAROD_ERROR_INVALID_CHIP_ID,
         [&](larodError** e) {
             return larodGetDevice(client.conn, "cpu-tflite", 0, e) != nullptr;
         }},
        {"larodGetDeviceName", LAROD_ERROR_INVALID_CHIP_ID,
         [&](larodError** e) { return larodGetDeviceName(cpu, e) != nullptr; }},
        {"larodLoadModel", LAROD_ERROR_LOAD_MODEL,
         [&](larodError** e) {
             larodModel* m = larodLoadModel(client.conn, modelFile.get(), cpu, LAROD_ACCESS_PRIVATE,
                                            "m", nullptr, e);
             return m != nullptr;
         }},
        {"larodCreateModelInputs", LAROD_ERROR_ALLOC,
         [&](larodError** e) {
             size_t n = 0;
             return larodCreateModelInputs(client.model, &n, e) != nullptr;
         }},
        {"larodCreateModelOutputs", LAROD_ERROR_ALLOC,
         [&](larodError** e) {
             size_t n = 0;
             return larodCreateModelOutputs(client.model, &n, e) != nullptr;
         }},
        {"larodGetTensorDims", EINVAL,
         [&](larodError** e) { return larodGetTensorDims(client.inputs[0], e) != nullptr; }},
        {"larodSetTensorFd", LAROD_ERROR_FD,
         [&](larodError** e) { return larodSetTensorFd(client.inputs[0], input.get(), e); }},
        {"larodCreateJobRequest", LAROD_ERROR_ALLOC,
         [&](larodError** e) {
             return larodCreateJobRequest(client.model, client.inputs, 1, client.outputs, 1,
                                          nullptr, e) != nullptr;
         }},
        {"larodRunJob", LAROD_ERROR_JOB,
         [&](larodError** e) { return larodRunJob(client.conn, client.job, e); }},
        {"larodDeleteModel", LAROD_ERROR_DELETE_MODEL,
         [&](larodError** e) { return larodDeleteModel(client.conn, client.model, e); }},
    };
    for (const Case& c : cases) {
        const std::string message = std::string("injected ") + c.call;
        stemlib_host_set_failure(c.call, message.c_str());
        larodError* error = nullptr;
        EXPECT_FALSE(c.run(&error)) << c.call;
        ASSERT_NE(error, nullptr) << c.call;
        EXPECT_EQ(error->code, c.code) << c.call;
        EXPECT_EQ(std::string(error->msg), message);
        larodClearError(&error);
        EXPECT_EQ(error, nullptr);
        stemlib_host_set_failure(c.call, nullptr);
    }

    // The release calls report the failure and still release.
    stemlib_host_set_failure("larodDestroyTensors", "injected");
    size_t n = 0;
    larodTensor** spare = larodCreateModelInputs(client.model, &n, nullptr);
    larodError* error = nullptr;
    EXPECT_FALSE(larodDestroyTensors(client.conn, &spare, n, &error));
    EXPECT_EQ(spare, nullptr);
    larodClearError(&error);
    stemlib_host_set_failure("larodDisconnect", "injected");
    larodConnection* conn = nullptr;
    ASSERT_TRUE(larodConnect(&conn, nullptr));
    EXPECT_FALSE(larodDisconnect(&conn, &error));
    EXPECT_EQ(conn, nullptr);
    EXPECT_STREQ(error->msg, "injected");
    larodClearError(&error);
    stemlib_host_clear_failures();

    // A failure after a number of successful calls.
    stemlib_host_set_failure_after("larodRunJob", 1, "second job");
    EXPECT_TRUE(larodRunJob(client.conn, client.job, nullptr));
    EXPECT_FALSE(larodRunJob(client.conn, client.job, &error));
    EXPECT_STREQ(error->msg, "second job");
    larodClearError(&error);

    // An error the caller did not clear is replaced.
    EXPECT_FALSE(larodRunJob(client.conn, client.job, &error));
    EXPECT_FALSE(larodRunJob(client.conn, client.job, &error));
    larodClearError(&error);
}

TEST(HostInferenceService, RecordsTheCallsOfATearDown) {
    const std::vector<std::string> teardown = {"larodDestroyJobRequest", "larodDestroyTensors",
                                               "larodDeleteModel", "larodDestroyModel",
                                               "larodDisconnect"};
    stemlib_host_larod_clear_log();
    {
        // The input file outlives the client, the output file doesn't.
        ScopedFd input(anonymousFile(pattern(192 * 192 * 3, 6)));
        Client client;
        client.loadWithTensors(forgedModel("movenet_192x192"));
        {
            ScopedFd output(anonymousFile({}));
            larodSetTensorFd(client.inputs[0], input.get(), nullptr);
            larodSetTensorFd(client.outputs[0], output.get(), nullptr);
            client.job = larodCreateJobRequest(client.model, client.inputs, 1, client.outputs, 1,
                                               nullptr, nullptr);
            EXPECT_TRUE(larodRunJob(client.conn, client.job, nullptr));
        }
        EXPECT_EQ(larodCallLog(teardown), std::vector<std::string>{});
    }
    EXPECT_EQ(larodCallLog(teardown),
              (std::vector<std::string>{
                  "larodDestroyJobRequest", "larodDestroyTensors inputs, files open",
                  "larodDestroyTensors outputs, files closed", "larodDeleteModel",
                  "larodDestroyModel", "larodDisconnect"}));
    const std::vector<std::string> start = larodCallLog(
        {"larodConnect", "larodGetDevice", "larodLoadModel", "larodCreateModelInputs",
         "larodCreateModelOutputs", "larodSetTensorFd", "larodCreateJobRequest", "larodRunJob"});
    EXPECT_EQ(start, (std::vector<std::string>{
                         "larodConnect", "larodGetDevice cpu-tflite", "larodLoadModel cpu-tflite",
                         "larodCreateModelInputs 1", "larodCreateModelOutputs 1",
                         "larodSetTensorFd input 0", "larodSetTensorFd output 0",
                         "larodCreateJobRequest", "larodRunJob"}));

    // Null handles are accepted and noted.
    stemlib_host_larod_clear_log();
    larodJobRequest* job = nullptr;
    larodTensor** tensors = nullptr;
    larodModel* model = nullptr;
    larodConnection* conn = nullptr;
    larodDestroyJobRequest(&job);
    EXPECT_TRUE(larodDestroyTensors(conn, &tensors, 0, nullptr));
    EXPECT_TRUE(larodDeleteModel(conn, model, nullptr));
    larodDestroyModel(&model);
    EXPECT_TRUE(larodDisconnect(&conn, nullptr));
    EXPECT_EQ(larodCallLog(teardown),
              (std::vector<std::string>{"larodDestroyJobRequest null", "larodDestroyTensors null",
                                        "larodDeleteModel null", "larodDestroyModel null",
                                        "larodDisconnect null"}));
}

} // namespace

#endif
