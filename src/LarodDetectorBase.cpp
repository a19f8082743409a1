#include "LarodDetectorBase.h"

#include "ImageFrameSource.h"
#include "LarodSession.h"
#include "ObjectDetection.h"
#include "Points.h"
#include "PoseBase.h"

#include <cstdint>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace Ombrel {

namespace {

const char* dataTypeName(larodTensorDataType type) {
    switch (type) {
    case LAROD_TENSOR_DATA_TYPE_BOOL:
        return "BOOL";
    case LAROD_TENSOR_DATA_TYPE_UINT8:
        return "UINT8";
    case LAROD_TENSOR_DATA_TYPE_INT8:
        return "INT8";
    case LAROD_TENSOR_DATA_TYPE_UINT16:
        return "UINT16";
    case LAROD_TENSOR_DATA_TYPE_INT16:
        return "INT16";
    case LAROD_TENSOR_DATA_TYPE_UINT32:
        return "UINT32";
    case LAROD_TENSOR_DATA_TYPE_INT32:
        return "INT32";
    case LAROD_TENSOR_DATA_TYPE_UINT64:
        return "UINT64";
    case LAROD_TENSOR_DATA_TYPE_INT64:
        return "INT64";
    case LAROD_TENSOR_DATA_TYPE_FLOAT16:
        return "FLOAT16";
    case LAROD_TENSOR_DATA_TYPE_FLOAT32:
        return "FLOAT32";
    case LAROD_TENSOR_DATA_TYPE_FLOAT64:
        return "FLOAT64";
    case LAROD_TENSOR_DATA_TYPE_UNSPECIFIED:
        return "UNSPECIFIED";
    default:
        return "INVALID";
    }
}

const char* layoutName(larodTensorLayout layout) {
    switch (layout) {
    case LAROD_TENSOR_LAYOUT_NHWC:
        return "NHWC";
    case LAROD_TENSOR_LAYOUT_NCHW:
        return "NCHW";
    case LAROD_TENSOR_LAYOUT_420SP:
        return "420SP";
    case LAROD_TENSOR_LAYOUT_UNSPECIFIED:
        return "UNSPECIFIED";
    default:
        return "INVALID";
    }
}

template <typename V>
void appendValues(std::ostringstream& os, const void* data, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        V value;
        std::memcpy(&value, static_cast<const std::uint8_t*>(data) + i * sizeof(V), sizeof(V));
        os << ' ' << +value;
    }
}

} // namespace

template <typename T>
LarodDetectorBase<T>::LarodDetectorBase(const std::string& theModelPath,
                                        const std::string& deviceName)
    : Detector<T>(theModelPath), _deviceName(deviceName), _larodConnection(nullptr),
      _larodModel(nullptr), _larodJobRequest(nullptr), _larodInputTensorArray(nullptr),
      _numInputTensors(0), _larodOutputTensorArray(nullptr), _numOutputTensors(0) {}

template <typename T>
LarodDetectorBase<T>::~LarodDetectorBase() {
    detail::endLarodSession(detail::LarodSessionFields{_deviceName, _larodConnection, _larodModel,
                                                       _larodJobRequest, _larodInputTensorArray,
                                                       _numInputTensors, _larodOutputTensorArray,
                                                       _numOutputTensors},
                            "~LarodDetectorBase", "LarodDetectorBase");
}

template <typename T>
bool LarodDetectorBase<T>::initialize() {
    return initializeFromModelPath(this->_modelPath);
}

template <typename T>
bool LarodDetectorBase<T>::initialize(const std::string& path) {
    // The protection step is the licence subsystem's; what it must leave is a readable model.
    if (access(path.c_str(), R_OK) != 0) {
        g_stemlibLogger.error("initialize: Failed to decrypt model file");
        return false;
    }
    _preparedModelPath = path;
    return initializeFromModelPath(path);
}

template <typename T>
bool LarodDetectorBase<T>::initializeFromModelPath(const std::string& modelPath) {
    detail::startLarodSession(detail::LarodSessionFields{_deviceName, _larodConnection, _larodModel,
                                                         _larodJobRequest, _larodInputTensorArray,
                                                         _numInputTensors, _larodOutputTensorArray,
                                                         _numOutputTensors},
                              modelPath, false, this->_inputResolution.width,
                              this->_inputResolution.height, [this]() { bindTensorsToFiles(); });
    return true;
}

template <typename T>
void LarodDetectorBase<T>::bindTensorToFile(larodTensor* tensor,
                                            std::unique_ptr<MemoryMappedFile>& pMMFile,
                                            const std::string& tensorName) {
    detail::bindLarodTensorToFile(tensor, pMMFile, tensorName);
}

