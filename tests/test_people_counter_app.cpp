// The people counter as a user runs it: the program over the first frames of the sample clip
// through the host camera and the real PoseNet, its outputs checked against each other and
// against crossings of the entrance counted by eye; and its web page in a real browser behind
// lighttpd.
#if defined(PEOPLE_COUNTER_BINARY)

#include "ArchiveRecord.h"
#include "ChildProcess.h"
#include "CounterConfig.h"
#include "HeadlessChromium.h"
#include "RealPosenet.h"
#include "ScratchDirectory.h"
#include "WebServers.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

using namespace StemlibTest;
namespace fs = std::filesystem;

namespace {

// The shipped description: the clip at its own frame rate (the tests add --fast).
std::string shippedCamera() {
    return std::string(STEMLIB_SOURCE_DIR) + "/apps/people_counter/vtest-camera.txt";
}

// The program's environment: under the sanitizer, fontconfig's own leaks are not the program's.
std::vector<std::string> programEnvironment() {
    return {"LSAN_OPTIONS=suppressions=" + std::string(STEMLIB_SOURCE_DIR) +
            "/tests/support/fontconfig-leaks.supp"};
}

std::vector<std::string> lines(const std::string& path) {
    std::vector<std::string> all;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty()) {
            all.push_back(line);
        }
    }
    return all;
}

// Crossings of the default entrance's edge across the path (x = 250 of the clip's 768 pixels),
// found by looking at the whole clip, frame by frame: the frame at which the person's feet pass
// the line, and which way. Walking west into the entrance is an entry, walking east an exit.
// The end-to-end test runs the first frames; the rest are for runs over the whole clip.
struct Crossing {
    int frame;
    bool entry;
};
const std::vector<Crossing> kCrossings = {
    {175, true},  // a woman in a light blue jacket and white hat, walking west
    {197, true},  // a man in a navy jacket, walking west
    {240, true},  // a man in jeans along the far edge of the path, walking west
    {326, false}, // a man in black, east again after a step back west (frames 305 to 317)
    {516, true},  // a woman in red, walking west
    {589, true},  // a man in a dark jacket, walking west
    {654, false}, // a woman in red coming from the west edge, walking east
    {670, true},  // a man in black, walking west, passing the next one at the line
    {674, false}, // a bald man with a beard, walking east
    {706, true},  // a person in a blue jacket, up from the lawn and west
    {713, false}, // the man in black of frame 670, back east
    {762, false}, // a blonde woman in a black coat, walking east
    {780, true},  // a man in black, walking west
};
// Not crossings: a man in black walks west to x = 271 (frames 65 to 80) and turns back east, a
// man in jeans does the same at x = 263 (frames 270 to 290) and is lost among others at the line
// until frame 311; a man in a red and navy jacket comes to x = 250 on the lawn's edge, below the
// entrance, at frames 752 to 760 and turns back; a man in black reaches x = 255 at the clip's end.

// The application's own record of each crossing, from its log: "entry at entrance 0: person 4
// at 17.7 s".
struct Counted {
    double seconds;
    bool entry;
};
std::vector<Counted> countedCrossings(const std::string& log) {
    std::vector<Counted> counted;
    for (const std::string& line : lines(log)) {
        for (const bool entry : {true, false}) {
            const std::size_t at =
                line.find(entry ? "|entry at entrance 0: person " : "|exit at entrance 0: person ");
            if (at != std::string::npos) {
                const std::size_t time = line.rfind(" at ");
                counted.push_back({std::atof(line.c_str() + time + 4), entry});
            }
        }
    }
    return counted;
}

} // namespace

