#include "VideoInput.h"

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <stdexcept>
#include <sys/stat.h>
#include <vector>

namespace stemlib_host {

namespace {

class GeneratorInput : public VideoInput {
public:
    explicit GeneratorInput(const InputLayout& layout)
        : _generator(layout.width, layout.height, layout.rotation) {}

    bool produce(std::uint64_t sequence, std::uint8_t* nv12, FrameGenerator::Damage& damage,
                 std::string&) override {
        _generator.update(sequence, nv12, damage);
        return true;
    }

private:
    FrameGenerator _generator;
};

// Plays a video file in a loop; frame n of the stream is frame n of the file modulo its length,
// so frames that the application misses at a set frame rate are skipped.
class VideoFileInput : public VideoInput {
public:
    VideoFileInput(std::string path, const InputLayout& layout)
        : _path(std::move(path)), _layout(layout) {
        // Looked at before OpenCV opens it: a FIFO would block and a device never end.
        struct stat info {};
        if (stat(_path.c_str(), &info) != 0) {
            const int problem = errno;
            throw std::runtime_error(
                "video file " + _path +
                (problem == ENOENT ? std::string(" does not exist")
                                   : " cannot be read: " + std::string(std::strerror(problem))));
        }
        if (!S_ISREG(info.st_mode)) {
            throw std::runtime_error("video file " + _path + " is not a regular file but " +
                                     fileTypeName(info.st_mode));
        }
        if (!open() || !_capture.read(_frame) || _frame.empty()) {
            throw std::runtime_error("video file " + _path + " has no frame that OpenCV can read");
        }
        _position = 1;
    }

    bool produce(std::uint64_t sequence, std::uint8_t* nv12, FrameGenerator::Damage& damage,
                 std::string& problem) override {
        damage.valid = false;
        if (sequence < _current) {
            // Only a restarted count goes back: play the file from its start again.
            if (!open()) {
                problem = "video file " + _path + " cannot be opened again";
                return false;
            }
            _position = 0;
        }
        while (_position <= sequence) {
            if (!_capture.read(_frame) || _frame.empty()) {
                // End of the file: loop. A file that yields nothing after reopening is gone.
                if (!open() || !_capture.read(_frame) || _frame.empty()) {
                    problem = "video file " + _path + " gives no more frames";
                    return false;
                }
            }
            _current = _position;
            ++_position;
        }
        pictureToNv12(_frame, _layout, _scratch, nv12);
        return true;
    }

private:
    bool open() {
        _capture.release();
        return _capture.open(_path, cv::CAP_ANY) && _capture.isOpened();
    }

    std::string _path;
    InputLayout _layout;
    cv::VideoCapture _capture;
    cv::Mat _frame;
    ConversionScratch _scratch;
    std::uint64_t _current = 0;  // the stream sequence number of the frame in _frame
    std::uint64_t _position = 0; // the stream sequence number of the next frame to read
};

// Shows the images of a folder in name order, one a frame, in a loop. Converted frames are kept
// in memory while they fit in the stream's allowance and in kCacheBytes; beyond that each frame is
// read from its file again.
class ImageFolderInput : public VideoInput {
public:
    ImageFolderInput(std::string folder, const InputLayout& layout, std::uint64_t cacheBytes)
        : _folder(std::move(folder)), _layout(layout) {
        DIR* directory = opendir(_folder.c_str());
        if (directory == nullptr) {
            throw std::runtime_error("image folder " + _folder +
                                     " cannot be read: " + std::strerror(errno));
        }
        while (const dirent* entry = readdir(directory)) {
            const std::string name = entry->d_name;
            if (name.empty() || name[0] == '.') {
                continue;
            }
            const std::string path = _folder + "/" + name;
            struct stat info {};
            if (stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
                cv::haveImageReader(path)) {
                _files.push_back(path);
            }
        }
        closedir(directory);
        std::sort(_files.begin(), _files.end());
        if (_files.empty()) {
            throw std::runtime_error("image folder " + _folder + " holds no image");
        }
        const std::size_t frameBytes = std::size_t{layout.width} * layout.height +
                                       std::size_t{layout.width} * layout.height / 2;
        _cached = _files.size() * frameBytes <= std::min<std::uint64_t>(kCacheBytes, cacheBytes);
        if (_cached) {
            _frames.resize(_files.size());
            for (std::size_t i = 0; i < _files.size(); ++i) {
                _frames[i].resize(frameBytes);
                std::string problem;
                if (!load(i, _frames[i].data(), problem)) {
                    throw std::runtime_error(problem);
                }
            }
        } else {
            std::vector<std::uint8_t> probe(frameBytes);
            std::string problem;
            if (!load(0, probe.data(), problem)) {
                throw std::runtime_error(problem);
            }
        }
    }

    bool produce(std::uint64_t sequence, std::uint8_t* nv12, FrameGenerator::Damage& damage,
                 std::string& problem) override {
        damage.valid = false;
        const std::size_t index = static_cast<std::size_t>(sequence % _files.size());
        if (_cached) {
            std::memcpy(nv12, _frames[index].data(), _frames[index].size());
            return true;
        }
        return load(index, nv12, problem);
    }

private:
    static constexpr std::size_t kCacheBytes = 128U * 1024U * 1024U;

    bool load(std::size_t index, std::uint8_t* nv12, std::string& problem) {
        const cv::Mat picture = cv::imread(_files[index], cv::IMREAD_COLOR);
        if (picture.empty()) {
            problem = "image " + _files[index] + " cannot be read";
            return false;
        }
        pictureToNv12(picture, _layout, _scratch, nv12);
        return true;
    }

