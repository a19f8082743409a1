// The host busctl: the optics service's focal length, in the form the library parses, and the
// real tool's failures for anything else.
#include "HostCameraScope.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <sys/wait.h>

namespace {

using StemlibTest::HostCameraScope;

const char* const kQuery =
    "busctl --verbose get-property com.axis.Optics2 /com/axis/Optics0 com.axis.Iris1 FocalLength";

struct CommandResult {
    std::string out;
    int status;
};

// Runs command through the shell, as the library does, with standard error folded in.
CommandResult run(const std::string& command) {
    CommandResult result{std::string(), -1};
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    char buffer[128];
    while (fgets(buffer, sizeof buffer, pipe) != nullptr) {
        result.out += buffer;
    }
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

TEST(HostBusctl, AnswersTheFocalLengthAsTheVerboseToolDoes) {
    const HostCameraScope defaultCamera;
    const CommandResult answer = run(kQuery);
    EXPECT_EQ(answer.status, 0);
    EXPECT_EQ(answer.out, "UINT32 4000;\n");

    const CommandResult terse =
        run("busctl get-property com.axis.Optics2 /com/axis/Optics0 com.axis.Iris1 "
            "FocalLength");
    EXPECT_EQ(terse.out, "u 4000\n");

    // The camera that the process loads reaches the child process too.
    const HostCameraScope described("optics.focal_length_um = 2800\n");
    EXPECT_EQ(run(kQuery).out, "UINT32 2800;\n");
}

TEST(HostBusctl, FailsLikeTheRealToolForAnythingElse) {
    HostCameraScope camera("root.Brand.ProdShortName = Fixed lens\n");
    CommandResult answer = run(kQuery);
    EXPECT_EQ(answer.status, 1);
    EXPECT_EQ(answer.out,
              "Failed to get property FocalLength on interface com.axis.Iris1: The name "
              "com.axis.Optics2 was not provided by any .service files\n");

    camera.reload("optics.focal_length_um = 4000\n");
    answer = run("busctl --verbose get-property com.axis.Optics2 /com/axis/Optics0 com.axis.Iris1 "
                 "Aperture");
    EXPECT_EQ(answer.status, 1);
    EXPECT_EQ(answer.out, "Failed to get property Aperture on interface com.axis.Iris1: Unknown "
                          "interface com.axis.Iris1 or property Aperture.\n");
    answer = run("busctl --verbose get-property com.axis.Optics2 /com/axis/Optics1 com.axis.Iris1 "
                 "FocalLength");
    EXPECT_EQ(answer.status, 1);
    EXPECT_NE(answer.out.find("Unknown object '/com/axis/Optics1'."), std::string::npos);
    EXPECT_EQ(run("busctl status").status, 1);
    EXPECT_EQ(run("busctl --bogus get-property").out, "busctl: unrecognized option '--bogus'\n");

    answer = run(std::string("STEMLIB_HOST_FAIL='busctl=Connection timed out' ") + kQuery);
    EXPECT_EQ(answer.status, 1);
    EXPECT_EQ(answer.out, "Failed to get property FocalLength on interface com.axis.Iris1: "
                          "Connection timed out\n");

    camera.reload("optics.focal_length_um = 4.5\n");
    answer = run(kQuery);
    EXPECT_EQ(answer.status, 1);
    EXPECT_NE(answer.out.find("is not a whole number of microns"), std::string::npos);
}

} // namespace
