#include "utils.h"

#include "Logger.h"
#include "Points.h"

#include <chrono>
#include <cstdio>
#include <iomanip>
#include <sstream>
#include <sys/sysinfo.h>

namespace Ombrel {

TimePoint now() {
    return std::chrono::steady_clock::now();
}

int32_t timeSince(const TimePoint& start) {
    return static_cast<int32_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now() - start).count());
}

bool doesFileExist(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "r");
    if (file == nullptr) {
        return false;
    }
    std::fclose(file);
    return true;
}

bool deleteFile(const std::string& path) {
    return std::remove(path.c_str()) == 0;
}

namespace {

// A sysinfo figure in units of 1024 bytes.
unsigned long kilobytes(unsigned long figure, unsigned int unit) {
    return static_cast<unsigned long>((static_cast<uint64_t>(figure) * unit) >> 10);
}

const char* const kNoMemoryInformation = "Failed to retrieve memory information.";

} // namespace

MemoryState getMemoryState() {
    struct sysinfo info {};
    if (sysinfo(&info) != 0) {
        g_stemlibLogger.error(std::string("getMemoryState: ") + kNoMemoryInformation);
        return MemoryState();
    }
    MemoryState state;
    state.totalram = kilobytes(info.totalram, info.mem_unit);
    state.freeram = kilobytes(info.freeram, info.mem_unit);
    state.sharedram = kilobytes(info.sharedram, info.mem_unit);
    state.bufferram = kilobytes(info.bufferram, info.mem_unit);
    state.totalswap = kilobytes(info.totalswap, info.mem_unit);
    state.freeswap = kilobytes(info.freeswap, info.mem_unit);
    state.totalhigh = kilobytes(info.totalhigh, info.mem_unit);
    state.freehigh = kilobytes(info.freehigh, info.mem_unit);
    return state;
}

int32_t getMemoryUsage() {
    struct sysinfo info {};
    if (sysinfo(&info) != 0) {
        g_stemlibLogger.error(std::string("getMemoryUsage: ") + kNoMemoryInformation);
        return -1;
    }
    // In 32 bits, wrapping as unsigned arithmetic does rather than overflowing.
    const uint32_t total = static_cast<uint32_t>(kilobytes(info.totalram, info.mem_unit));
    const uint32_t free = static_cast<uint32_t>(kilobytes(info.freeram, info.mem_unit));
    return static_cast<int32_t>(total - free);
}

void logMemoryUsage(const std::string& msg, Logger& logger) {
    struct sysinfo info {};
    if (sysinfo(&info) != 0) {
        logger.error(std::string("logMemoryUsage: ") + kNoMemoryInformation);
        return;
    }
    logger.info("logMemoryUsage: " + msg +
                " - Total memory: " + std::to_string(kilobytes(info.totalram, info.mem_unit)) +
                " kB. Free memory: " + std::to_string(kilobytes(info.freeram, info.mem_unit)) +
                " kB.");
}

namespace {

std::string rowNumber(size_t row) {
    std::ostringstream out;
    out << std::setfill('0') << std::setw(3) << row;
    return out.str();
}

// The header and one line a row, each element of type T in fixed notation with precision 4.
template <typename T>
void writeMatRows(const char* function, const std::string& message, const cv::Mat& mat, int depth) {
    const std::string prefix = std::string(function) + ": ";
    g_stemlibLogger.info(prefix + "[" + message + "] CV Mat. Size=" + std::to_string(mat.rows) +
                         " rows x " + std::to_string(mat.cols) + " cols");
    if (mat.empty()) {
        return;
    }
    cv::Mat values = mat.reshape(1);
    if (values.depth() != depth) {
        values.convertTo(values, depth);
    }
    for (int r = 0; r < values.rows; ++r) {
        std::ostringstream line;
        line << std::fixed << std::setprecision(4);
        const T* row = values.ptr<T>(r);
        for (int c = 0; c < values.cols; ++c) {
            line << (c > 0 ? " " : "") << row[c];
        }
        g_stemlibLogger.info(prefix + rowNumber(static_cast<size_t>(r)) + ": " + line.str());
    }
}

} // namespace

void writeCVMatToLog(const std::string& message, const cv::Mat& mat) {
    writeMatRows<double>("writeCVMatToLog", message, mat, CV_64F);
}

void writeCVMatFloatToLog(const std::string& message, const cv::Mat& mat) {
    writeMatRows<float>("writeCVMatFloatToLog", message, mat, CV_32F);
}

void writeMatrix3x3ToLog(const std::string& message, const Matrix3x3& matrix) {
    const std::string prefix = "writeMatrix3x3ToLog: ";
    g_stemlibLogger.info(prefix + "[" + message + "] Matrix3x3:");
    for (int r = 0; r < 3; ++r) {
        std::ostringstream line;
        line << matrix(r, 0) << " " << matrix(r, 1) << " " << matrix(r, 2);
        g_stemlibLogger.info(prefix + rowNumber(static_cast<size_t>(r)) + ": " + line.str());
    }
}

void writeCVPointsToLog(const std::string& message, const std::vector<cv::Point2f>& screenPoints) {
    const std::string prefix = "writeCVPointsToLog: ";
    g_stemlibLogger.info(prefix + message);
    for (size_t i = 0; i < screenPoints.size(); ++i) {
        std::ostringstream line;
        line << std::fixed << std::setprecision(3) << "(" << screenPoints[i].x << ", "
             << screenPoints[i].y << ")";
        g_stemlibLogger.info(prefix + rowNumber(i) + ": " + line.str());
    }
}

void writeCVPointsToLog(const std::string& message, const std::vector<cv::Point3f>& points) {
    const std::string prefix = "writeCVPointsToLog: ";
    g_stemlibLogger.info(prefix + message);
    for (size_t i = 0; i < points.size(); ++i) {
        std::ostringstream line;
        line << std::fixed << std::setprecision(3) << "(" << points[i].x << ", " << points[i].y
             << ", " << points[i].z << ")";
        g_stemlibLogger.info(prefix + rowNumber(i) + ": " + line.str());
    }
}

namespace {

template <typename T>
struct TensorElement;

template <>
struct TensorElement<uint8_t> {
    static constexpr const char* function = "logTensorDataT<unsigned char>";
    static void write(std::ostream& out, uint8_t value) {
        out << std::setw(4) << static_cast<int>(value) << " ";
    }
};

template <>
struct TensorElement<float> {
    static constexpr const char* function = "logTensorDataT<float>";
    static void write(std::ostream& out, float value) {
        out << std::fixed << std::setprecision(3) << value << " ";
    }
};

} // namespace

template <typename T>
void logTensorDataT(const T* data, size_t width, size_t height, size_t channels,
                    const std::string& tensorName) {
    const std::string prefix = std::string(TensorElement<T>::function) + ": ";
    if (data == nullptr) {
        g_stemlibLogger.error(prefix + "No data for tensor " + tensorName);
        return;
    }
    for (size_t c = 0; c < channels; ++c) {
        std::ostringstream text;
        text << "Tensor Data for " << tensorName << " Channel " << c << "\n";
        for (size_t y = 0; y < height; ++y) {
            text << std::setw(4) << y << ": ";
            for (size_t x = 0; x < width; ++x) {
                TensorElement<T>::write(text, data[(y * width + x) * channels + c]);
            }
            text << "\n";
        }
        g_stemlibLogger.info(prefix + text.str());
    }
}

template void logTensorDataT<uint8_t>(const uint8_t*, size_t, size_t, size_t, const std::string&);
template void logTensorDataT<float>(const float*, size_t, size_t, size_t, const std::string&);

} // namespace Ombrel
