// LarodModelBase: a session on the inference service for one model, with no detector behind it.
//
// initialize() connects to the service, logs its devices, loads the model on the chosen device
// (the one named at construction, or by default the first accelerator the service lists), creates
// the model's tensors, reads the picture size from input tensor 0 (batch, height, width,
// channels), has the derived class bind every tensor to a MemoryMappedFile and builds the one
// job request that serves every later inference. Any failure throws std::runtime_error after an
// error line; what was acquired stays for the destructor, which releases the session in a fixed
// order: job request, input tensors, output tensors, the model in the service, the model handle,
// the connection.
//
// Ownership: the tensor arrays belong to the larod client library and are released through it;
// a derived class owns its MemoryMappedFile objects, which are destroyed before this base's
// destructor runs. No lock: a session serves one thread at a time.
#pragma once

#include "MemoryMappedFile.h"

#include <cstddef>
#include <memory>
#include <string>

typedef struct larodConnection larodConnection;
typedef struct larodDevice larodDevice;
typedef struct larodModel larodModel;
typedef struct larodTensor larodTensor;
typedef struct larodJobRequest larodJobRequest;

namespace Ombrel {

class LarodModelBase {
public:
    // An empty deviceName chooses the default device at initialize().
    LarodModelBase(const std::string& theModelPath, const std::string& deviceName);
    virtual ~LarodModelBase();

    LarodModelBase(const LarodModelBase&) = delete;
    LarodModelBase& operator=(const LarodModelBase&) = delete;

    // initializeFromModelPath(_modelPath).
    virtual bool initialize();
    // The start sequence: true on success; throws std::runtime_error on any failure.
    bool initializeFromModelPath(const std::string& modelPath);

    // Hands the file's descriptor to the tensor; throws std::runtime_error on failure.
    void bindTensorToFile(larodTensor* tensor, std::unique_ptr<MemoryMappedFile>& pMMFile,
                          const std::string& tensorName);
    // Creates the derived class's files and binds them to the tensors.
    virtual void bindTensorsToFiles() = 0;

    // The first of "google-edge-tpu-tflite", "axis-a8-dlpu-tflite" and "a9-dlpu-tflite" in the
    // service's list; empty, with an error line, when there is none.
    std::string getDefaultDeviceName() const;
    // The device of that exact name; null, with an error line, when there is none.
    const larodDevice* getDeviceByName(const std::string& deviceName) const;
    // One info line with the count, then one per device.
    void logDevices() const;

    const std::string& getModelPath() const { return _modelPath; }
    const std::string& getDeviceName() const { return _deviceName; }
    // 0 until a model is loaded.
    unsigned int getInputWidth() const { return _inputWidth; }
    unsigned int getInputHeight() const { return _inputHeight; }

protected:
    std::string _modelPath;
    unsigned int _inputWidth;
    unsigned int _inputHeight;
    std::string _deviceName;
    larodConnection* _larodConnection;
    larodModel* _larodModel;
    larodJobRequest* _larodJobRequest;
    larodTensor** _larodInputTensorArray;
    std::size_t _numInputTensors;
    larodTensor** _larodOutputTensorArray;
    std::size_t _numOutputTensors;
};

} // namespace Ombrel
