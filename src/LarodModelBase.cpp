#include "LarodModelBase.h"

#include "LarodSession.h"

namespace Ombrel {

LarodModelBase::LarodModelBase(const std::string& theModelPath, const std::string& deviceName)
    : _modelPath(theModelPath), _inputWidth(0), _inputHeight(0), _deviceName(deviceName),
      _larodConnection(nullptr), _larodModel(nullptr), _larodJobRequest(nullptr),
      _larodInputTensorArray(nullptr), _numInputTensors(0), _larodOutputTensorArray(nullptr),
      _numOutputTensors(0) {}

LarodModelBase::~LarodModelBase() {
    detail::endLarodSession(detail::LarodSessionFields{_deviceName, _larodConnection, _larodModel,
                                                       _larodJobRequest, _larodInputTensorArray,
                                                       _numInputTensors, _larodOutputTensorArray,
                                                       _numOutputTensors},
                            "~LarodModelBase", "LarodModelBase");
}

bool LarodModelBase::initialize() {
    return initializeFromModelPath(_modelPath);
}

bool LarodModelBase::initializeFromModelPath(const std::string& modelPath) {
    detail::startLarodSession(
        detail::LarodSessionFields{_deviceName, _larodConnection, _larodModel, _larodJobRequest,
                                   _larodInputTensorArray, _numInputTensors,
                                   _larodOutputTensorArray, _numOutputTensors},
        modelPath, true, _inputWidth, _inputHeight, [this]() { bindTensorsToFiles(); });
    return true;
}

void LarodModelBase::bindTensorToFile(larodTensor* tensor,
                                      std::unique_ptr<MemoryMappedFile>& pMMFile,
                                      const std::string& tensorName) {
    detail::bindLarodTensorToFile(tensor, pMMFile, tensorName);
}

std::string LarodModelBase::getDefaultDeviceName() const {
    return detail::getDefaultLarodDeviceName(_larodConnection);
}

const larodDevice* LarodModelBase::getDeviceByName(const std::string& deviceName) const {
    return detail::getLarodDeviceByName(_larodConnection, deviceName);
}

void LarodModelBase::logDevices() const {
    detail::logLarodDevices(_larodConnection);
}

} // namespace Ombrel
