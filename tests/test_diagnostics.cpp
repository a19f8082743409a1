#include "utils.h"

#include "LogLines.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"
#include "ScratchDirectory.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fstream>
#include <sys/sysinfo.h>
#include <thread>

using namespace Ombrel;
using namespace StemlibTest;

namespace {
bool g_failSysinfo = false;
}

// The test program's own sysinfo: the library's calls bind to it, so a test can make it fail.
extern "C" int sysinfo(struct sysinfo* info) {
    if (g_failSysinfo) {
        errno = EFAULT;
        return -1;
    }
    using Real = int (*)(struct sysinfo*);
    static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "sysinfo"));
    return real(info);
}

TEST(Diagnostics, TimeSinceTruncatesToWholeMilliseconds) {
    const TimePoint start = now();
    // Just under a second ago reads 999 (or a little more on a slow machine), never 1000 early.
    const int32_t almost = timeSince(start - std::chrono::microseconds(999999));
    EXPECT_GE(almost, 999);
    EXPECT_LT(almost, 1999);
    // A point ahead of now gives a negative count, truncated toward zero.
    const int32_t ahead = timeSince(now() + std::chrono::milliseconds(5000));
    EXPECT_LE(ahead, -4000);
    EXPECT_GE(ahead, -5000);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_GE(timeSince(start), 20);
}

TEST(Diagnostics, FileHelpers) {
    ScratchDirectory dir;
    const std::string path = dir.file("present.txt");
    EXPECT_FALSE(doesFileExist(path));
    EXPECT_FALSE(deleteFile(path));
    std::ofstream(path) << "x";
    EXPECT_TRUE(doesFileExist(path));
    EXPECT_TRUE(deleteFile(path));
    EXPECT_FALSE(doesFileExist(path));
}

TEST(Diagnostics, MemoryFiguresAndTheirFailure) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    const MemoryState state = getMemoryState();
    EXPECT_GT(state.totalram, 0u);
    EXPECT_LE(state.freeram, state.totalram);
    const int32_t used = getMemoryUsage();
    EXPECT_GT(used, 0);
    EXPECT_LE(static_cast<unsigned long>(used), state.totalram);
    logMemoryUsage("after start", logger);
    ASSERT_EQ(logger.lines.size(), 1u);
    EXPECT_EQ(logger.lines[0].level, "info");
    EXPECT_EQ(logger.lines[0].message.rfind("logMemoryUsage: after start - Total memory: ", 0), 0u)
        << "no library prefix: the line goes to the logger given";
    EXPECT_NE(logger.lines[0].message.find(" kB. Free memory: "), std::string::npos);
    EXPECT_EQ(logger.lines[0].message.substr(logger.lines[0].message.size() - 4), " kB.");
    logger.lines.clear();

    g_failSysinfo = true;
    const MemoryState none = getMemoryState();
    const int32_t noUsage = getMemoryUsage();
    logMemoryUsage("ignored", logger);
    g_failSysinfo = false;
    EXPECT_EQ(none.totalram, 0u);
    EXPECT_EQ(noUsage, -1);
    EXPECT_TRUE(hasLine(logger, "error", "getMemoryState: Failed to retrieve memory information."));
    EXPECT_TRUE(hasLine(logger, "error", "getMemoryUsage: Failed to retrieve memory information."));
    EXPECT_TRUE(hasLine(logger, "error", "logMemoryUsage: Failed to retrieve memory information."));
}

TEST(Diagnostics, MatrixAndPointWritersLineFormats) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    cv::Mat doubles = (cv::Mat_<double>(2, 3) << 1, -2.5, 3.14159, 0, 10, 1e-5);
    writeCVMatToLog("R", doubles);
    // A float matrix is converted, never read as doubles past its end.
    cv::Mat floats = (cv::Mat_<float>(1, 5) << 0.1f, 0, 0, 0, -1);
    writeCVMatToLog("D AS DOUBLE", floats);
    writeCVMatFloatToLog("K", floats);
    Matrix3x3 h;
    h(0, 0) = 1;
    h(0, 2) = 0.5f;
    h(1, 1) = 1.0f / 3.0f;
    h(2, 2) = 1e-7f;
    writeMatrix3x3ToLog("H", h);
    writeCVPointsToLog("Screen", std::vector<cv::Point2f>{{1.5f, 2}, {-3, 4.0005f}});
    writeCVPointsToLog("World", std::vector<cv::Point3f>{{1, 2, 3}});
    writeCVPointsToLog("None", std::vector<cv::Point2f>{});
    const std::vector<std::string> expected = {
        "writeCVMatToLog: [R] CV Mat. Size=2 rows x 3 cols",
        "writeCVMatToLog: 000: 1.0000 -2.5000 3.1416",
        "writeCVMatToLog: 001: 0.0000 10.0000 0.0000",
        "writeCVMatToLog: [D AS DOUBLE] CV Mat. Size=1 rows x 5 cols",
        "writeCVMatToLog: 000: 0.1000 0.0000 0.0000 0.0000 -1.0000",
        "writeCVMatFloatToLog: [K] CV Mat. Size=1 rows x 5 cols",
        "writeCVMatFloatToLog: 000: 0.1000 0.0000 0.0000 0.0000 -1.0000",
        "writeMatrix3x3ToLog: [H] Matrix3x3:",
        "writeMatrix3x3ToLog: 000: 1 0 0.5",
        "writeMatrix3x3ToLog: 001: 0 0.333333 0",
        "writeMatrix3x3ToLog: 002: 0 0 1e-07",
        "writeCVPointsToLog: Screen",
        "writeCVPointsToLog: 000: (1.500, 2.000)",
        "writeCVPointsToLog: 001: (-3.000, 4.001)",
        "writeCVPointsToLog: World",
        "writeCVPointsToLog: 000: (1.000, 2.000, 3.000)",
        "writeCVPointsToLog: None",
    };
    EXPECT_EQ(linesAt(logger, "info"), expected);
}

TEST(Diagnostics, TensorWriterOneMessagePerChannel) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    // 3 wide, 2 high, 2 channels, interleaved.
    const uint8_t bytes[] = {1, 2, 30, 40, 255, 0, 7, 8, 9, 10, 11, 12};
    logTensorDataT(bytes, 3, 2, 2, "heatmap");
    const float values[] = {0.5f, -1.25f, 2.0f, 1e-4f};
    logTensorDataT(values, 2, 2, 1, "offsets");
    logTensorDataT(static_cast<const float*>(nullptr), 2, 2, 1, "missing");
    const std::vector<std::string> expected = {
        "logTensorDataT<unsigned char>: Tensor Data for heatmap Channel 0\n"
        "   0:    1   30  255 \n"
        "   1:    7    9   11 \n",
        "logTensorDataT<unsigned char>: Tensor Data for heatmap Channel 1\n"
        "   0:    2   40    0 \n"
        "   1:    8   10   12 \n",
        "logTensorDataT<float>: Tensor Data for offsets Channel 0\n"
        "   0: 0.500 -1.250 \n"
        "   1: 2.000 0.000 \n",
    };
    EXPECT_EQ(linesAt(logger, "info"), expected);
    EXPECT_TRUE(hasLine(logger, "error", "logTensorDataT<float>: No data for tensor missing"));
}
