// LarodDetectorBase<T>: a detector whose model runs on the inference service.
//
// The session is that of LarodModelBase: initialize() connects, loads the model on the chosen
// device (the one named at construction, or by default the first accelerator the service
// lists), creates the tensors, reads the picture size from input tensor 0 into
// _inputResolution, has the concrete detector bind every tensor to a MemoryMappedFile and builds
// the one job request that every detect reuses. Failures throw std::runtime_error after an error
// line. The destructor releases the session in a fixed order: job request, input tensors, output
// tensors, the model in the service, the model handle, the connection.
//
// Instantiated for ObjectDetection and for PoseDetectionBase<BodypixBodyPart> only.
//
// Ownership: the tensor arrays belong to the larod client library; a concrete detector owns its
// MemoryMappedFile objects, which are destroyed before this base's destructor runs. No lock: one
// thread at a time.
#pragma once

#include "Detector.h"
#include "MemoryMappedFile.h"

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>

typedef struct larodConnection larodConnection;
typedef struct larodDevice larodDevice;
typedef struct larodModel larodModel;
typedef struct larodTensor larodTensor;
typedef struct larodJobRequest larodJobRequest;

namespace Ombrel {

template <typename T>
class LarodDetectorBase : public Detector<T> {
public:
    using typename Detector<T>::Detections;

    // An empty deviceName chooses the default device at initialize().
    LarodDetectorBase(const std::string& theModelPath, const std::string& deviceName);
    ~LarodDetectorBase() override;

    LarodDetectorBase(const LarodDetectorBase&) = delete;
    LarodDetectorBase& operator=(const LarodDetectorBase&) = delete;

    // initializeFromModelPath(_modelPath).
    virtual bool initialize();
    // The entry for a protected model: the protection step must leave a readable model at path
    // (otherwise "Failed to decrypt model file" is logged and the result is false), which is then
    // loaded as initializeFromModelPath(path) does.
    virtual bool initialize(const std::string& path);
    // The start sequence: true on success; throws std::runtime_error on any failure.
    bool initializeFromModelPath(const std::string& modelPath);

    // Hands the file's descriptor to the tensor; throws std::runtime_error on failure.
    void bindTensorToFile(larodTensor* tensor, std::unique_ptr<MemoryMappedFile>& pMMFile,
                          const std::string& tensorName);
    // Creates the concrete detector's files and binds them to the tensors.
    virtual void bindTensorsToFiles() = 0;

    std::string getDefaultDeviceName() const;
    const larodDevice* getDeviceByName(const std::string& deviceName) const;
    void logDevices() const;

    const std::string& getModelPath() const { return this->_modelPath; }
    const std::string& getDeviceName() const { return _deviceName; }
    // One info line: the tensor's dimensions, data type, layout and size in bytes.
    void logTensorInfo(const larodTensor* tensor, const std::string& tensorName) const;
    // One info line with the first (at most 16) values of a tensor's data, read as its data type.
    void logTensorData(const larodTensor* tensor, const void* data,
                       const std::string& tensorName) const;

protected:
    // Throws std::runtime_error, after an error line, when the model has fewer tensors than the
    // concrete detector binds.
    void requireTensors(std::size_t numInputs, std::size_t numOutputs,
                        const std::string& detectorName) const;
    // One inference on a frame of the source: the frame of _inputResolution straight into the
    // input file, the output files rewound in the order given (the service writes at each
    // descriptor's position), then the job. False after one error line under "detect" when the
    // model is not initialized, no frame comes or the job fails.
    bool runJobOnFrame(ImageFrameSource& imageFrameSource,
                       const std::unique_ptr<MemoryMappedFile>& inputFile,
                       std::initializer_list<MemoryMappedFile*> outputFiles);

    std::string _deviceName;
    larodConnection* _larodConnection;
    larodModel* _larodModel;
    larodJobRequest* _larodJobRequest;
    larodTensor** _larodInputTensorArray;
    std::size_t _numInputTensors;
    larodTensor** _larodOutputTensorArray;
    std::size_t _numOutputTensors;
    std::string _preparedModelPath; // where the protection step left the model
};

} // namespace Ombrel
