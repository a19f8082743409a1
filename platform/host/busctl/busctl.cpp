// Host stand-in for the system bus tool, as far as the camera's optics service goes: answers
// "busctl [--verbose] get-property com.axis.Optics2 /com/axis/Optics0 com.axis.Iris1
// FocalLength" from the camera description (optics.focal_length_um), and fails as the real tool
// does, with a message on standard error and exit status 1, for anything else.
//
// It is its own process, so it reads the camera named by STEMLIB_HOST_CAMERA (which
// stemlib_host_load_camera keeps up to date) and failures requested for "busctl" in the
// description or in STEMLIB_HOST_FAIL.
#include "HostCamera.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

const char* const kService = "com.axis.Optics2";
const char* const kObject = "/com/axis/Optics0";
const char* const kInterface = "com.axis.Iris1";
const char* const kProperty = "FocalLength";

int fail(const std::string& message) {
    std::fprintf(stderr, "%s\n", message.c_str());
    return 1;
}

int getProperty(const std::vector<std::string>& args, bool verbose) {
    if (args.size() < 4) {
        return fail("Expects service, path, interface and at least one property.");
    }
    const std::string& service = args[0];
    const std::string& object = args[1];
    const std::string& interface = args[2];
    const std::string prefix =
        "Failed to get property " + args[3] + " on interface " + interface + ": ";
    const auto camera = stemlib_host::camera();
    const std::optional<std::string> focal = camera->get("optics.focal_length_um");
    if (service != kService || !focal) {
        return fail(prefix + "The name " + service + " was not provided by any .service files");
    }
    if (object != kObject) {
        return fail(prefix + "Unknown object '" + object + "'.");
    }
    std::string output;
    for (std::size_t i = 3; i < args.size(); ++i) {
        if (interface != kInterface || args[i] != kProperty) {
            return fail("Failed to get property " + args[i] + " on interface " + interface +
                        ": Unknown interface " + interface + " or property " + args[i] + ".");
        }
        if (std::optional<std::string> message = stemlib_host::takeFailure("busctl")) {
            return fail(prefix + *message);
        }
        char* end = nullptr;
        const unsigned long long microns = std::strtoull(focal->c_str(), &end, 10);
        if (focal->empty() || *end != '\0' || microns > 0xFFFFFFFFULL) {
            return fail(prefix + camera->origin + ": optics.focal_length_um: \"" + *focal +
                        "\" is not a whole number of microns");
        }
        output +=
            (verbose ? "UINT32 " + std::to_string(microns) + ";" : "u " + std::to_string(microns)) +
            "\n";
    }
    std::fputs(output.c_str(), stdout);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    bool verbose = false;
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--verbose") {
            verbose = true;
        } else if (arg == "--system" || arg == "--no-pager" || arg == "--no-legend") {
            // Accepted as the real tool does; the optics service is on the system bus anyway.
        } else if (arg.size() > 1 && arg[0] == '-' && words.empty()) {
            return fail(std::string("busctl: unrecognized option '") + arg + "'");
        } else {
            words.push_back(arg);
        }
    }
    if (words.empty()) {
        return fail("busctl (host stand-in): only \"get-property " + std::string(kService) + " " +
                    kObject + " " + kInterface + " " + kProperty + "\" is provided.");
    }
    if (words[0] != "get-property") {
        return fail("Unknown command verb '" + words[0] + "'.");
    }
    return getProperty(std::vector<std::string>(words.begin() + 1, words.end()), verbose);
}
