// The session logic shared by LarodModelBase and LarodDetectorBase<T>: start sequence, device
// choice, tensor binding and the fixed tear-down order, written once and applied to the handle
// fields of either class. Private to the library.
#pragma once

#include "MemoryMappedFile.h"

#include <larod.h>

#include <functional>
#include <memory>
#include <string>

namespace Ombrel {
namespace detail {

// The session fields of a session class, by reference.
struct LarodSessionFields {
    std::string& deviceName;
    larodConnection*& connection;
    larodModel*& model;
    larodJobRequest*& jobRequest;
    larodTensor**& inputTensors;
    std::size_t& numInputTensors;
    larodTensor**& outputTensors;
    std::size_t& numOutputTensors;
};

// The message of a larod error, empty when none was set.
std::string larodMessage(const larodError* error);

// The start sequence. Stores the model's input size in width and height before binding, so
// that bindTensorsToFiles can size its files. Throws std::runtime_error on any failure, after
// logging it at error level under "initializeFromModelPath".
void startLarodSession(const LarodSessionFields& fields, const std::string& modelPath,
                       bool logDevicesAfterConnecting, unsigned int& width, unsigned int& height,
                       const std::function<void()>& bindTensorsToFiles);

// The fixed tear-down order; destructorName is "~LarodModelBase" or "~LarodDetectorBase".
void endLarodSession(const LarodSessionFields& fields, const std::string& destructorName,
                     const std::string& className);

std::string getDefaultLarodDeviceName(larodConnection* connection);
const larodDevice* getLarodDeviceByName(larodConnection* connection, const std::string& deviceName);
void logLarodDevices(larodConnection* connection);
void bindLarodTensorToFile(larodTensor* tensor, const std::unique_ptr<MemoryMappedFile>& pMMFile,
                           const std::string& tensorName);

// Runs the session's job; on failure logs "Unable to run inference: " and the larod message at
// error level under functionName ("detect") and returns false.
bool runLarodJob(larodConnection* connection, const larodJobRequest* jobRequest,
                 const std::string& functionName);

// Height (dimension index 1) and width (index 2) of a tensor laid out as batch, height, width,
// channels. False, with an error line under functionName, when the service gives no dimensions
// or fewer than three.
bool getLarodTensorSize(const larodTensor* tensor, const std::string& functionName,
                        unsigned int& width, unsigned int& height);

} // namespace detail
} // namespace Ombrel
