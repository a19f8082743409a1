// Whether the test program runs on an emulated processor (the arm64 build under
// qemu-aarch64-static on a PC), and a skip for tests that make no sense there, such as those
// that run a real network for seconds: under emulation SIMD-heavy loops run about 20 times
// slower. The reason is printed with the test's result.
//
//   TEST(PoseNetwork, FindsTheDancers) {
//       STEMLIB_SKIP_UNDER_EMULATION("runs the full pose network for several seconds");
//       ...
//   }
//
// STEMLIB_UNDER_EMULATION=1 or 0 in the environment overrides the detection.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace StemlibTest {

inline bool detectEmulation() {
    if (const char* forced = std::getenv("STEMLIB_UNDER_EMULATION");
        forced != nullptr && *forced != '\0') {
        return std::string(forced) != "0";
    }
#if defined(__x86_64__) || defined(__i386__)
    return false;
#else
    // A user-mode emulator passes the host's /proc/cpuinfo through: a program built for another
    // processor that finds a PC's processor described there is being emulated.
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string line;
    while (std::getline(cpuinfo, line)) {
        if (line.rfind("vendor_id", 0) == 0 || line.rfind("model name", 0) == 0) {
            return true;
        }
    }
    return false;
#endif
}

inline bool underEmulation() {
    static const bool emulated = detectEmulation();
    return emulated;
}

} // namespace StemlibTest

// Skips the rest of the test under emulation, printing the reason.
#define STEMLIB_SKIP_UNDER_EMULATION(reason)                                                       \
    if (::StemlibTest::underEmulation())                                                           \
    GTEST_SKIP() << "skipped under processor emulation: " << (reason)