// The program over the first 200 frames of the clip, as fast as it goes: every output exists
// and they agree with one another and with the crossings counted by eye.
TEST(PeopleCounterApp, CountsTheClipEndToEnd) {
    STEMLIB_REQUIRE_REAL_POSENET();
    // The sanitizer build runs the same frames: the network itself is not instrumented.
    const int frames = 200;
    PackageFolder package("pc");
    ScratchDirectory out;
    ChildProcess app(builtProgram(PEOPLE_COUNTER_BINARY,
                                  {"--camera", shippedCamera(), "--fast", "--frames",
                                   std::to_string(frames), "--out", out.path().string(), "--name",
                                   package.appName(), "--quiet", "--snapshot-seconds", "5"}),
                     out.file("output.txt"), programEnvironment());
    ASSERT_GT(app.pid(), 0);
    ASSERT_EQ(app.wait(std::chrono::seconds(900)), 0) << readWholeFile(out.file("output.txt"));
    const std::string output = readWholeFile(out.file("output.txt"));

    // The summary file and the status it holds parse, and agree with the printed summary.
    const nlohmann::json summary = nlohmann::json::parse(readWholeFile(out.file("summary.json")));
    const nlohmann::json& status = summary.at("status");
    EXPECT_EQ(status.at("app"), package.appName());
    EXPECT_FALSE(status.at("running").get<bool>());
    EXPECT_EQ(status.at("frame"), frames - 1);
    EXPECT_EQ(summary.at("framesAnalysed"), frames);
    EXPECT_NEAR(status.at("videoSeconds").get<double>(), (frames - 1) / 10.0, 1e-6);
    const int peopleSeen = status.at("peopleSeen");
    EXPECT_GE(peopleSeen, 8);  // at least the 8 distinct walkers of these 20 seconds
    EXPECT_LE(peopleSeen, 24); // and not every frame's detections anew
    EXPECT_NE(output.find("people seen        " + std::to_string(peopleSeen)), std::string::npos)
        << output;
    for (const std::string& named : {out.file("annotated.mp4"), out.file("snapshot.png"),
                                     out.path().string() + "/{crowd,entrances,occupancy}.csv",
                                     out.file(package.appName() + ".log")}) {
        EXPECT_NE(output.find(named), std::string::npos) << named << " not named in\n" << output;
    }

    // The annotated video: every frame of the run, at the clip's size.
    {
        cv::VideoCapture video(out.file("annotated.mp4"));
        ASSERT_TRUE(video.isOpened());
        cv::Mat picture;
        int read = 0;
        while (video.read(picture)) {
            EXPECT_EQ(picture.cols, 768);
            EXPECT_EQ(picture.rows, 576);
            ++read;
        }
        EXPECT_EQ(read, frames);
        EXPECT_EQ(summary.at("videoFrames"), frames);
    }
    const cv::Mat snapshot = cv::imread(out.file("snapshot.png"));
    EXPECT_EQ(snapshot.cols, 768);
    EXPECT_EQ(snapshot.rows, 576);

    // Archives: one record per interval of 10 video seconds (two here), stamped 10 s apart; the
    // sums are the summary's totals.
    std::map<int, int> arrivals;
    std::vector<std::string> stamps;
    for (const std::string& line : lines(out.file("crowd.csv"))) {
        Ombrel::CrowdCountRecord record;
        ASSERT_TRUE(record.deserialize(line)) << line;
        arrivals[static_cast<int>(record._location)] += record._count;
        EXPECT_EQ(record._object, Ombrel::Objects::Person);
        if (stamps.empty() || stamps.back() != record._dateTime) {
            stamps.push_back(record._dateTime);
        }
    }
    ASSERT_EQ(stamps.size(), 2u);
    EXPECT_EQ(
        Ombrel::ArchiveRecord::stringToTime(stamps[1], Ombrel::ArchiveRecord::_timeFormat) -
            Ombrel::ArchiveRecord::stringToTime(stamps[0], Ombrel::ArchiveRecord::_timeFormat),
        10);
    for (int area = 0; area < 2; ++area) {
        EXPECT_EQ(arrivals[area], status.at("areas").at(area).at("arrivals").get<int>())
            << "area " << area;
    }
    EXPECT_EQ(arrivals.count(2), 0u); // area 2 is off
    int entries = 0;
    int exits = 0;
    const auto entranceLines = lines(out.file("entrances.csv"));
    EXPECT_EQ(entranceLines.size(), 2u);
    for (const std::string& line : entranceLines) {
        Ombrel::EntranceActivityRecord record;
        ASSERT_TRUE(record.deserialize(line)) << line;
        EXPECT_EQ(record._location, Ombrel::EntranceLocation::Entrance0);
        entries += record._entranceCount;
        exits += record._exitCount;
    }
    EXPECT_EQ(entries, status.at("entries").get<int>());
    EXPECT_EQ(exits, status.at("exits").get<int>());
    int peak = 0;
    for (const std::string& line : lines(out.file("occupancy.csv"))) {
        Ombrel::OccupancyObjectRecord record;
        ASSERT_TRUE(record.deserialize(line)) << line;
        peak = std::max(peak, record._count);
    }
    EXPECT_EQ(peak, status.at("peakInView").get<int>());
    EXPECT_EQ(summary.at("archiveRecords"), 2 * 2 + 2 + 2);

    // The log: the logger's first and last lines, and library lines through it.
    const auto log = lines(out.file(package.appName() + ".log"));
    ASSERT_GE(log.size(), 3u);
    EXPECT_NE(log.front().find("|" + package.appName() + "|warning|STARTING " + package.appName()),
              std::string::npos)
        << log.front();
    EXPECT_NE(log.back().find("|" + package.appName() + "|warning|STOPPING " + package.appName()),
              std::string::npos)
        << log.back();
    EXPECT_TRUE(std::any_of(log.begin(), log.end(), [](const std::string& line) {
        return line.find("|info|STEMLIB::") != std::string::npos;
    }));

    // The configuration was written with the defaults, in a form the application takes back.
    EXPECT_EQ(PeopleCounting::CounterConfig::validate(
                  readWholeFile(out.file(package.appName() + ".conf"))),
              "");

    // Crossings: each one counted by eye at least 5 frames before the end must be among the
    // application's, the same way, within 1.5 s; the application counts at most one more.
    const std::vector<Counted> counted = countedCrossings(out.file(package.appName() + ".log"));
    int expectedEntries = 0;
    int expectedExits = 0;
    for (const Crossing& crossing : kCrossings) {
        if (crossing.frame >= frames - 5) {
            continue;
        }
        (crossing.entry ? expectedEntries : expectedExits) += 1;
        const bool found = std::any_of(counted.begin(), counted.end(), [&](const Counted& c) {
            return c.entry == crossing.entry && std::abs(c.seconds - crossing.frame / 10.0) <= 1.5;
        });
        EXPECT_TRUE(found) << (crossing.entry ? "entry" : "exit") << " at frame " << crossing.frame
                           << " not counted";
    }
    EXPECT_EQ(static_cast<int>(counted.size()), entries + exits);
    EXPECT_GE(entries, expectedEntries);
    EXPECT_LE(entries, expectedEntries + 1);
    EXPECT_LE(exits, expectedExits + 1);
}