template <typename T>
std::string LarodDetectorBase<T>::getDefaultDeviceName() const {
    return detail::getDefaultLarodDeviceName(_larodConnection);
}

template <typename T>
const larodDevice* LarodDetectorBase<T>::getDeviceByName(const std::string& deviceName) const {
    return detail::getLarodDeviceByName(_larodConnection, deviceName);
}

template <typename T>
void LarodDetectorBase<T>::logDevices() const {
    detail::logLarodDevices(_larodConnection);
}

template <typename T>
void LarodDetectorBase<T>::logTensorInfo(const larodTensor* tensor,
                                         const std::string& tensorName) const {
    larodError* error = nullptr;
    const larodTensorDims* dims = larodGetTensorDims(tensor, &error);
    if (dims == nullptr) {
        g_stemlibLogger.error("logTensorInfo: " + tensorName +
                              ": no dimensions: " + detail::larodMessage(error));
        larodClearError(&error);
        return;
    }
    std::ostringstream os;
    os << "logTensorInfo: " << tensorName << ": dims [";
    for (std::size_t i = 0; i < dims->len; ++i) {
        os << (i > 0 ? ", " : "") << dims->dims[i];
    }
    std::size_t byteSize = 0;
    larodGetTensorByteSize(tensor, &byteSize, &error);
    larodClearError(&error);
    os << "], data type " << dataTypeName(larodGetTensorDataType(tensor, nullptr)) << ", layout "
       << layoutName(larodGetTensorLayout(tensor, nullptr)) << ", " << byteSize << " bytes";
    g_stemlibLogger.info(os.str());
}

template <typename T>
void LarodDetectorBase<T>::logTensorData(const larodTensor* tensor, const void* data,
                                         const std::string& tensorName) const {
    larodError* error = nullptr;
    std::size_t byteSize = 0;
    if (data == nullptr || !larodGetTensorByteSize(tensor, &byteSize, &error)) {
        g_stemlibLogger.error("logTensorData: " + tensorName + ": no data " +
                              detail::larodMessage(error));
        larodClearError(&error);
        return;
    }
    constexpr std::size_t kMaxValues = 16;
    std::ostringstream os;
    os << "logTensorData: " << tensorName << ":";
    const larodTensorDataType type = larodGetTensorDataType(tensor, nullptr);
    switch (type) {
    case LAROD_TENSOR_DATA_TYPE_FLOAT32:
        appendValues<float>(os, data, std::min(kMaxValues, byteSize / sizeof(float)));
        break;
    case LAROD_TENSOR_DATA_TYPE_INT32:
        appendValues<std::int32_t>(os, data, std::min(kMaxValues, byteSize / 4));
        break;
    case LAROD_TENSOR_DATA_TYPE_INT8:
        appendValues<std::int8_t>(os, data, std::min(kMaxValues, byteSize));
        break;
    default:
        appendValues<std::uint8_t>(os, data, std::min(kMaxValues, byteSize));
        break;
    }
    os << " (" << byteSize << " bytes, " << dataTypeName(type) << ")";
    g_stemlibLogger.info(os.str());
}

template <typename T>
void LarodDetectorBase<T>::requireTensors(std::size_t numInputs, std::size_t numOutputs,
                                          const std::string& detectorName) const {
    if (_numInputTensors >= numInputs && _numOutputTensors >= numOutputs) {
        return;
    }
    std::ostringstream text;
    text << "The model has " << _numInputTensors << " input and " << _numOutputTensors
         << " output tensors; " << detectorName << " binds " << numInputs << " and " << numOutputs
         << ".";
    g_stemlibLogger.error("bindTensorsToFiles: " + text.str());
    throw std::runtime_error(text.str());
}

template <typename T>
bool LarodDetectorBase<T>::runJobOnFrame(ImageFrameSource& imageFrameSource,
                                         const std::unique_ptr<MemoryMappedFile>& inputFile,
                                         std::initializer_list<MemoryMappedFile*> outputFiles) {
    if (!inputFile) {
        g_stemlibLogger.error("detect: The model is not initialized");
        return false;
    }
    if (!imageFrameSource.getFrame(this->_inputResolution, 0,
                                   static_cast<uint8_t*>(inputFile->getBuffer()))) {
        g_stemlibLogger.error("detect: Unable to getFrame");
        return false;
    }
    for (MemoryMappedFile* file : outputFiles) {
        file->rewind();
    }
    return detail::runLarodJob(_larodConnection, _larodJobRequest, "detect");
}

template class LarodDetectorBase<ObjectDetection>;
template class LarodDetectorBase<PoseDetectionBase<BodypixBodyPart>>;

} // namespace Ombrel
