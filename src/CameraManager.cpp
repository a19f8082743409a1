#include "CameraManager.h"

#include "GErrorMessage.h"
#include "Points.h"

#include <axsdk/axparameter.h>
#include <vdo-channel.h>

#include <cmath>

namespace Ombrel {

namespace {

// Reads every channel's resolutions into one set; functionName heads the log lines.
ResolutionSet readChannelResolutions(const std::string& functionName) {
    ResolutionSet resolutions;
    GError* error = nullptr;
    GList* channels = vdo_channel_get_all(&error);
    if (channels == nullptr) {
        g_stemlibLogger.error(functionName + ": Failed to get all channels.");
        g_clear_error(&error);
        return resolutions;
    }
    g_stemlibLogger.info(functionName + ": Successfully got all channels.");
    for (GList* item = channels; item != nullptr; item = item->next) {
        VdoChannel* channel = static_cast<VdoChannel*>(item->data);
        VdoResolutionSet* set = vdo_channel_get_resolutions(channel, nullptr, &error);
        if (set == nullptr) {
            // One unreadable channel must not hide the others.
            g_stemlibLogger.error(functionName + ": Failed to get resolutions of channel " +
                                  std::to_string(vdo_channel_get_id(channel)) +
                                  ". Error: " + detail::takeErrorMessage(error));
            continue;
        }
        for (gsize i = 0; i < set->count; ++i) {
            resolutions.insert(Resolution(set->resolutions[i].width, set->resolutions[i].height));
        }
        g_free(set);
    }
    g_list_free_full(channels, g_object_unref);
    return resolutions;
}

} // namespace

std::string toString(SystemOnChip systemOnChip) {
    switch (systemOnChip) {
    case SystemOnChip::Unknown:
        return "Unknown";
    case SystemOnChip::ARTPEC_5:
        return "ARTPEC-5";
    case SystemOnChip::ARTPEC_6:
        return "ARTPEC-6";
    case SystemOnChip::ARTPEC_7:
        return "ARTPEC-7";
    case SystemOnChip::ARTPEC_8:
        return "ARTPEC-8";
    case SystemOnChip::ARTPEC_9:
        return "ARTPEC-9";
    }
    return "Invalid SOC";
}

std::string toString(StreamType streamType) {
    switch (streamType) {
    case StreamType::Application:
        return "Application";
    case StreamType::Anonymized:
        return "Anonymized";
    case StreamType::Overlay:
        return "Overlay";
    case StreamType::Other:
        return "Other";
    }
    return "Unknown";
}

FollowerInfo::FollowerInfo() : index(0), active(false), status(0) {}

FollowerInfo::FollowerInfo(int index_, bool active_, const std::string& cameraName_,
                           const std::string& ipAddress_, const std::string& userName_,
                           const std::string& password_)
    : index(index_), active(active_), cameraName(cameraName_), ipAddress(ipAddress_),
      userName(userName_), password(password_), status(0) {}

FollowerInfo::~FollowerInfo() = default;

CameraManager::CameraManager() = default;

CameraManager::~CameraManager() = default;

ResolutionSet CameraManager::getSupportedResolutions() const {
    return ResolutionSet();
}

Resolution CameraManager::getMaxResolution(AspectRatio) const {
    return Resolution();
}

bool CameraManager::setFollowerInfo(int index, bool active, const std::string& cameraName,
                                    const std::string& ipAddress, const std::string& userName,
                                    const std::string& password) {
    m_followerInfoMap[index] =
        FollowerInfo(index, active, cameraName, ipAddress, userName, password);
    return true;
}

FollowerInfo CameraManager::getFollowerInfo(int index) const {
    const auto found = m_followerInfoMap.find(index);
    return found == m_followerInfoMap.end() ? FollowerInfo() : found->second;
}

CameraManager::ValueIterator CameraManager::begin() {
    return ValueIterator(m_followerInfoMap.begin());
}

CameraManager::ValueIterator CameraManager::end() {
    return ValueIterator(m_followerInfoMap.end());
}

CameraManager::ConstValueIterator CameraManager::begin() const {
    return ConstValueIterator(m_followerInfoMap.begin());
}

CameraManager::ConstValueIterator CameraManager::end() const {
    return ConstValueIterator(m_followerInfoMap.end());
}

AxisCameraManager::AxisCameraManager(const std::string& appName)
    : _appName(appName), _axParameter(nullptr) {
    g_stemlibLogger.info("AxisCameraManager: AxisCameraManager constructor called appName = " +
                         _appName);
    _axParameter = ax_parameter_new(_appName.c_str(), nullptr);
    if (_axParameter == nullptr) {
        g_stemlibLogger.error("AxisCameraManager: Error initializing axParameter.");
    }
}

AxisCameraManager::~AxisCameraManager() {
    g_stemlibLogger.info("~AxisCameraManager: AxisCameraManager destructor called");
    if (_axParameter != nullptr) {
        ax_parameter_free(_axParameter);
        _axParameter = nullptr;
    }
}

ResolutionSet AxisCameraManager::getSupportedResolutions() const {
    return readChannelResolutions("getSupportedResolutions");
}

Resolution AxisCameraManager::getMaxResolution(AspectRatio aspectRatio) const {
    Resolution best;
    for (const Resolution& res : getSupportedResolutions()) {
        if (res.getAspectRatioType() == aspectRatio && res.area() > best.area()) {
            best = res;
        }
    }
    return best;
}

AxisCameraInfo AxisCameraManager::getCameraInfo() const {
    AxisCameraInfo info;
    info.productName = getCameraName();
    info.serialNumber = getCameraSerialNumber();
    info.systemOnChip = getCameraSOC();
    info.firmwareVersion = getCameraFirmwareVersion();
    info.architecture = getCameraArchitecture();
    info.sensorAspectRatio = getCameraSensorAspectRatio();
    info.rotation = getCameraRotation();
    info.isPortrait = info.rotation == 90 || info.rotation == 270;
    return info;
}

std::string AxisCameraManager::getParameterAsString(const std::string& parameterName) const {
    if (_axParameter == nullptr) {
        // Without a handle the service is not called at all; the read fails as any other.
        g_stemlibLogger.error("getParameterAsString: Failed to get camera parameter " +
                              parameterName + ". Error: axParameter is not initialized");
        return std::string();
    }
    gchar* value = nullptr;
    GError* error = nullptr;
    if (!ax_parameter_get(_axParameter, parameterName.c_str(), &value, &error)) {
        g_stemlibLogger.error("getParameterAsString: Failed to get camera parameter " +
                              parameterName + ". Error: " + detail::takeErrorMessage(error));
        g_free(value);
        return std::string();
    }
    std::string text = value != nullptr ? value : "";
    g_free(value);
    return text;
}

std::string AxisCameraManager::getCameraName() const {
    return getParameterAsString("root.Brand.ProdFullName");
}

std::string AxisCameraManager::getCameraProductShortName() const {
    return getParameterAsString("root.Brand.ProdShortName");
}

std::string AxisCameraManager::getCameraSerialNumber() const {
    return getParameterAsString("root.Properties.System.SerialNumber");
}

std::string AxisCameraManager::getCameraFirmwareVersion() const {
    return getParameterAsString("root.Properties.Firmware.Version");
}

std::string AxisCameraManager::getCameraArchitecture() const {
    return getParameterAsString("root.Properties.System.Architecture");
}

std::string AxisCameraManager::getCameraSensorAspectRatio() const {
    return getParameterAsString("root.ImageSource.I0.Sensor.AspectRatio");
}

SystemOnChip AxisCameraManager::getCameraSOC() const {
    const std::string soc = getParameterAsString("root.Properties.System.Soc");
    if (soc == "Axis Artpec-6") {
        return SystemOnChip::ARTPEC_6;
    }
    if (soc == "Axis Artpec-7") {
        return SystemOnChip::ARTPEC_7;
    }
    if (soc == "Axis Artpec-8") {
        return SystemOnChip::ARTPEC_8;
    }
    if (soc == "Axis Artpec-9") {
        return SystemOnChip::ARTPEC_9;
    }
    return SystemOnChip::Unknown;
}

int AxisCameraManager::getCameraRotation() const {
    const std::string rotation = getParameterAsString("root.Image.I0.Appearance.Rotation");
    if (rotation.empty()) {
        g_stemlibLogger.error(
            "getCameraRotation: Failed to get camera rotation. Assuming rotation = 0");
        return 0;
    }
    return std::stoi(rotation, nullptr, 10);
}

AspectRatio AxisCameraManager::getSensorAspectRatioType() const {
    const std::string ratio = getCameraSensorAspectRatio();
    if (ratio == "4:3") {
        return AspectRatio::Fullscreen;
    }
    if (ratio == "16:9") {
        return AspectRatio::Widescreen;
    }
    if (ratio == "1:1") {
        return AspectRatio::Square;
    }
    return AspectRatio::Invalid;
}

ResolutionSet getCameraResolutions() {
    return readChannelResolutions("getCameraResolutions");
}

std::string getCamerasResolutionsAsCsv() {
    std::string csv;
    for (const Resolution& res : getCameraResolutions()) {
        csv += std::to_string(res.width) + "x" + std::to_string(res.height) + ",";
    }
    return csv;
}

Resolution getHighestCompatibleResolution(const Resolution& targetResolution) {
    const ResolutionSet resolutions = getCameraResolutions();
    Resolution highestResolution;
    const float targetRatio = targetResolution.aspectRatio();
    const bool isTargetPortrait = targetRatio < 1.0f;
    if (targetRatio <= 0.0f) {
        // A target without a height or width matches nothing.
        return highestResolution;
    }
    const float targetAspectRatio = isTargetPortrait ? 1.0f / targetRatio : targetRatio;
    const float epsilon = 1e-6f;
    for (const Resolution& res : resolutions) {
        if (std::fabs(res.aspectRatio() - targetAspectRatio) < epsilon &&
            res.width > highestResolution.width) {
            highestResolution = res;
        }
    }
    return isTargetPortrait ? highestResolution.transpose() : highestResolution;
}

} // namespace Ombrel