// A command line the program cannot follow ends it at once with a clear message and status.
TEST(PeopleCounterApp, RefusesWhatItCannotRun) {
    ScratchDirectory out;
    const auto run = [&](const std::vector<std::string>& arguments) {
        ChildProcess app(builtProgram(PEOPLE_COUNTER_BINARY, arguments), out.file("output.txt"),
                         programEnvironment());
        const int code = app.wait(std::chrono::seconds(60));
        const std::string text = readWholeFile(out.file("output.txt"));
        fs::remove(out.file("output.txt"));
        return std::make_pair(code, text);
    };
    auto [code, text] = run({"--frames", "zero"});
    EXPECT_EQ(code, 2);
    EXPECT_NE(text.find("--frames takes a positive number"), std::string::npos) << text;
    std::tie(code, text) = run({"--camera", out.file("missing.txt"), "--out", out.file("o")});
    EXPECT_EQ(code, 1);
    EXPECT_NE(text.find("cannot read the camera description"), std::string::npos) << text;
    writeWholeFile(out.file("cam.txt"),
                   "video.input = file:${STEMLIB_TEST_UNSET_VARIABLE}/x.avi\n");
    std::tie(code, text) = run({"--camera", out.file("cam.txt"), "--out", out.file("o")});
    EXPECT_EQ(code, 1);
    EXPECT_NE(text.find("${STEMLIB_TEST_UNSET_VARIABLE}, which is not set"), std::string::npos)
        << text;
    std::tie(code, text) = run({"--camera", shippedCamera(), "--model", out.file("none.tflite"),
                                "--out", out.file("o"), "--name", "stemlibtest_pc_model"});
    EXPECT_EQ(code, 1);
    EXPECT_NE(text.find("the pose model " + out.file("none.tflite") + " did not start"),
              std::string::npos)
        << text;
    std::error_code ignored;
    fs::remove_all("/usr/local/packages/stemlibtest_pc_model", ignored);
}

