#include "HostCameraScope.h"

#include "stemlib-host.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <ftw.h>
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

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    return std::remove(path);
}

} // namespace

TemporaryFolder::TemporaryFolder() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/stemlib-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot create a temporary folder from " + pattern);
    }
    _path = pattern;
}

TemporaryFolder::~TemporaryFolder() {
    nftw(_path.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

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
    std::ofstream(path) << descriptionText;
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
