// The host inference service (liblarod on TensorFlow Lite) as a client of the camera SDK's C API
// sees it: devices, model loading, the descriptor exchange of a job, and fault injection. The
// library's own use of it, with tensor descriptions and the call log, is in test_larod_session
// and the detectors' tests.
#include "HostInference.h"

#ifdef STEMLIB_TEST_HOST_LAROD

#include <larod.h>

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

    larodModel* load(const std::string& name, const char* device = "cpu-tflite") {
        ScopedFd fd(open(forgedModel(name).c_str(), O_RDONLY));
        return larodLoadModel(conn, fd.get(), larodGetDevice(conn, device, 0, nullptr),
                              LAROD_ACCESS_PRIVATE, name.c_str(), nullptr, &error);
    }
    void loadWithTensors(const std::string& name) {
        model = load(name);
        ASSERT_NE(model, nullptr) << message();
        inputs = larodCreateModelInputs(model, &numInputs, &error);
        outputs = larodCreateModelOutputs(model, &numOutputs, &error);
        ASSERT_NE(outputs, nullptr);
    }
    // Binds the first input and output and makes the job request.
    void bind(int input, int output) {
        ASSERT_TRUE(larodSetTensorFd(inputs[0], input, nullptr));
        ASSERT_TRUE(larodSetTensorFd(outputs[0], output, nullptr));
        job = larodCreateJobRequest(model, inputs, 1, outputs, 1, nullptr, &error);
        ASSERT_NE(job, nullptr);
    }
    std::string message() const { return error != nullptr ? error->msg : "(no error)"; }
    int code() const { return error != nullptr ? error->code : LAROD_ERROR_NONE; }
};

std::vector<std::uint8_t> pattern(size_t size, unsigned seed) {
    std::vector<std::uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>((i * 31 + seed) % 251);
    }
    return bytes;
}

// The MoveNet pass-through model's 51 float outputs for a picture, as bytes: its first 51
// bytes over 256.
std::vector<std::uint8_t> movenetOutput(const std::vector<std::uint8_t>& picture) {
    std::vector<std::uint8_t> bytes(204);
    for (size_t i = 0; i < 51; ++i) {
        const float value = static_cast<float>(picture[i]) / 256.0f;
        std::memcpy(&bytes[4 * i], &value, 4);
    }
    return bytes;
}