// The page in headless chromium behind lighttpd, as on a camera: counts appear and change, the
// snapshot shows, and a change of language and of an area's corner is stored in the
// configuration file and taken over by the running analysis.
TEST(PeopleCounterApp, WebPageInABrowser) {
    STEMLIB_REQUIRE_REAL_POSENET();
    if (chromiumProgram().empty()) {
        GTEST_SKIP() << "chromium is not installed (scripts/install-deps.sh)";
    }
    PackageFolder package("pcweb");
    if (!package.created()) {
        GTEST_SKIP() << "/usr/local/packages cannot be written";
    }
    const std::string app = package.appName();
    for (const char* file : {"index.html", "app.js", "style.css"}) {
        fs::copy_file(std::string(STEMLIB_SOURCE_DIR) + "/apps/people_counter/html/" + file,
                      package.html() + "/" + file);
    }
    ScratchDirectory out;
    ChildProcess counter(
        builtProgram(PEOPLE_COUNTER_BINARY,
                     {"--camera", shippedCamera(), "--fast", "--serve", "--out",
                      out.path().string(), "--name", app, "--quiet", "--no-video"}),
        out.file("output.txt"), programEnvironment());
    const auto up = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (!fs::exists(package.socketPath()) && counter.running() &&
           std::chrono::steady_clock::now() < up) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_TRUE(fs::exists(package.socketPath())) << readWholeFile(out.file("output.txt"));

    Lighttpd server("server.modules += (\"mod_alias\", \"mod_fastcgi\")\n"
                    "mimetype.assign = (\".html\" => \"text/html; charset=utf-8\", "
                    "\".js\" => \"text/javascript\", \".css\" => \"text/css\", "
                    "\".png\" => \"image/png\")\n"
                    "alias.url = (\"/local/" +
                    app + "/\" => \"" + package.html() +
                    "/\")\n"
                    "fastcgi.server = (\"/local/" +
                    app + "/app.cgi\" => ((\"socket\" => \"" + package.socketPath() +
                    "\", \"check-local\" => \"disable\")))\n");
    const std::string base = "http://127.0.0.1:" + std::to_string(server.port()) + "/local/" + app;
    const auto status = [&]() {
        const std::string answer =
            httpExchange(server.port(), "GET /local/" + app +
                                            "/app.cgi?action=status HTTP/1.0\r\nHost: 127.0.0.1\r\n"
                                            "Connection: close\r\n\r\n");
        const std::size_t body = answer.find("\r\n\r\n");
        return nlohmann::json::parse(body == std::string::npos ? "" : answer.substr(body + 4),
                                     nullptr, false);
    };

    HeadlessChromium browser;
    browser.open(base + "/index.html");
    const auto text = [&](const std::string& id) {
        return browser.evaluate("document.getElementById('" + id + "').textContent")
            .get<std::string>();
    };
    // Counts appear, and change as the analysis goes on.
    ASSERT_TRUE(browser.waitFor("/^[0-9]+$/.test(document.getElementById('frame').textContent)",
                                std::chrono::seconds(60)))
        << browser.log();
    const int firstFrame = std::stoi(text("frame"));
    EXPECT_TRUE(browser.waitFor("Number(document.getElementById('frame').textContent) >= " +
                                    std::to_string(firstFrame + 10),
                                std::chrono::seconds(60)));
    EXPECT_TRUE(browser.waitFor("Number(document.getElementById('peopleSeen').textContent) > 0",
                                std::chrono::seconds(60)));
    EXPECT_TRUE(browser.waitFor("document.getElementById('snapshot').naturalWidth === 768",
                                std::chrono::seconds(30)));
    EXPECT_EQ(text("state"), "live");
    if (const char* docs = std::getenv("PEOPLE_COUNTER_DOCS_DIR"); docs != nullptr && *docs) {
        // The README's picture of the page (scripts/make-docs-pictures.sh).
        std::this_thread::sleep_for(std::chrono::seconds(3));
        writeWholeFile(std::string(docs) + "/people-counter-page.png",
                       browser.screenshot(1400, 900, 0.7));
    }

    // The language, switched on the page, is stored and taken over.
    browser.evaluate("(() => { const s = document.getElementById('language'); s.value = 'de';"
                     " s.dispatchEvent(new Event('change')); return true; })()");
    ASSERT_TRUE(browser.waitFor("document.getElementById('message').textContent === "
                                "'Language saved'",
                                std::chrono::seconds(20)))
        << text("message");
    const std::string configFile = out.file(app + ".conf");
    std::istringstream stored(readWholeFile(configFile));
    int version = 0;
    std::string language;
    stored >> version >> language;
    EXPECT_EQ(version, 2);
    EXPECT_EQ(language, "de");
    const auto until = [&](const std::function<bool(const nlohmann::json&)>& condition) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (std::chrono::steady_clock::now() < deadline) {
            if (condition(status())) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
        return false;
    };
    EXPECT_TRUE(until([](const nlohmann::json& s) {
        return s.is_object() && s["language"] == "de" && s["configVersion"] >= 1;
    }));

    // Area 1's first corner, moved on the page, is stored and taken over.
    browser.evaluate("(() => { const c = document.getElementById('areaChoice'); c.value = '1';"
                     " c.dispatchEvent(new Event('change'));"
                     " const x = document.getElementById('corner0x'); x.value = '0.05';"
                     " x.dispatchEvent(new Event('input'));"
                     " document.getElementById('saveArea').click(); return true; })()");
    ASSERT_TRUE(browser.waitFor("document.getElementById('message').textContent === "
                                "'Area 1 saved'",
                                std::chrono::seconds(20)))
        << text("message");
    std::vector<std::string> config = lines(configFile);
    ASSERT_GE(config.size(), 7u);
    EXPECT_EQ(config[5].rfind("1 6 0.05 0.434028 ", 0), 0u) << config[5];
    EXPECT_TRUE(
        until([](const nlohmann::json& s) { return s.is_object() && s["configVersion"] >= 2; }));
    EXPECT_EQ(browser.evaluate("document.getElementById('corner0x').value").get<std::string>(),
              "0.05");

    // A text the application refuses is answered with the reason and changes nothing.
    const std::string before = readWholeFile(configFile);
    const std::string refused = "2\nde\n4\n3\n1 2 0 0 1 1 5\n";
    const std::string answer =
        httpExchange(server.port(), "POST /local/" + app +
                                        "/app.cgi?action=setConfig HTTP/1.0\r\nHost: 127.0.0.1\r\n"
                                        "Connection: close\r\nContent-Length: " +
                                        std::to_string(refused.size()) + "\r\n\r\n" + refused);
    EXPECT_NE(answer.find("ERROR: area 0: a polygon needs 3 to 8 vertices"), std::string::npos)
        << answer;
    EXPECT_EQ(readWholeFile(configFile), before);

    EXPECT_EQ(counter.stop(), 0) << readWholeFile(out.file("output.txt"));
}

#endif
