// The host busctl: the optics service's focal length, in the form the library parses, and the
// real tool's failures for anything else.
#include "HostCameraScope.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <sys/wait.h>

namespace {

using StemlibTest::HostCameraScope;

const std::string kGet = "busctl --verbose get-property com.axis.Optics2 ";
const std::string kQuery = kGet + "/com/axis/Optics0 com.axis.Iris1 FocalLength";
const std::string kFailed = "Failed to get property FocalLength on interface com.axis.Iris1: ";

// Runs command through the shell, as the library does: its exit status, a blank, and what it
// wrote on standard output and standard error.
std::string run(const std::string& command) {
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return "popen failed";
    }
    std::string out;
    char buffer[128];
    while (fgets(buffer, sizeof buffer, pipe) != nullptr) {
        out += buffer;
    }
    const int status = pclose(pipe);
    return std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + " " + out;
}

TEST(HostBusctl, AnswersTheFocalLengthAsTheVerboseToolDoes) {
    const HostCameraScope defaultCamera;
    EXPECT_EQ(run(kQuery), "0 UINT32 4000;\n");
    // The camera that the process loads reaches the child process too.
    const HostCameraScope described("optics.focal_length_um = 2800\n");
    EXPECT_EQ(run(kQuery), "0 UINT32 2800;\n");
}

TEST(HostBusctl, FailsLikeTheRealToolForAnythingElse) {
    HostCameraScope camera("root.Brand.ProdShortName = Fixed lens\n");
    EXPECT_EQ(run(kQuery),
              "1 " + kFailed +
                  "The name com.axis.Optics2 was not provided by any .service files\n");
    camera.reload("optics.focal_length_um = 4000\n");
    EXPECT_EQ(run(kGet + "/com/axis/Optics0 com.axis.Iris1 Aperture"),
              "1 Failed to get property Aperture on interface com.axis.Iris1: Unknown interface "
              "com.axis.Iris1 or property Aperture.\n");
    EXPECT_EQ(run(kGet + "/com/axis/Optics1 com.axis.Iris1 FocalLength"),
              "1 " + kFailed + "Unknown object '/com/axis/Optics1'.\n");
    EXPECT_EQ(run("busctl status").rfind("1 ", 0), 0U);
    EXPECT_EQ(run("busctl --bogus get-property"), "1 busctl: unrecognized option '--bogus'\n");
    EXPECT_EQ(run("STEMLIB_HOST_FAIL='busctl=Connection timed out' " + kQuery),
              "1 " + kFailed + "Connection timed out\n");
    camera.reload("optics.focal_length_um = 4.5\n");
    EXPECT_NE(run(kQuery).find("is not a whole number of microns"), std::string::npos);
}

} // namespace
