// Test helpers for the published PoseNet converted by the model forge: where its models are, why
// a test cannot run them, and a picture of a sample file at a model's input size as a frame
// source delivers it.
#pragma once

#include "ForgedModels.h"
#include "HostInference.h"
#include "ImageFromImageFileSource.h"
#include "SampleClip.h"

#include <cstdint>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace StemlibTest {

// The sanitizer build runs a model many times slower around the engine and decodes more slowly:
// tests of real footage take fewer frames there.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitizedBuild = true;
#else
constexpr bool kSanitizedBuild = false;
#endif

inline bool fileExists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

// Empty when the converted models and the sample data are there; otherwise why not.
inline std::string realPosenetMissing() {
    if (std::string(STEMLIB_POSENET_DIR).empty() ||
        !fileExists(forgedModel(modelforge::posenetModel().name))) {
        return "the published PoseNet was not found at build time (scripts/fetch-posenet.sh)";
    }
    if (!fileExists(sampleDataPath("vtest.avi")) || !fileExists(sampleDataPath("messi5.jpg"))) {
        return "no sample data in " + sampleDataDirectory() + " (scripts/fetch-sample-data.sh)";
    }
    return "";
}

// Ends the test as skipped, with the reason printed, when the real model cannot run.
#define STEMLIB_REQUIRE_REAL_POSENET()                                                             \
    do {                                                                                           \
        const std::string missing_ = StemlibTest::realPosenetMissing();                            \
        if (!missing_.empty()) {                                                                   \
            GTEST_SKIP() << missing_;                                                              \
        }                                                                                          \
    } while (false)

// A sample picture scaled to width x height, RGB, as ImageFromImageFileSource delivers it.
inline std::vector<std::uint8_t> samplePicture(const std::string& name, int width, int height) {
    Ombrel::ImageFromImageFileSource source(sampleDataPath(name));
    std::vector<std::uint8_t> rgb(static_cast<std::size_t>(width) * height * 3);
    source.getFrame(
        Ombrel::Resolution(static_cast<unsigned int>(width), static_cast<unsigned int>(height)), 0,
        rgb.data());
    return rgb;
}

} // namespace StemlibTest
