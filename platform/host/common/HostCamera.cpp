#include "HostCamera.h"

#include "FrameGenerator.h"

#include "stemlib-host.h"

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <unordered_map>

namespace stemlib_host {

namespace {

const char* const kDefaultCamera = R"(# The built-in default camera of the host platform.
root.Brand.Brand = AXIS
root.Brand.ProdFullName = AXIS Host Camera (simulated)
root.Brand.ProdShortName = AXIS Host Camera
root.Brand.ProdNbr = HOST-1
root.Properties.System.SerialNumber = B8A44F000001
root.Properties.Firmware.Version = 11.11.73
root.Properties.System.Architecture = aarch64
root.Properties.System.Soc = Axis Artpec-8
root.ImageSource.I0.Sensor.AspectRatio = 16:9
root.Image.I0.Appearance.Rotation = 0
root.Image.I0.Appearance.Resolution = 1920x1080

# Video channels and the resolutions each offers.
channels = 1
channel.1.resolutions = 1920x1080, 1280x720, 1024x576, 800x450, 640x360, 480x270, 320x180

# Where frames come from: "generator", "file:<video file>" or "images:<folder>".
video.input = generator
# Frames per second of the input; 0 delivers frames as fast as they can be made.
video.framerate = 0

# The most memory that one stream may hold, its buffers and its input together, in MiB.
video.memory_limit_mib = 1024

# Lens focal length in microns, answered by the optics service.
optics.focal_length_um = 4000

# Inference devices, in the order the service lists them.
larod.devices = cpu-tflite, a9-dlpu-tflite
)";

std::string trim(const std::string& text) {
    const char* blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return std::string();
    }
    const std::size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

// Thrown while reading a description, with the text "<origin>:<line>: <what is wrong>".
class DescriptionError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A description is a few dozen lines; anything far larger is not one, and is not read whole.
constexpr std::size_t kMaxDescriptionBytes = 1024 * 1024;

bool isChannelResolutionsKey(const std::string& key) {
    const std::string suffix = ".resolutions";
    return key.size() > 8 + suffix.size() && key.compare(0, 8, "channel.") == 0 &&
           key.compare(key.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// What is wrong with the value of a key whose form the reader knows, or "" when nothing is.
// Channel sizes must be even, as every stream needs them, and the memory limit a whole number.
std::string valueProblem(const std::string& key, const std::string& value) {
    if (isChannelResolutionsKey(key)) {
        for (const std::string& item : splitList(value)) {
            std::uint32_t width = 0;
            std::uint32_t height = 0;
            if (!parseSize(item, width, height)) {
                return key + ": \"" + item + "\" is not a size like 1920x1080";
            }
            if (width % 2 != 0 || height % 2 != 0) {
                return key + ": \"" + item + "\" is not an even size; a stream's width and " +
                       "height must be even";
            }
        }
    } else if (key == "video.memory_limit_mib") {
        const bool digits = !value.empty() && value.size() <= 10 &&
                            value.find_first_not_of("0123456789") == std::string::npos;
        const unsigned long long mib = digits ? std::strtoull(value.c_str(), nullptr, 10) : 0;
        if (mib < 1 || mib > kMaxStreamMemoryMiB) {
            return key + ": \"" + value + "\" is not a whole number of MiB from 1 to " +
                   std::to_string(kMaxStreamMemoryMiB);
        }
    }
    return std::string();
}

// The path with symbolic links and relative parts resolved, or the path itself when it cannot be.
std::string absolutePath(const std::string& path) {
    char absolute[PATH_MAX];
    return realpath(path.c_str(), absolute) != nullptr ? absolute : path;
}

CameraDescription parseCameraDescription(const std::string& text, const std::string& origin,
                                         const std::string& directory) {
    CameraDescription description;
    description.origin = origin;
    description.directory = directory;
    std::unordered_map<std::string, std::size_t> positions; // of each key in entries
    std::istringstream lines(text);
    std::string line;
    int lineNumber = 0;
    while (std::getline(lines, line)) {
        ++lineNumber;
        const std::string content = trim(line);
        if (content.empty() || content[0] == '#') {
            continue;
        }
        const std::size_t equals = content.find('=');
        if (equals == std::string::npos) {
            throw DescriptionError(origin + ":" + std::to_string(lineNumber) +
                                   ": expected \"key = value\"");
        }
        const std::string key = trim(content.substr(0, equals));
        if (key.empty()) {
            throw DescriptionError(origin + ":" + std::to_string(lineNumber) + ": empty key");
        }
        const std::string value = trim(content.substr(equals + 1));
        const std::string problem = valueProblem(key, value);
        if (!problem.empty()) {
            throw DescriptionError(origin + ":" + std::to_string(lineNumber) + ": " + problem);
        }
        // Indexed, so that a description of many keys is read in linear time.
        const auto found = positions.emplace(key, description.entries.size());
        if (found.second) {
            description.entries.emplace_back(key, value);
        } else {
            description.entries[found.first->second].second = value;
        }
    }
    return description;
}

CameraDescription loadCameraDescriptionFile(const std::string& path) {
    // Looked at before opening: opening a FIFO would wait for a writer, and reading a device such
    // as /dev/zero would never end.
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        const int problem = errno;
        throw DescriptionError(path +
                               ": cannot open the camera description: " + std::strerror(problem));
    }
    if (!S_ISREG(info.st_mode)) {
        throw DescriptionError(path + ": the camera description is not a regular file but " +
                               fileTypeName(info.st_mode));
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw DescriptionError(path +
                               ": cannot open the camera description: " + std::strerror(errno));
    }
    std::string text(kMaxDescriptionBytes + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > kMaxDescriptionBytes) {
        throw DescriptionError(path + ": the camera description is larger than " +
                               std::to_string(kMaxDescriptionBytes / 1024) + " KiB");
    }
    // Relative file names in values are taken from the description's own folder, made absolute
    // so that a later change of the working directory does not matter.
    const std::string fullPath = absolutePath(path);
    const std::size_t slash = fullPath.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : fullPath.substr(0, slash);
    return parseCameraDescription(text, path, directory.empty() ? "/" : directory);
}

std::shared_ptr<const CameraDescription> defaultCamera() {
    return std::make_shared<const CameraDescription>(
        parseCameraDescription(kDefaultCamera, "built-in default camera", std::string()));
}

struct Failure {
    std::string message;
    unsigned int skip = 0;
};

struct State {
    std::mutex mutex;
    bool initialised = false;
    std::shared_ptr<const CameraDescription> camera;
    // Transparent comparison: looking up a call by its C name allocates nothing, so a stand-in
    // that checks for failures on every frame stays allocation-free.
    std::map<std::string, Failure, std::less<>> failures;
};

constexpr const char* kObjectTypes[] = {"VdoStream", "VdoMap", "VdoChannel", "VdoFrame"};
std::atomic<long> g_liveObjects[std::size(kObjectTypes)];

State& state() {
    static State s;
    return s;
}

void addFailuresFromText(State& s, const std::string& spec) {
    std::stringstream items(spec);
    std::string item;
    while (std::getline(items, item, ';')) {
        const std::size_t equals = item.find('=');
        if (equals == std::string::npos) {
            continue;
        }
        const std::string call = trim(item.substr(0, equals));
        if (!call.empty()) {
            s.failures[call] = Failure{trim(item.substr(equals + 1)), 0};
        }
    }
}

void addFailuresFromCamera(State& s, const CameraDescription& description) {
    for (const auto& entry : description.withPrefix("fail.")) {
        s.failures[entry.first.substr(5)] = Failure{entry.second, 0};
    }
}

// Called with the mutex held.
void initialiseLocked(State& s) {
    if (s.initialised) {
        return;
    }
    s.initialised = true;
    const char* path = std::getenv("STEMLIB_HOST_CAMERA");
    if (path != nullptr && *path != '\0') {
        try {
            s.camera = std::make_shared<const CameraDescription>(loadCameraDescriptionFile(path));
        } catch (const std::exception& e) {
            std::fprintf(stderr, "stemlib host camera: %s; using the built-in default camera\n",
                         e.what());
        }
    }
    if (!s.camera) {
        s.camera = defaultCamera();
    }
    addFailuresFromCamera(s, *s.camera);
    if (const char* failures = std::getenv("STEMLIB_HOST_FAIL")) {
        addFailuresFromText(s, failures);
    }
}

} // namespace

std::optional<std::string> CameraDescription::get(const std::string& key) const {
    for (const auto& entry : entries) {
        if (entry.first == key) {
            return entry.second;
        }
    }
    return std::nullopt;
}

std::string CameraDescription::getOr(const std::string& key, const std::string& fallback) const {
    std::optional<std::string> value = get(key);
    return value ? *value : fallback;
}

std::vector<std::pair<std::string, std::string>>
CameraDescription::withPrefix(const std::string& prefix) const {
    std::vector<std::pair<std::string, std::string>> result;
    for (const auto& entry : entries) {
        if (entry.first.compare(0, prefix.size(), prefix) == 0) {
            result.push_back(entry);
        }
    }
    return result;
}

std::string CameraDescription::resolvePath(const std::string& value) const {
    if (value.empty() || value[0] == '/' || directory.empty()) {
        return value;
    }
    return directory + "/" + value;
}

std::shared_ptr<const CameraDescription> camera() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    initialiseLocked(s);
    return s.camera;
}

