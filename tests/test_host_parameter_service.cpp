// The host parameter service: reads from the camera description, name forms, the process's own
// changes, errors and fault injection.
#include "HostCameraScope.h"
#include "stemlib-host.h"

#include <axsdk/axparameter.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using StemlibTest::HostCameraScope;

struct ParameterFree {
    void operator()(AXParameter* parameter) const { ax_parameter_free(parameter); }
};
using ParameterPtr = std::unique_ptr<AXParameter, ParameterFree>;

// The value, or "<error: message>".
std::string read(AXParameter* parameter, const char* name) {
    gchar* value = nullptr;
    GError* error = nullptr;
    if (!ax_parameter_get(parameter, name, &value, &error)) {
        const std::string text =
            std::string("<error ") + std::to_string(error->code) + ": " + error->message + ">";
        EXPECT_EQ(error->domain, ax_parameter_error_quark());
        g_error_free(error);
        return text;
    }
    const std::string text = value;
    g_free(value);
    return text;
}

TEST(HostAxParameter, AnswersTheDefaultCameraUnderEveryNameForm) {
    HostCameraScope camera;
    ParameterPtr parameter(ax_parameter_new("Stemlib", nullptr));
    ASSERT_NE(parameter, nullptr);
    EXPECT_EQ(read(parameter.get(), "root.Properties.System.Soc"), "Axis Artpec-8");
    EXPECT_EQ(read(parameter.get(), "Properties.System.Soc"), "Axis Artpec-8");
    EXPECT_EQ(read(parameter.get(), "root.ImageSource.I0.Sensor.AspectRatio"), "16:9");
    EXPECT_EQ(read(parameter.get(), "root.Image.I0.Appearance.Rotation"), "0");
    EXPECT_EQ(read(parameter.get(), "root.Brand.ProdFullName"), "AXIS Host Camera (simulated)");
    EXPECT_EQ(read(parameter.get(), "root.Brand.Missing"),
              "<error 10: parameter root.Brand.Missing does not exist>");
    // Keys that are not parameters are not visible through the service.
    EXPECT_EQ(read(parameter.get(), "optics.focal_length_um").rfind("<error 10", 0), 0U);
}

TEST(HostAxParameter, KeepsChangesAndApplicationParametersUntilAnotherCameraIsLoaded) {
    HostCameraScope camera("root.Brand.ProdShortName = Dome\nroot.Demo.Threshold = 5\n");
    ParameterPtr demo(ax_parameter_new("Demo", nullptr));
    ParameterPtr other(ax_parameter_new("Other", nullptr));
    GError* error = nullptr;
    // A bare name finds the application's own parameter.
    EXPECT_EQ(read(demo.get(), "Threshold"), "5");
    EXPECT_EQ(read(other.get(), "Threshold").rfind("<error 10", 0), 0U);
    ASSERT_TRUE(ax_parameter_set(demo.get(), "Threshold", "7", TRUE, &error));
    ASSERT_TRUE(ax_parameter_set(demo.get(), "Brand.ProdShortName", "Bullet", FALSE, &error));
    EXPECT_EQ(read(other.get(), "root.Demo.Threshold"), "7");
    EXPECT_EQ(read(other.get(), "root.Brand.ProdShortName"), "Bullet");
    EXPECT_FALSE(ax_parameter_set(demo.get(), "Nothing", "1", TRUE, &error));
    EXPECT_EQ(error->code, AX_PARAMETER_PARAM_PATH_ERROR);
    g_clear_error(&error);

    ASSERT_TRUE(ax_parameter_add(demo.get(), "Mode", "auto", "string", &error));
    EXPECT_EQ(read(demo.get(), "Mode"), "auto");
    EXPECT_FALSE(ax_parameter_add(demo.get(), "Mode", "manual", "string", &error));
    EXPECT_EQ(error->code, AX_PARAMETER_PARAM_ADDED_ERROR);
    g_clear_error(&error);
    GList* names = ax_parameter_list(demo.get(), &error);
    std::vector<std::string> listed;
    for (GList* item = names; item != nullptr; item = item->next) {
        listed.push_back(static_cast<const char*>(item->data));
    }
    g_list_free_full(names, g_free);
    EXPECT_EQ(listed, (std::vector<std::string>{"root.Brand.ProdShortName", "root.Demo.Threshold",
                                                "root.Demo.Mode"}));
    ASSERT_TRUE(ax_parameter_remove(demo.get(), "Mode", &error));
    EXPECT_EQ(read(demo.get(), "Mode").rfind("<error 10", 0), 0U);
    EXPECT_FALSE(ax_parameter_remove(demo.get(), "Mode", &error));
    g_clear_error(&error);

    camera.reload("root.Brand.ProdShortName = Dome\nroot.Demo.Threshold = 5\n");
    EXPECT_EQ(read(demo.get(), "Threshold"), "5");
    EXPECT_EQ(read(demo.get(), "Brand.ProdShortName"), "Dome");
}

TEST(HostAxParameter, CallsFailOnRequestAndOnBadArguments) {
    HostCameraScope camera;
    GError* error = nullptr;
    EXPECT_EQ(ax_parameter_new(nullptr, &error), nullptr);
    EXPECT_EQ(error->code, AX_PARAMETER_INVALID_ARG_ERROR);
    g_clear_error(&error);

    stemlib_host_set_failure("ax_parameter_new", "parameter service down");
    EXPECT_EQ(ax_parameter_new("Stemlib", &error), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain, ax_parameter_error_quark());
    EXPECT_STREQ(error->message, "parameter service down");
    g_clear_error(&error);
    stemlib_host_clear_failures();

    ParameterPtr parameter(ax_parameter_new("Stemlib", nullptr));
    stemlib_host_set_failure_after("ax_parameter_get", 1, "read refused");
    EXPECT_EQ(read(parameter.get(), "root.Brand.ProdShortName"), "AXIS Host Camera");
    EXPECT_EQ(read(parameter.get(), "root.Brand.ProdShortName"), "<error 9: read refused>");
    gchar* value = nullptr;
    EXPECT_FALSE(ax_parameter_get(parameter.get(), nullptr, &value, nullptr));
    EXPECT_EQ(value, nullptr);
    ax_parameter_free(nullptr);
}

} // namespace
