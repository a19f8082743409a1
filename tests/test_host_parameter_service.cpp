// The host parameter service: reads from the camera description, name forms, the process's own
// changes and bad arguments. Reads through the camera manager, with requested failures, are
// tested with the manager.
#include "HostCameraScope.h"

#include <axsdk/axparameter.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

using StemlibTest::HostCameraScope;

struct ParameterFree {
    void operator()(AXParameter* parameter) const { ax_parameter_free(parameter); }
};
using ParameterPtr = std::unique_ptr<AXParameter, ParameterFree>;

// The value, or "<error code: message>".
std::string read(AXParameter* parameter, const char* name) {
    gchar* value = nullptr;
    GError* error = nullptr;
    if (!ax_parameter_get(parameter, name, &value, &error)) {
        EXPECT_EQ(error->domain, ax_parameter_error_quark());
        const std::string text =
            "<error " + std::to_string(error->code) + ": " + error->message + ">";
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
    EXPECT_EQ(read(parameter.get(), "ImageSource.I0.Sensor.AspectRatio"), "16:9");
    EXPECT_EQ(read(parameter.get(), "Image.I0.Appearance.Rotation"), "0");
    EXPECT_EQ(read(parameter.get(), "root.Brand.Missing"),
              "<error 10: parameter root.Brand.Missing does not exist>");
    // Keys that are not parameters are not visible through the service.
    EXPECT_EQ(read(parameter.get(), "optics.focal_length_um").rfind("<error 10", 0), 0U);
    EXPECT_EQ(read(parameter.get(), ""), "<error 0: invalid argument: no handle or no name>");
    EXPECT_EQ(ax_parameter_new(nullptr, nullptr), nullptr);
}

TEST(HostAxParameter, KeepsChangesAndApplicationParametersUntilAnotherCameraIsLoaded) {
    const std::string description = "root.Brand.ProdShortName = Dome\nroot.Demo.Threshold = 5\n";
    HostCameraScope camera(description);
    ParameterPtr demo(ax_parameter_new("Demo", nullptr));
    ParameterPtr other(ax_parameter_new("Other", nullptr));
    // A bare name finds the application's own parameter; changes are seen by every handle.
    EXPECT_EQ(read(demo.get(), "Threshold"), "5");
    EXPECT_EQ(read(other.get(), "Threshold").rfind("<error 10", 0), 0U);
    ASSERT_TRUE(ax_parameter_set(demo.get(), "Threshold", "7", TRUE, nullptr));
    ASSERT_TRUE(ax_parameter_set(demo.get(), "Brand.ProdShortName", "Bullet", FALSE, nullptr));
    EXPECT_EQ(read(other.get(), "root.Demo.Threshold"), "7");
    EXPECT_EQ(read(other.get(), "root.Brand.ProdShortName"), "Bullet");
    EXPECT_FALSE(ax_parameter_set(demo.get(), "Nothing", "1", TRUE, nullptr));

    ASSERT_TRUE(ax_parameter_add(demo.get(), "Mode", "auto", "string", nullptr));
    EXPECT_EQ(read(demo.get(), "Mode"), "auto");
    EXPECT_FALSE(ax_parameter_add(demo.get(), "Mode", "manual", "string", nullptr));
    GList* names = ax_parameter_list(demo.get(), nullptr);
    std::string listed;
    for (GList* item = names; item != nullptr; item = item->next) {
        listed += static_cast<const char*>(item->data) + std::string(" ");
    }
    g_list_free_full(names, g_free);
    EXPECT_EQ(listed, "root.Brand.ProdShortName root.Demo.Threshold root.Demo.Mode ");
    ASSERT_TRUE(ax_parameter_remove(demo.get(), "Mode", nullptr));
    EXPECT_EQ(read(demo.get(), "Mode").rfind("<error 10", 0), 0U);
    EXPECT_FALSE(ax_parameter_remove(demo.get(), "Mode", nullptr));

    camera.reload(description);
    EXPECT_EQ(read(demo.get(), "Threshold"), "5");
    EXPECT_EQ(read(demo.get(), "Brand.ProdShortName"), "Dome");
}

} // namespace