void setCamera(std::shared_ptr<const CameraDescription> description) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    initialiseLocked(s);
    s.camera = std::move(description);
    addFailuresFromCamera(s, *s.camera);
}

std::optional<std::string> takeFailure(const char* call) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    initialiseLocked(s);
    const auto found = s.failures.find(call);
    if (found == s.failures.end()) {
        return std::nullopt;
    }
    if (found->second.skip > 0) {
        --found->second.skip;
        return std::nullopt;
    }
    return found->second.message;
}

void countObject(ObjectKind kind, int delta) {
    g_liveObjects[static_cast<std::size_t>(kind)] += delta;
}

std::vector<std::string> splitList(const std::string& value) {
    std::vector<std::string> items;
    std::stringstream stream(value);
    std::string item;
    while (std::getline(stream, item, ',')) {
        item = trim(item);
        if (!item.empty()) {
            items.push_back(item);
        }
    }
    return items;
}

bool parseSize(const std::string& text, std::uint32_t& width, std::uint32_t& height) {
    unsigned long w = 0;
    unsigned long h = 0;
    char x = 0;
    char extra = 0;
    if (std::sscanf(text.c_str(), "%lu%c%lu%c", &w, &x, &h, &extra) != 3 || x != 'x' || w == 0 ||
        h == 0 || w > 65535 || h > 65535) {
        return false;
    }
    width = static_cast<std::uint32_t>(w);
    height = static_cast<std::uint32_t>(h);
    return true;
}

