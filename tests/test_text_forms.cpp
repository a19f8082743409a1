// Text forms of areas and managers: the exact format, the short-text rules, and hostile input.
#include "AOIManager.h"
#include "ExclusionManager.h"
#include "LogLines.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace Ombrel;

TEST(TextForms, SixSignificantDigitsStaleValuesAndTheVertexLimit) {
    std::ostringstream precise; // the stream's default format
    precise << FPolygon(0.123456789f, 1234567.0f, 0, 0, 1, 1);
    EXPECT_EQ(precise.str(), "3 0.123457 1.23457e+06 0 0 1 1 ");
    // Replaced, not appended to; the failed extraction stores 0, and the failed stream nothing.
    FPolygon polygon(9, 9, 9, 9, 9, 9);
    std::istringstream("3 0.5 0.5 0.7 x") >> polygon;
    EXPECT_EQ(polygon, FPolygon(0.5f, 0.5f, 0.7f, 0.0f, 0.7f, 0.0f));
    // An exhausted stream leaves the flag and the threshold of an area as they were.
    FAOI area(true, FRectangle(0, 0, 1, 1), 12);
    std::istringstream("") >> area;
    EXPECT_TRUE(area.isActive() && area.getAlertSeconds() == 12u);

    // A count above 100000 is refused with an error line, the polygon unchanged, the stream
    // failed; at the limit the count is honoured, with stale values.
    StemlibTest::RecordingLogger logger;
    StemlibTest::ScopedLogger scope(logger);
    for (const char* text : {"100001 0 0", "4294967295 1 1", "-1 0 0", "99999999999999999999"}) {
        std::istringstream in(text);
        EXPECT_TRUE((in >> polygon).fail() && polygon.getNPoints() == 3) << text;
    }
    const std::vector<std::string> errors = StemlibTest::linesAt(logger, "error");
    EXPECT_EQ(errors.size(), 4u); // the overflowing count too
    EXPECT_EQ(errors.at(0), "operator>>: Refusing a polygon of 100001 vertices, more than the "
                            "limit of 100000");
    std::istringstream("100000 1 2") >> polygon;
    EXPECT_EQ(polygon.getNPoints(), 100000u);
}

TEST(TextForms, EveryReaderSurvivesTruncatedAndGarbageText) {
    StemlibTest::RecordingLogger logger; // takes the error lines of bad counts
    StemlibTest::ScopedLogger scope(logger);
    const Resolution res(1920, 1080);
    AOIManager areas(NAOI);
    areas.setAOI(0, true, IPolygon(100, 100, 900, 120, 880, 700, 90, 650), 12);
    ExclusionManager exclusions;
    exclusions.setExclusion(0, true, IPolygon(IRectangle(10, 10, 300, 200)));
    std::ostringstream forms;
    forms << FAOI(true, FRectangle(0.1f, 0.1f, 0.5f, 0.5f), 7)
          << ActivableResolution(640, 480, true) << ' ' << ActivableDuration(true, 30) << ' '
          << Resolution(1280, 720);
    // Every prefix of each text, and each byte replaced in turn by hostile characters.
    std::vector<std::string> samples;
    for (const std::string& text : {areas.serialize(res), exclusions.serialize(res), forms.str()}) {
        for (std::size_t i = 0; i < text.size(); ++i) {
            samples.push_back(text.substr(0, i));
            for (char c : {'\0', '-', 'e', '9', '\xff', '.'}) {
                samples.push_back(text);
                samples.back()[i] = c;
            }
        }
    }
    for (const std::string& sample : samples) {
        AOIManager manager(NAOI);
        std::istringstream a(sample), e(sample), f(sample);
        manager.deserialize(a, res);
        ExclusionManager().deserialize(e, res);
        FAOI faoi;
        ActivableResolution activable;
        ActivableDuration duration;
        Resolution resolution;
        f >> faoi >> activable >> duration >> resolution;
        static_cast<void>(AOI(faoi, res)); // converting hostile values stays defined
        EXPECT_LE(manager.getNControlPoints(), 8u);
    }
}
