// Camera facts: what an application must know about the camera on which it runs. Its model and
// processor, how it is mounted, which stream resolutions it offers, and which other cameras
// follow it.
//
// CameraManager is the camera-independent base and keeps the follower list in memory.
// AxisCameraManager reads the camera's parameter service and video service; it owns its
// parameter-service handle and releases it in its destructor. Nothing is cached: every getter
// asks the service again, so managers may be short-lived. No locks: one thread uses a manager;
// separate managers are independent.
#pragma once

#include "CommonStructs.h"

#include <map>
#include <string>

// The parameter service's handle, as its header declares it.
typedef struct _AXParameter AXParameter;

namespace Ombrel {

enum class SystemOnChip {
    Unknown = 0,
    ARTPEC_5 = 1,
    ARTPEC_6 = 2,
    ARTPEC_7 = 3,
    ARTPEC_8 = 4,
    ARTPEC_9 = 5
};

enum class StreamType { Application = 0, Anonymized = 1, Overlay = 2, Other = 3 };

// "Unknown", "ARTPEC-5" ... "ARTPEC-9"; "Invalid SOC" for a value outside the enumeration.
std::string toString(SystemOnChip systemOnChip);
// "Application", "Anonymized", "Overlay", "Other"; "Unknown" outside the enumeration.
std::string toString(StreamType streamType);

// A further camera that works with this one. status starts as 0 in every constructor; only
// copying carries another value.
class FollowerInfo {
public:
    FollowerInfo();
    FollowerInfo(int index, bool active, const std::string& cameraName,
                 const std::string& ipAddress, const std::string& userName,
                 const std::string& password);
    FollowerInfo(const FollowerInfo&) = default;
    FollowerInfo& operator=(const FollowerInfo&) = default;
    virtual ~FollowerInfo();

    int index;
    bool active;
    std::string cameraName;
    std::string ipAddress;
    std::string userName;
    std::string password;
    int status;
};

using FollowerInfoMap = std::map<int, FollowerInfo>;

// What AxisCameraManager::getCameraInfo reads, in one record. rotation is in degrees;
// isPortrait is true at 90 and 270.
struct AxisCameraInfo {
    std::string productName;
    std::string serialNumber;
    SystemOnChip systemOnChip = SystemOnChip::Unknown;
    std::string firmwareVersion;
    std::string architecture;
    std::string sensorAspectRatio;
    int rotation = 0;
    bool isPortrait = false;
};

class CameraManager {
public:
    using ValueIterator = ValueIteratorT<int, FollowerInfo>;
    using ConstValueIterator = ConstValueIteratorT<int, FollowerInfo>;

    CameraManager();
    virtual ~CameraManager();

    // An empty set in the base.
    virtual ResolutionSet getSupportedResolutions() const;
    // The largest supported resolution of that aspect ratio by area, the first in set order on
    // equal areas; 0 by 0 in the base or when none matches.
    virtual Resolution getMaxResolution(AspectRatio aspectRatio) const;

    // Replaces any entry for index (its status returns to 0). Always true.
    bool setFollowerInfo(int index, bool active, const std::string& cameraName,
                         const std::string& ipAddress, const std::string& userName,
                         const std::string& password);
    // A copy of the entry, or a default FollowerInfo for an unknown index (nothing is added).
    FollowerInfo getFollowerInfo(int index) const;

    // The followers in index order.
    ValueIterator begin();
    ValueIterator end();
    ConstValueIterator begin() const;
    ConstValueIterator end() const;

protected:
    FollowerInfoMap m_followerInfoMap;
};

class AxisCameraManager : public CameraManager {
public:
    // Opens the parameter service under appName. If it cannot be opened, an error is logged and
    // the object stands: every parameter read then fails and gives an empty text.
    explicit AxisCameraManager(const std::string& appName);
    ~AxisCameraManager() override;
    AxisCameraManager(const AxisCameraManager&) = delete;
    AxisCameraManager& operator=(const AxisCameraManager&) = delete;

    // Every resolution that any video channel offers. A channel whose resolutions cannot be
    // read is logged and left out.
    ResolutionSet getSupportedResolutions() const override;
    Resolution getMaxResolution(AspectRatio aspectRatio) const override;

    AxisCameraInfo getCameraInfo() const;
    // The parameter's text; empty, with an error logged, when it cannot be read.
    std::string getParameterAsString(const std::string& parameterName) const;

    std::string getCameraName() const;              // root.Brand.ProdFullName
    std::string getCameraProductShortName() const;  // root.Brand.ProdShortName
    std::string getCameraSerialNumber() const;      // root.Properties.System.SerialNumber
    std::string getCameraFirmwareVersion() const;   // root.Properties.Firmware.Version
    std::string getCameraArchitecture() const;      // root.Properties.System.Architecture
    std::string getCameraSensorAspectRatio() const; // root.ImageSource.I0.Sensor.AspectRatio
    // root.Properties.System.Soc: "Axis Artpec-6" to "Axis Artpec-9", anything else Unknown.
    SystemOnChip getCameraSOC() const;
    // root.Image.I0.Appearance.Rotation in degrees; 0, with an error logged, when unreadable.
    // A text that is not a number throws std::stoi's std::invalid_argument or std::out_of_range.
    int getCameraRotation() const;
    // "4:3" Fullscreen, "16:9" Widescreen, "1:1" Square, anything else Invalid.
    AspectRatio getSensorAspectRatioType() const;

private:
    std::string _appName;
    AXParameter* _axParameter;
};

// The union of every channel's resolutions, read from the video service without a manager.
ResolutionSet getCameraResolutions();
// "640x480,1280x720," : every resolution in set order, each followed by a comma; "" for none.
std::string getCamerasResolutionsAsCsv();
// The widest camera resolution whose aspect ratio matches the target's within 1e-6, camera
// resolutions being listed in landscape form; transposed back for a portrait target. 0 by 0 when
// none matches.
Resolution getHighestCompatibleResolution(const Resolution& targetResolution);

} // namespace Ombrel
