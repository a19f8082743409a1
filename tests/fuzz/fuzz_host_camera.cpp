// The camera description of the host platform, read by every stand-in: the library then asks the
// camera what it is, opens a stream on it and takes a frame, and lists the inference devices.
// Streams always come from the built-in generator here (a description may not send the harness
// reading files and folders), but everything else comes from the input.
#include "FuzzSupport.h"

#include "AxisVideoStreamSource.h"
#include "CameraManager.h"
#include "stemlib-host.h"

#include <larod.h>

#include <cstdlib>
#include <stdexcept>
#include <vector>

using namespace Ombrel;
using StemlibFuzz::check;

namespace {

void askTheCamera() {
    AxisCameraManager camera("fuzz");
    // A rotation that is not a number throws std::stoi's exception, by design, also from
    // getCameraInfo, which reads the rotation last.
    try {
        (void)camera.getCameraInfo();
    } catch (const std::logic_error&) {
    }
    (void)camera.getCameraSOC();
    (void)camera.getSensorAspectRatioType();
    (void)camera.getParameterAsString("root.Brand.ProdShortName");
    (void)camera.getParameterAsString("NotThere");
    (void)camera.getSupportedResolutions();
    for (const AspectRatio ratio :
         {AspectRatio::Fullscreen, AspectRatio::Widescreen, AspectRatio::Square}) {
        (void)camera.getMaxResolution(ratio);
    }
}

void takeAFrame() {
    try {
        AxisVideoStreamSource stream(Resolution(320, 180));
        std::vector<std::uint8_t> rgb(64 * 48 * 3);
        (void)stream.getFrame(Resolution(64, 48), 0, rgb.data());
    } catch (const std::runtime_error&) { // refused by the video service
    } catch (const std::logic_error&) {   // a rotation that is not a number
    }
}

void listDevices() {
    larodConnection* conn = nullptr;
    larodError* error = nullptr;
    if (!larodConnect(&conn, &error)) {
        larodClearError(&error);
        return;
    }
    std::size_t count = 0;
    const larodDevice** devices = larodListDevices(conn, &count, &error);
    larodClearError(&error);
    for (std::size_t i = 0; devices != nullptr && i < count; ++i) {
        check(larodGetDeviceName(devices[i], &error) != nullptr, "every device has a name");
    }
    check(larodDisconnect(&conn, &error), "the connection closes");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    StemlibFuzz::quietLibraryLog();
    static const StemlibFuzz::ScratchFile file(".camera");
    file.write(StemlibFuzz::text(data, size) + "\nvideo.input = generator\n");
    char* error = nullptr;
    if (stemlib_host_load_camera(file.path().c_str(), &error) != 0) {
        check(error != nullptr, "a refused description comes with a reason");
        std::free(error);
        return 0;
    }
    askTheCamera();
    takeAFrame();
    listDevices();
    stemlib_host_clear_failures();
    return 0;
}
