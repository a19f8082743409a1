// The simulated camera shared by the host stand-ins (video, parameters, inference, optics).
//
// A camera description is a text file of "key = value" lines; blank lines and lines starting with
// '#' are ignored, and blanks around key and value are dropped. Keys are case-sensitive; a key
// given twice keeps its last value. The format is documented in the README ("The camera on a
// PC"). Keys starting with "root." are the camera's parameters; the other keys are read by the
// stand-in they concern (HostCamera.cpp's built-in default camera shows all of them). The values
// of "channel.<n>.resolutions" and "video.memory_limit_mib" are checked as the file is read, so
// that a size no stream could use is refused at its line.
//
// The description in effect is process-wide: loaded once from STEMLIB_HOST_CAMERA (or the
// built-in default), replaceable with stemlib_host_load_camera. Readers get an immutable
// snapshot, so a reload never changes data under a caller. Thread-safe.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace stemlib_host {

class CameraDescription {
public:
    // Where the text came from: a file path, or "built-in default camera".
    std::string origin;
    // Directory against which relative file names in values are resolved ("" for built-in).
    std::string directory;
    // Entries in file order, last value of a repeated key only.
    std::vector<std::pair<std::string, std::string>> entries;

    std::optional<std::string> get(const std::string& key) const;
    std::string getOr(const std::string& key, const std::string& fallback) const;
    // Entries whose key starts with prefix, in file order.
    std::vector<std::pair<std::string, std::string>> withPrefix(const std::string& prefix) const;
    // A file name from a value, made absolute against directory when it is relative.
    std::string resolvePath(const std::string& value) const;
};

// The camera in effect. A description file that cannot be read at first use is reported on
// standard error once and the default camera applies.
std::shared_ptr<const CameraDescription> camera();
void setCamera(std::shared_ptr<const CameraDescription> description);

// Fault injection. When the named call is set to fail at this moment, returns its message (the
// call counts towards any "skip" given); otherwise nothing. Stand-ins call this first thing.
std::optional<std::string> takeFailure(const char* call);

// Live objects of the video service, counted by their init and finalize functions.
enum class ObjectKind { Stream, Map, Channel, Frame };
void countObject(ObjectKind kind, int delta);

// Splits "a, b ,c" at commas, trimming blanks; empty items are dropped.
std::vector<std::string> splitList(const std::string& value);
// Parses "1920x1080"; false when the text is not two positive numbers joined by 'x'.
bool parseSize(const std::string& text, std::uint32_t& width, std::uint32_t& height);

// What a file of this stat mode is when it is not a regular file, for messages: "a directory",
// "a FIFO", "a character device", "a block device", "a socket" or "a special file".
const char* fileTypeName(unsigned int mode);

// The most memory, in bytes, that one stream of the video service may hold (its ring of buffers
// and its input together): "video.memory_limit_mib" MiB, checked when the description is read,
// or kDefaultStreamMemoryMiB.
constexpr std::uint64_t kDefaultStreamMemoryMiB = 1024;
constexpr std::uint64_t kMaxStreamMemoryMiB = 1024 * 1024;
std::uint64_t streamMemoryLimit(const CameraDescription& camera);

} // namespace stemlib_host
