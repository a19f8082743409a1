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
    stemlib_host_load_camera(nullptr, nullptr);
    stemlib_host_clear_failures();
}

HostCameraScope::HostCameraScope(const std::string& descriptionText) {
    stemlib_host_clear_failures();
    reload(descriptionText);
}

void HostCameraScope::reload(const std::string& descriptionText) {
    if (!_folder) {
        _folder.emplace();
    }
    const std::string path = _folder->file("camera.txt");
    writeWholeFile(path, descriptionText);
    char* error = nullptr;
    if (stemlib_host_load_camera(path.c_str(), &error) != 0) {
        const std::string message = error != nullptr ? error : "unknown error";
        std::free(error);
        throw std::runtime_error("camera description rejected: " + message);
    }
}

HostCameraScope::~HostCameraScope() {
    stemlib_host_load_camera(nullptr, nullptr);
    stemlib_host_clear_failures();
}

} // namespace StemlibTest
