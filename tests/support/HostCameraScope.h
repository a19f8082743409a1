// Runs a test on a chosen simulated camera: loads a camera description given as text (or the
// built-in default camera) with no requested failures, and restores the default camera without
// failures when the scope ends.
//
// The test program also puts the host busctl first on PATH at start-up (see HostCameraScope.cpp),
// so that library code that runs "busctl" reaches the host optics service.
#pragma once

#include "ScratchDirectory.h"

#include <cstdint>
#include <string>
#include <vector>

namespace StemlibTest {

class HostCameraScope {
public:
    // The built-in default camera.
    HostCameraScope();
    // A camera described by text, written to a file of its own in a fresh folder (so that
    // relative paths in it may name files that the test puts beside it).
    explicit HostCameraScope(const std::string& descriptionText);
    ~HostCameraScope();
    HostCameraScope(const HostCameraScope&) = delete;
    HostCameraScope& operator=(const HostCameraScope&) = delete;

    // The folder of the description file, where a test may put the files that it names.
    std::string folder() const { return _folder.path().string(); }

    // Writes descriptionText over the description file and loads it in place of the current one.
    void reload(const std::string& descriptionText);

private:
    ScratchDirectory _folder;
};

// Frame `sequence` of the built-in generator, as a stream of width by height (before rotation)
// turned by rotation delivers it: NV12.
std::vector<std::uint8_t> generatorFrame(unsigned width, unsigned height, unsigned rotation,
                                         unsigned long long sequence);

} // namespace StemlibTest
