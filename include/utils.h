// Diagnostics and small helpers that the other modules lean on: the steady-clock stopwatch pair,
// file checks, the system's memory figures, and writers that put matrices, points and tensors
// into the log.
//
// The writers log through g_stemlibLogger at info level, one line a row (a tensor channel is one
// message with its rows on lines of their own). logMemoryUsage writes to the logger it is given,
// without the library's prefix. No function holds state; all may be called from any thread.
#pragma once

#include "CommonStructs.h"
#include "PerspectiveMath.h"

#include <opencv2/core.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Ombrel {

class Logger;

// The steady clock's present.
TimePoint now();
// Whole milliseconds since start, truncated: just under a second reads 999.
int32_t timeSince(const TimePoint& start);

// Whether the file can be opened for reading.
bool doesFileExist(const std::string& path);
// Whether remove() succeeded.
bool deleteFile(const std::string& path);

// The sysinfo figures in units of 1024 bytes. On failure logs "getMemoryState: Failed to retrieve
// memory information." and returns zeros.
MemoryState getMemoryState();
// Used memory (total minus free) in kilobytes, the subtraction in 32 bits; -1 with the error line
// "getMemoryUsage: Failed to retrieve memory information." on failure.
int32_t getMemoryUsage();
// logger.info("logMemoryUsage: <msg> - Total memory: <kB> kB. Free memory: <kB> kB."), or
// logger.error("logMemoryUsage: Failed to retrieve memory information.").
void logMemoryUsage(const std::string& msg, Logger& logger);

// "[<message>] CV Mat. Size=<rows> rows x <cols> cols", then one line a row: the row number with
// fill 0 and width 3, ": ", the elements as doubles in fixed notation with precision 4, one blank
// between. A matrix of another element type is converted to double first (never reinterpreted);
// channels are laid side by side.
void writeCVMatToLog(const std::string& message, const cv::Mat& mat);
// The same with the elements as floats.
void writeCVMatFloatToLog(const std::string& message, const cv::Mat& mat);
// "[<message>] Matrix3x3:", then three rows: number, ": " and the elements in the stream's
// default float format, one blank between.
void writeMatrix3x3ToLog(const std::string& message, const Matrix3x3& matrix);
// message as it stands, then one line a point: index with fill 0 and width 3, ": " and
// "(x, y)" or "(x, y, z)" in fixed notation with precision 3.
void writeCVPointsToLog(const std::string& message, const std::vector<cv::Point2f>& screenPoints);
void writeCVPointsToLog(const std::string& message, const std::vector<cv::Point3f>& points);

// One message a channel of an interleaved width x height x channels tensor, from channel 0:
// "logTensorDataT<unsigned char>: Tensor Data for <name> Channel <c>" (or "<float>") and a
// newline, then a line a row: y with width 4, ": " and each element followed by a blank (bytes as
// integers of width 4, floats fixed with precision 3). A null data pointer logs an error instead.
template <typename T>
void logTensorDataT(const T* data, size_t width, size_t height, size_t channels,
                    const std::string& tensorName);

extern template void logTensorDataT<uint8_t>(const uint8_t*, size_t, size_t, size_t,
                                             const std::string&);
extern template void logTensorDataT<float>(const float*, size_t, size_t, size_t,
                                           const std::string&);

} // namespace Ombrel