    std::string _folder;
    InputLayout _layout;
    std::vector<std::string> _files;
    bool _cached = false;
    std::vector<std::vector<std::uint8_t>> _frames;
    ConversionScratch _scratch;
};

} // namespace

namespace {

enum class InputKind { Generator, File, Images, Unknown };

// The kind of input that spec names, and the path after its prefix.
InputKind inputKind(const std::string& spec, std::string& path) {
    if (spec == "generator") {
        return InputKind::Generator;
    }
    if (spec.compare(0, 5, "file:") == 0 && spec.size() > 5) {
        path = spec.substr(5);
        return InputKind::File;
    }
    if (spec.compare(0, 7, "images:") == 0 && spec.size() > 7) {
        path = spec.substr(7);
        return InputKind::Images;
    }
    return InputKind::Unknown;
}

} // namespace

std::unique_ptr<VideoInput> makeVideoInput(const CameraDescription& camera,
                                           const InputLayout& layout, std::uint64_t cacheBytes) {
    const std::string spec = camera.getOr("video.input", "generator");
    std::string path;
    switch (inputKind(spec, path)) {
    case InputKind::Generator:
        return std::make_unique<GeneratorInput>(layout);
    case InputKind::File:
        return std::make_unique<VideoFileInput>(camera.resolvePath(path), layout);
    case InputKind::Images:
        return std::make_unique<ImageFolderInput>(camera.resolvePath(path), layout, cacheBytes);
    case InputKind::Unknown:
        break;
    }
    throw std::runtime_error("video.input \"" + spec +
                             "\" is none of generator, file:<path>, images:<folder>");
}

std::uint64_t videoInputBytes(const CameraDescription& camera, const InputLayout& layout) {
    std::string path;
    const InputKind kind = inputKind(camera.getOr("video.input", "generator"), path);
    const std::uint64_t pixels = std::uint64_t{layout.width} * layout.height;
    switch (kind) {
    case InputKind::Generator:
        return FrameGenerator::memoryBytes(layout.width, layout.height);
    case InputKind::File:
    case InputKind::Images: {
        // The fitted blue-first picture, its turned copy, and the I420 one; a folder also reads
        // one frame whole to probe it when it does not keep them all.
        const std::uint64_t turned = layout.rotation != 0 ? pixels * 3 : 0;
        const std::uint64_t probe = kind == InputKind::Images ? pixels * 3 / 2 : 0;
        return pixels * 3 + turned + pixels * 3 / 2 + probe;
    }
    case InputKind::Unknown:
        break;
    }
    return 0;
}

const char* videoInputName(const CameraDescription& camera) {
    std::string path;
    switch (inputKind(camera.getOr("video.input", "generator"), path)) {
    case InputKind::Generator:
        return "generator";
    case InputKind::File:
        return "video file";
    case InputKind::Images:
        return "image folder";
    case InputKind::Unknown:
        break;
    }
    return "input";
}

void pictureToNv12(const cv::Mat& bgr, const InputLayout& layout, ConversionScratch& scratch,
                   std::uint8_t* nv12) {
    const int width = static_cast<int>(layout.width);
    const int height = static_cast<int>(layout.height);
    cv::Mat source = bgr;
    if (layout.crop) {
        // The largest centred region of the target's aspect ratio.
        const double target = static_cast<double>(width) / height;
        int cropWidth = source.cols;
        int cropHeight = static_cast<int>(cropWidth / target);
        if (cropHeight > source.rows) {
            cropHeight = source.rows;
            cropWidth = static_cast<int>(cropHeight * target);
        }
        cropWidth = std::clamp(cropWidth, 1, source.cols);
        cropHeight = std::clamp(cropHeight, 1, source.rows);
        source = source(cv::Rect((source.cols - cropWidth) / 2, (source.rows - cropHeight) / 2,
                                 cropWidth, cropHeight));
    }
    const bool shrinking = source.cols > width || source.rows > height;
    cv::resize(source, scratch.fitted, cv::Size(width, height), 0, 0,
               shrinking ? cv::INTER_AREA : cv::INTER_LINEAR);
    const cv::Mat* turned = &scratch.fitted;
    if (layout.rotation == 90) {
        cv::rotate(scratch.fitted, scratch.turned, cv::ROTATE_90_CLOCKWISE);
        turned = &scratch.turned;
    } else if (layout.rotation == 180) {
        cv::rotate(scratch.fitted, scratch.turned, cv::ROTATE_180);
        turned = &scratch.turned;
    } else if (layout.rotation == 270) {
        cv::rotate(scratch.fitted, scratch.turned, cv::ROTATE_90_COUNTERCLOCKWISE);
        turned = &scratch.turned;
    }
    cv::cvtColor(*turned, scratch.i420, cv::COLOR_BGR2YUV_I420);
    // I420 holds Y, then all U, then all V; NV12 interleaves U and V.
    const std::size_t outWidth = static_cast<std::size_t>(turned->cols);
    const std::size_t outHeight = static_cast<std::size_t>(turned->rows);
    const std::size_t lumaSize = outWidth * outHeight;
    const std::size_t chromaSize = lumaSize / 4;
    const std::uint8_t* planes = scratch.i420.ptr<std::uint8_t>();
    std::memcpy(nv12, planes, lumaSize);
    const std::uint8_t* u = planes + lumaSize;
    const std::uint8_t* v = u + chromaSize;
    std::uint8_t* uv = nv12 + lumaSize;
    for (std::size_t i = 0; i < chromaSize; ++i) {
        uv[2 * i] = u[i];
        uv[2 * i + 1] = v[i];
    }
}

} // namespace stemlib_host
