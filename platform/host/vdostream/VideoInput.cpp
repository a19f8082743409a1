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
        struct stat info {};
        if (stat(_path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
            throw std::runtime_error("video file " + _path + " does not exist");
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
// in memory up to kCacheBytes in all; beyond that each frame is read from its file again.
class ImageFolderInput : public VideoInput {
public:
    ImageFolderInput(std::string folder, const InputLayout& layout)
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
        _cached = _files.size() * frameBytes <= kCacheBytes;
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

std::unique_ptr<VideoInput> makeVideoInput(const CameraDescription& camera,
                                           const InputLayout& layout) {
    const std::string spec = camera.getOr("video.input", "generator");
    if (spec == "generator") {
        return std::make_unique<GeneratorInput>(layout);
    }
    if (spec.compare(0, 5, "file:") == 0 && spec.size() > 5) {
        return std::make_unique<VideoFileInput>(camera.resolvePath(spec.substr(5)), layout);
    }
    if (spec.compare(0, 7, "images:") == 0 && spec.size() > 7) {
        return std::make_unique<ImageFolderInput>(camera.resolvePath(spec.substr(7)), layout);
    }
    throw std::runtime_error("video.input \"" + spec +
                             "\" is none of generator, file:<path>, images:<folder>");
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
