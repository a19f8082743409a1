#include "HostCameraScope.h"

#include "stemlib-host.h"

#include <cstdlib>
#include <stdexcept>

namespace StemlibTest {

namespace {

#ifdef STEMLIB_HOST_BIN_DIR
// Library code runs "busctl" through the shell; the host one must win over any installed one.
const bool g_pathSet = [] {
    const char* path = std::getenv("PATH");
    const std::string value =
        std::string(STEMLIB_HOST_BIN_DIR) + (path != nullptr ? std::string(":") + path : "");
    return setenv("PATH", value.c_str(), 1) == 0;
}();
#endif

} // namespace

HostCameraScope::HostCameraScope() {
    stemlib_host_clear_failures();
    stemlib_host_load_camera(nullptr, nullptr);
}

HostCameraScope::HostCameraScope(const std::string& descriptionText) {
    stemlib_host_clear_failures();
    reload(descriptionText);
}

void HostCameraScope::reload(const std::string& descriptionText) {
    const std::string path = _folder.file("camera.txt");
    writeWholeFile(path, descriptionText);
    char* error = nullptr;
    if (stemlib_host_load_camera(path.c_str(), &error) != 0) {
        const std::string message = error != nullptr ? error : "unknown error";
        std::free(error);
        throw std::runtime_error("camera description rejected: " + message);
    }
}

HostCameraScope::~HostCameraScope() {
    stemlib_host_clear_failures();
    stemlib_host_load_camera(nullptr, nullptr);
}

std::vector<std::uint8_t> generatorFrame(unsigned width, unsigned height, unsigned rotation,
                                         unsigned long long sequence) {
    std::vector<std::uint8_t> frame(std::size_t{width} * height * 3 / 2);
    if (stemlib_host_render_generator_frame(width, height, rotation, sequence, frame.data(),
                                            frame.size()) != 0) {
        throw std::invalid_argument("no generator frame of that size and rotation");
    }
    return frame;
}

} // namespace StemlibTest