const char* fileTypeName(unsigned int mode) {
    switch (mode & S_IFMT) {
    case S_IFDIR:
        return "a directory";
    case S_IFIFO:
        return "a FIFO";
    case S_IFCHR:
        return "a character device";
    case S_IFBLK:
        return "a block device";
    case S_IFSOCK:
        return "a socket";
    default:
        return "a special file";
    }
}

std::uint64_t streamMemoryLimit(const CameraDescription& camera) {
    // The value was checked when the description was read.
    const std::optional<std::string> text = camera.get("video.memory_limit_mib");
    const std::uint64_t mib = text ? std::strtoull(text->c_str(), nullptr, 10) : 0;
    return (mib != 0 ? mib : kDefaultStreamMemoryMiB) * 1024 * 1024;
}

} // namespace stemlib_host

extern "C" int stemlib_host_load_camera(const char* path, char** error) {
    using namespace stemlib_host;
    try {
        if (path == nullptr) {
            setCamera(defaultCamera());
            unsetenv("STEMLIB_HOST_CAMERA");
        } else {
            setCamera(std::make_shared<const CameraDescription>(loadCameraDescriptionFile(path)));
            setenv("STEMLIB_HOST_CAMERA", absolutePath(path).c_str(), 1);
        }
        return 0;
    } catch (const std::exception& e) {
        if (error != nullptr) {
            *error = strdup(e.what());
        }
        return -1;
    }
}

extern "C" void stemlib_host_set_failure(const char* call, const char* message) {
    stemlib_host_set_failure_after(call, 0, message);
}

extern "C" void stemlib_host_set_failure_after(const char* call, unsigned int skip,
                                               const char* message) {
    using namespace stemlib_host;
    if (call == nullptr) {
        return;
    }
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    initialiseLocked(s);
    if (message == nullptr) {
        s.failures.erase(call);
    } else {
        s.failures[call] = Failure{message, skip};
    }
}

extern "C" void stemlib_host_clear_failures(void) {
    using namespace stemlib_host;
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    initialiseLocked(s);
    s.failures.clear();
}

extern "C" long stemlib_host_live_objects(const char* type_name) {
    using namespace stemlib_host;
    for (std::size_t i = 0; type_name != nullptr && i < std::size(kObjectTypes); ++i) {
        if (std::strcmp(type_name, kObjectTypes[i]) == 0) {
            return g_liveObjects[i].load();
        }
    }
    return -1;
}

extern "C" int stemlib_host_render_generator_frame(unsigned int width, unsigned int height,
                                                   unsigned int rotation,
                                                   unsigned long long sequence, unsigned char* nv12,
                                                   size_t size) {
    using namespace stemlib_host;
    if (nv12 == nullptr) {
        return -1;
    }
    try {
        const FrameGenerator generator(width, height, rotation);
        if (size < generator.frameSize()) {
            return -1;
        }
        generator.render(sequence, nv12);
        return 0;
    } catch (const std::exception&) {
        return -1;
    }
}
