#include "LarodSession.h"

#include "Points.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <stdexcept>

namespace Ombrel {
namespace detail {

namespace {

// The three accelerators a session picks by default, with equal standing: the service's order
// alone decides among them.
const char* const kDefaultDevices[] = {"google-edge-tpu-tflite", "axis-a8-dlpu-tflite",
                                       "a9-dlpu-tflite"};

// Takes the message out of a larod error and releases it.
std::string takeMessage(larodError*& error) {
    std::string message = larodMessage(error);
    if (error != nullptr) {
        larodClearError(&error);
    }
    return message;
}

[[noreturn]] void failStart(const std::string& text) {
    g_stemlibLogger.error("initializeFromModelPath: " + text);
    throw std::runtime_error(text);
}

} // namespace

std::string larodMessage(const larodError* error) {
    return error != nullptr && error->msg != nullptr ? std::string(error->msg) : std::string();
}

void logLarodDevices(larodConnection* connection) {
    larodError* error = nullptr;
    std::size_t numDevices = 0;
    const larodDevice** devices = larodListDevices(connection, &numDevices, &error);
    if (devices == nullptr) {
        g_stemlibLogger.error("logDevices: Unable to larodListDevices: " + takeMessage(error));
        return;
    }
    g_stemlibLogger.info("logDevices: Found " + std::to_string(numDevices) + " devices");
    for (std::size_t i = 0; i < numDevices; ++i) {
        const char* name = larodGetDeviceName(devices[i], &error);
        g_stemlibLogger.info(std::string("logDevices: Device: ") +
                             (name != nullptr ? name : takeMessage(error).c_str()));
    }
}

namespace {

// The service's devices for a lookup by functionName; null, after an error line, when the list
// fails or is empty.
const larodDevice** listDevices(larodConnection* connection, const std::string& functionName,
                                std::size_t& numDevices) {
    larodError* error = nullptr;
    const larodDevice** devices = larodListDevices(connection, &numDevices, &error);
    if (devices == nullptr) {
        g_stemlibLogger.error(functionName + ": Unable to larodListDevices: " + takeMessage(error));
        return nullptr;
    }
    if (numDevices == 0) {
        g_stemlibLogger.error(functionName + ": No devices found");
        return nullptr;
    }
    return devices;
}

// The device's name; null, after an error line under functionName, when the service gives none.
const char* nameOf(const larodDevice* device, const std::string& functionName) {
    larodError* error = nullptr;
    const char* name = larodGetDeviceName(device, &error);
    if (name == nullptr) {
        g_stemlibLogger.error(functionName +
                              ": Unable to larodGetDeviceName: " + takeMessage(error));
    }
    return name;
}

} // namespace

std::string getDefaultLarodDeviceName(larodConnection* connection) {
    std::size_t numDevices = 0;
    const larodDevice** devices = listDevices(connection, "getDefaultDeviceName", numDevices);
    if (devices == nullptr) {
        return std::string();
    }
    for (std::size_t i = 0; i < numDevices; ++i) {
        const char* name = nameOf(devices[i], "getDefaultDeviceName");
        for (const char* candidate : kDefaultDevices) {
            if (name != nullptr && std::strcmp(name, candidate) == 0) {
                return name;
            }
        }
    }
    g_stemlibLogger.error("getDefaultDeviceName: No suitable device found");
    logLarodDevices(connection);
    return std::string();
}

const larodDevice* getLarodDeviceByName(larodConnection* connection,
                                        const std::string& deviceName) {
    std::size_t numDevices = 0;
    const larodDevice** devices = listDevices(connection, "getDeviceByName", numDevices);
    if (devices == nullptr) {
        return nullptr;
    }
    for (std::size_t i = 0; i < numDevices; ++i) {
        const char* name = nameOf(devices[i], "getDeviceByName");
        if (name != nullptr && deviceName == name) {
            return devices[i];
        }
    }
    g_stemlibLogger.error("getDeviceByName: No suitable device found for input device name: " +
                          deviceName);
    logLarodDevices(connection);
    return nullptr;
}

void bindLarodTensorToFile(larodTensor* tensor, const std::unique_ptr<MemoryMappedFile>& pMMFile,
                           const std::string& tensorName) {
    larodError* error = nullptr;
    std::string problem;
    if (!pMMFile) {
        problem = "no file";
    } else if (!larodSetTensorFd(tensor, pMMFile->getFileDescriptor(), &error)) {
        problem = takeMessage(error);
    } else {
        return;
    }
    const std::string text =
        "Failed to set tensor file descriptor for " + tensorName + ". " + problem;
    g_stemlibLogger.error("bindTensorToFile: " + text);
    throw std::runtime_error(text);
}

void startLarodSession(const LarodSessionFields& fields, const std::string& modelPath,
                       bool logDevicesAfterConnecting, unsigned int& width, unsigned int& height,
                       const std::function<void()>& bindTensorsToFiles) {
    larodError* error = nullptr;

    if (!larodConnect(&fields.connection, &error)) {
        std::ostringstream text;
        text << "Failed to create larod connection. " << takeMessage(error);
        failStart(text.str());
    }
    if (logDevicesAfterConnecting) {
        logLarodDevices(fields.connection);
    }

    // The descriptor stays open: the service may read the model through it for as long as the
    // model lives.
    const int modelFd = open(modelPath.c_str(), O_RDONLY);
    if (modelFd < 0) {
        std::ostringstream text;
        text << "Failed to open model file " << modelPath << ". " << std::strerror(errno);
        failStart(text.str());
    }

    if (fields.deviceName.empty()) {
        fields.deviceName = getDefaultLarodDeviceName(fields.connection);
    }
    const larodDevice* device = getLarodDeviceByName(fields.connection, fields.deviceName);
    if (device == nullptr) {
        // The device lookup keeps its own error, so this one is unset here.
        std::ostringstream text;
        text << "Failed to get device by name " << fields.deviceName << ". " << takeMessage(error);
        failStart(text.str());
    }

    fields.model = larodLoadModel(fields.connection, modelFd, device, LAROD_ACCESS_PRIVATE,
                                  modelPath.c_str(), nullptr, &error);
    if (fields.model == nullptr) {
        std::ostringstream text;
        text << "Failed to load model " << modelPath << ". " << takeMessage(error);
        failStart(text.str());
    }

    fields.inputTensors = larodCreateModelInputs(fields.model, &fields.numInputTensors, &error);
    if (fields.inputTensors == nullptr) {
        std::ostringstream text;
        text << "Failed to create model input tensor array. " << takeMessage(error);
        failStart(text.str());
    }
    fields.outputTensors = larodCreateModelOutputs(fields.model, &fields.numOutputTensors, &error);
    if (fields.outputTensors == nullptr) {
        std::ostringstream text;
        text << "Failed to create model output tensor array. " << takeMessage(error);
        failStart(text.str());
    }

    // Input 0 is a picture: batch, height, width, channels.
    if (fields.numInputTensors == 0) {
        failStart("The model has no input tensor.");
    }
    const larodTensorDims* dims = larodGetTensorDims(fields.inputTensors[0], &error);
    if (dims == nullptr || dims->len < 3) {
        std::ostringstream text;
        text << "Failed to get the input tensor's height and width. "
             << (dims == nullptr ? takeMessage(error) : std::to_string(dims->len) + " dimensions");
        failStart(text.str());
    }
    // Each detector maps 3 x width x height bytes for the picture.
    if (dims->dims[1] == 0 || dims->dims[2] == 0 ||
        dims->dims[2] > static_cast<std::size_t>(INT_MAX) / 3 / dims->dims[1]) {
        std::ostringstream text;
        text << "Model input size " << dims->dims[2] << "x" << dims->dims[1] << " is not usable.";
        failStart(text.str());
    }
    height = static_cast<unsigned int>(dims->dims[1]);
    width = static_cast<unsigned int>(dims->dims[2]);
    g_stemlibLogger.info("initializeFromModelPath: Model size (WxH): " + std::to_string(width) +
                         "x" + std::to_string(height));

    bindTensorsToFiles();

    fields.jobRequest =
        larodCreateJobRequest(fields.model, fields.inputTensors, fields.numInputTensors,
                              fields.outputTensors, fields.numOutputTensors, nullptr, &error);
    if (fields.jobRequest == nullptr) {
        std::ostringstream text;
        text << "Failed to create larod job request. " << takeMessage(error);
        failStart(text.str());
    }
    g_stemlibLogger.info("initializeFromModelPath: Model loaded successfully");
}

void endLarodSession(const LarodSessionFields& fields, const std::string& destructorName,
                     const std::string& className) {
    g_stemlibLogger.info(destructorName + ": " + className + " destructor called.");
    larodError* error = nullptr;
    larodDestroyJobRequest(&fields.jobRequest);
    // Failures to release the tensors are of no consequence here.
    larodDestroyTensors(fields.connection, &fields.inputTensors, fields.numInputTensors, &error);
    if (error != nullptr) {
        larodClearError(&error);
    }
    larodDestroyTensors(fields.connection, &fields.outputTensors, fields.numOutputTensors, &error);
    if (error != nullptr) {
        larodClearError(&error);
    }
    if (!larodDeleteModel(fields.connection, fields.model, &error)) {
        g_stemlibLogger.error(destructorName +
                              ": Failed to delete larod model: " + larodMessage(error));
        larodClearError(&error);
    }
    larodDestroyModel(&fields.model);
    if (!larodDisconnect(&fields.connection, &error)) {
        g_stemlibLogger.error(destructorName +
                              ": Failed to disconnect from larod: " + larodMessage(error));
        larodClearError(&error);
    }
}

bool runLarodJob(larodConnection* connection, const larodJobRequest* jobRequest,
                 const std::string& functionName) {
    larodError* error = nullptr;
    if (!larodRunJob(connection, jobRequest, &error)) {
        g_stemlibLogger.error(functionName + ": Unable to run inference: " + takeMessage(error));
        return false;
    }
    return true;
}

bool getLarodTensorSize(const larodTensor* tensor, const std::string& functionName,
                        unsigned int& width, unsigned int& height) {
    larodError* error = nullptr;
    const larodTensorDims* dims = larodGetTensorDims(tensor, &error);
    if (dims == nullptr) {
        g_stemlibLogger.error(functionName +
                              ": Unable to get tensor dimensions: " + takeMessage(error));
        return false;
    }
    if (dims->len < 3) {
        g_stemlibLogger.error(functionName + ": Tensor has " + std::to_string(dims->len) +
                              " dimensions, expected batch, height, width and channels");
        return false;
    }
    height = detail::truncateTo<unsigned int>(static_cast<double>(dims->dims[1]));
    width = detail::truncateTo<unsigned int>(static_cast<double>(dims->dims[2]));
    return true;
}

} // namespace detail
} // namespace Ombrel
