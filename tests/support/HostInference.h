// Test helpers around the host inference service: forged model paths and the service's call
// log. A chosen host camera, and requested failures cleared at
// the end of a test, come from HostCameraScope.h.
#pragma once

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#if __has_include(<stemlib-host-larod.h>)
#include "HostCameraScope.h"

#include <stemlib-host-larod.h>
#include <stemlib-host.h>
#define STEMLIB_TEST_HOST_LAROD 1
#endif

namespace StemlibTest {

// A model that the build forged (see tools/modelforge/ForgedModels.h).
inline std::string forgedModel(const std::string& name) {
    return std::string(STEMLIB_MODEL_DIR) + "/" + name + ".tflite";
}

#ifdef STEMLIB_TEST_HOST_LAROD

// The entries of the service's call log that begin with one of the given call names, in order.
inline std::vector<std::string> larodCallLog(const std::vector<std::string>& calls) {
    char* text = stemlib_host_larod_log();
    std::istringstream lines(text);
    std::free(text);
    std::vector<std::string> selected;
    for (std::string entry; std::getline(lines, entry);) {
        for (const std::string& call : calls) {
            if (entry.compare(0, call.size(), call) == 0 &&
                (entry.size() == call.size() || entry[call.size()] == ' ')) {
                selected.push_back(entry);
                break;
            }
        }
    }
    return selected;
}

#endif

} // namespace StemlibTest
