#include "Application.h"

namespace Ombrel {

ApplicationBase::ApplicationBase(const std::string& appName, const std::string& configFilePath)
    : _appName(appName), _configFilePath(configFilePath) {}

ApplicationBase::~ApplicationBase() = default;

void ApplicationBase::run() {}

bool ApplicationBase::initialize() {
    _isInitialized = true;
    return _isInitialized;
}

bool ApplicationBase::_canRunAnalysis() const {
    return true;
}

} // namespace Ombrel