std::vector<std::uint8_t> fileBytes(int fd) {
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(lseek(fd, 0, SEEK_END)));
    EXPECT_EQ(pread(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    return bytes;
}

TEST(HostInferenceService, ListsTheDevicesOfTheHostCameraInItsOrder) {
    const struct {
        const char* description;
        std::vector<std::string> names;
    } cases[] = {
        {"", {"cpu-tflite", "a9-dlpu-tflite"}},
        {"larod.devices = google-edge-tpu-tflite, cpu-proc, cpu-tflite, cpu-tflite\n",
         {"google-edge-tpu-tflite", "cpu-proc", "cpu-tflite", "cpu-tflite"}},
        {"larod.devices =\n", {}},
    };
    for (const auto& c : cases) {
        HostCameraScope camera(c.description);
        Client client;
        size_t count = 99;
        const larodDevice** devices = larodListDevices(client.conn, &count, nullptr);
        ASSERT_NE(devices, nullptr);
        std::vector<std::string> names;
        for (size_t i = 0; i < count; ++i) {
            names.push_back(larodGetDeviceName(devices[i], nullptr));
        }
        EXPECT_EQ(names, c.names);
    }
}

TEST(HostInferenceService, RefusesModelsItCannotRun) {
    HostCameraScope camera("larod.devices = cpu-tflite, cpu-proc\n");
    Client client;
    EXPECT_EQ(client.load("movenet_192x192", "cpu-proc"), nullptr);
    EXPECT_EQ(client.message(), "device \"cpu-proc\" does not run TensorFlow Lite models");

    const larodDevice* cpu = larodGetDevice(client.conn, "cpu-tflite", 0, nullptr);
    Client other;
    const larodDevice* foreign = larodGetDevice(other.conn, "cpu-tflite", 0, nullptr);
    ScopedFd garbage(anonymousFile(pattern(4000, 7)));
    ScopedFd empty(anonymousFile({}));
    ScopedFd model(open(forgedModel("movenet_192x192").c_str(), O_RDONLY));
    const struct {
        int fd;
        const larodDevice* device;
        int code;
        std::string message;
    } cases[] = {
        {garbage.get(), cpu, LAROD_ERROR_LOAD_MODEL,
         "the file \"m\" is not a valid TensorFlow Lite model"},
        {empty.get(), cpu, LAROD_ERROR_LOAD_MODEL, "the model file is empty"},
        {-1, cpu, LAROD_ERROR_FD, "invalid model file descriptor"},
        {model.get(), foreign, LAROD_ERROR_INVALID_CHIP_ID,
         "the device does not belong to this connection"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(larodLoadModel(client.conn, c.fd, c.device, LAROD_ACCESS_PRIVATE, "m", nullptr,
                                 &client.error),
                  nullptr);
        EXPECT_EQ(client.code(), c.code);
        EXPECT_EQ(client.message(), c.message);
    }
}

TEST(HostInferenceService, ReadsInputsAtOffsetZeroAndWritesOutputsAtThePosition) {
    Client client;
    client.loadWithTensors("movenet_192x192");
    const std::vector<std::uint8_t> picture = pattern(192 * 192 * 3, 1);
    const std::vector<std::uint8_t> secondPicture = pattern(picture.size(), 2);
    ScopedFd input(anonymousFile(picture));
    ScopedFd output(anonymousFile({}));
    client.bind(input.get(), output.get());
    const larodTensorPitches* pitches = larodGetTensorPitches(client.inputs[0], nullptr);
    EXPECT_EQ(std::vector<size_t>(pitches->pitches, pitches->pitches + pitches->len),
              (std::vector<size_t>{110592, 110592, 576, 3}));

    // The input's position is neither used nor moved.
    lseek(input.get(), 1000, SEEK_SET);
    ASSERT_TRUE(larodRunJob(client.conn, client.job, &client.error)) << client.message();
    EXPECT_EQ(lseek(input.get(), 0, SEEK_CUR), 1000);
    EXPECT_EQ(lseek(output.get(), 0, SEEK_CUR), 204);
    EXPECT_EQ(fileBytes(output.get()), movenetOutput(picture));

    // Without a rewind the next result lands behind the first one; after a rewind it
    // overwrites it.
    ASSERT_EQ(pwrite(input.get(), secondPicture.data(), secondPicture.size(), 0),
              static_cast<ssize_t>(secondPicture.size()));
    lseek(output.get(), 204, SEEK_SET);
    ASSERT_TRUE(larodRunJob(client.conn, client.job, &client.error));
    std::vector<std::uint8_t> both = movenetOutput(picture);
    const std::vector<std::uint8_t> second = movenetOutput(secondPicture);
    both.insert(both.end(), second.begin(), second.end());
    EXPECT_EQ(fileBytes(output.get()), both);
    lseek(output.get(), 0, SEEK_SET);
    ASSERT_TRUE(larodRunJob(client.conn, client.job, &client.error));
    both = fileBytes(output.get());
    EXPECT_EQ(std::vector<std::uint8_t>(both.begin(), both.begin() + 204), second);

    // The log tells whether the files bound to released tensors are still open.
    stemlib_host_larod_clear_log();
    larodDestroyTensors(client.conn, &client.outputs, client.numOutputs, nullptr);
    EXPECT_EQ(larodCallLog({"larodDestroyTensors"}),
              std::vector<std::string>{"larodDestroyTensors outputs, files open"});
}

TEST(HostInferenceService, RejectsJobsItCannotRun) {
    Client client;
    client.loadWithTensors("movenet_192x192");
    ScopedFd shortInput(anonymousFile(pattern(1000, 3)));
    ScopedFd output(anonymousFile({}));
    client.bind(shortInput.get(), output.get());
    EXPECT_FALSE(larodRunJob(client.conn, client.job, &client.error));
    EXPECT_EQ(client.code(), LAROD_ERROR_JOB);
    EXPECT_EQ(client.message(), "input tensor 0: the file holds 1000 of the tensor's 110592 bytes");

    // The request copies the tensors when it is made: a later binding does not reach it.
    ScopedFd input(anonymousFile(pattern(192 * 192 * 3, 4)));
    larodSetTensorFd(client.inputs[0], input.get(), nullptr);
    EXPECT_FALSE(larodRunJob(client.conn, client.job, &client.error));
    larodTensor** unbound = larodCreateModelOutputs(client.model, &client.numOutputs, nullptr);
    larodJobRequest* noOutput =
        larodCreateJobRequest(client.model, client.inputs, 1, unbound, 1, nullptr, &client.error);
    EXPECT_FALSE(larodRunJob(client.conn, noOutput, &client.error));
    EXPECT_EQ(client.code(), LAROD_ERROR_FD);
    EXPECT_EQ(client.message(), "output tensor 0 has no file descriptor");
    larodDestroyJobRequest(&noOutput);
    larodDestroyTensors(client.conn, &unbound, client.numOutputs, nullptr);
}

// The library's tests make the other calls fail through the library itself.
TEST(HostInferenceService, FailsAnyCallOnRequest) {
    HostCameraScope camera; // clears the requested failures at the end
    Client client;
    client.loadWithTensors("movenet_192x192");
    const larodDevice* cpu = larodGetDevice(client.conn, "cpu-tflite", 0, nullptr);
    size_t n = 0;
    larodTensor** spare = nullptr;
    // Each call, true when it reported success.
    const std::vector<std::pair<const char*, std::function<bool(larodError**)>>> calls = {
        {"larodGetDevice",
         [&](larodError** e) { return larodGetDevice(client.conn, "cpu-tflite", 0, e); }},
        {"larodGetDeviceName", [&](larodError** e) { return larodGetDeviceName(cpu, e); }},
        // A release reports the failure and releases all the same.
        {"larodDestroyTensors",
         [&](larodError** e) {
             spare = larodCreateModelInputs(client.model, &n, nullptr);
             const bool released = larodDestroyTensors(client.conn, &spare, n, e);
             EXPECT_EQ(spare, nullptr);
             return released;
         }},
    };
    for (const auto& [call, run] : calls) {
        const std::string message = std::string("injected ") + call;
        stemlib_host_set_failure(call, message.c_str());
        larodError* error = nullptr;
        EXPECT_FALSE(run(&error)) << call;
        ASSERT_NE(error, nullptr) << call;
        EXPECT_EQ(std::string(error->msg), message);
        larodClearError(&error);
        EXPECT_EQ(error, nullptr);
        stemlib_host_set_failure(call, nullptr);
    }

    // A failure after a number of successful calls; an error left uncleared is replaced.
    stemlib_host_set_failure_after("larodGetDeviceName", 1, "second call");
    EXPECT_NE(larodGetDeviceName(cpu, nullptr), nullptr);
    larodError* error = nullptr;
    EXPECT_EQ(larodGetDeviceName(cpu, &error), nullptr);
    EXPECT_EQ(larodGetDeviceName(cpu, &error), nullptr);
    EXPECT_STREQ(error->msg, "second call");
    larodClearError(&error);
}

} // namespace

#endif
