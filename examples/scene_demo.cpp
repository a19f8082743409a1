// A scripted scene played through the scene rules, as an application's analysis loop would.
//
// A 640x480 view of a shop front from across the pavement, the camera outside: the shop window
// (area 0), a bench (area 1), the shop door (entrance 0) and a glossy billboard (exclusion 0), in
// which reflections appear as people. Three tracked people walk through it; their boxes come from
// a script instead of a detector and tracker. Each frame prints where everyone is, whether they
// have dwelt long enough, and what crossed the door; a summary follows.
//
// It also opens a stream on the camera (on a PC, the default host camera unless
// STEMLIB_HOST_CAMERA names another) and takes one frame at the analysis resolution on each
// scripted frame, printing what arrived, as a detector would take its input. Without a camera
// the scene plays all the same.
//
// Like an application, it keeps a log file (its own lines and the library's, through useLogger)
// and writes archive records: every ten frames one line per area with the people in it, one for
// the door's entries and exits, and one with the people in view. At the end it reads the crowd
// archive back and prints its summary columns.
//
// Options: --frame-ms N (pause between frames, default 100), --fast (10 ms frames, for smoke runs),
// --out DIR (directory of the log file and the archives, default <temp>/stemlib-scene-demo).
#include "Stemlib.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace Ombrel;

namespace {

const Resolution kAnalysis(640, 480);

// The configuration as an application stores it: normalized coordinates, thresholds in seconds.
const char* const kAreasText =
    "4\n3\n"
    "1 4 0.0625 0.375 0.375 0.375 0.375 0.625 0.0625 0.625 1 \n"     // shop window, 1 s
    "1 4 0.65625 0.625 0.9375 0.625 0.9375 0.875 0.65625 0.875 2 \n" // bench, 2 s
    "0 0 0 \n";
const char* const kExclusionsText = "3\n1 4 0.85 0.05 1 0.05 1 0.6 0.85 0.6 \n0 0 \n0 0 \n";

struct Waypoint {
    int frame;
    float x; // feet position in analysis pixels
    float y;
};

struct ScriptedPerson {
    int findingID;
    const char* name;
    std::vector<Waypoint> path; // present from the first waypoint's frame to the last's
};

const std::vector<ScriptedPerson>& script() {
    static const std::vector<ScriptedPerson> people = {
        {1, "Ada", {{0, 20, 330}, {8, 140, 250}, {24, 140, 250}, {32, 320, 230}, {34, 320, 228}}},
        {2,
         "Bo",
         {{0, 630, 460},
          {6, 510, 360},
          {26, 515, 365},
          {34, 320, 230},
          {37, 320, 228},
          {41, 330, 330},
          {50, 639, 400}}},
        {3, "reflection", {{14, 600, 270}, {30, 600, 275}}},
    };
    return people;
}

// Where the scripted person stands at frame, if present.
bool positionAt(const ScriptedPerson& person, int frame, FPoint& feet) {
    const std::vector<Waypoint>& path = person.path;
    if (frame < path.front().frame || frame > path.back().frame) {
        return false;
    }
    for (std::size_t i = 1; i < path.size(); ++i) {
        if (frame <= path[i].frame) {
            const Waypoint& a = path[i - 1];
            const Waypoint& b = path[i];
            const float t =
                static_cast<float>(frame - a.frame) / static_cast<float>(b.frame - a.frame);
            feet = FPoint(a.x + t * (b.x - a.x), a.y + t * (b.y - a.y));
            return true;
        }
    }
    feet = FPoint(path.front().x, path.front().y);
    return true;
}

const char* areaName(AOILocation location) {
    switch (location) {
    case AOILocation::AOI0:
        return "shop window";
    case AOILocation::AOI1:
        return "bench";
    case AOILocation::AOI2:
        return "area 2";
    default:
        return "pavement";
    }
}

const char* activityName(EntranceActivity activity) {
    switch (activity) {
    case EntranceActivity::EnterEntrance0:
        return "went in through the door";
    case EntranceActivity::ExitEntrance0:
        return "came out of the door";
    default:
        return "";
    }
}

// Frames between two sets of archive records.
constexpr int kArchiveEveryFrames = 10;

// Appends one record's line to an archive file of the application.
void appendRecord(const std::string& path, const ArchiveRecord& record) {
    std::ofstream archive(path, std::ios::app);
    archive << record.serialize() << '\n';
}

// Reads an archive of crowd counts back and adds up its summary columns.
std::map<std::string, int> summarizeCrowdArchive(const std::string& path, int& lines) {
    std::map<std::string, int> columns;
    std::ifstream archive(path);
    std::string line;
    lines = 0;
    while (std::getline(archive, line)) {
        CrowdCountRecord record;
        try {
            if (!record.deserialize(line)) {
                continue;
            }
        } catch (const std::exception&) {
            continue; // a damaged line: not a number where a count belongs
        }
        ++lines;
        for (const SummaryEntry& entry : record.getSummaryEntries()) {
            columns[entry._name] += entry._count;
        }
    }
    return columns;
}

// Opens the camera's widest 16:9 stream, or says why there is none.
std::unique_ptr<AxisVideoStreamSource> openCamera() {
    AxisCameraManager manager("scene_demo");
    const AxisCameraInfo info = manager.getCameraInfo();
    Resolution stream = getHighestCompatibleResolution(Resolution(1920, 1080));
    if (stream.area() == 0) {
        stream = kAnalysis;
    }
    try {
        auto camera = std::make_unique<AxisVideoStreamSource>(stream);
        std::printf("camera: %s, %s, rotation %d, stream %ux%u\n", info.productName.c_str(),
                    toString(info.systemOnChip).c_str(), info.rotation, stream.width,
                    stream.height);
        return camera;
    } catch (const std::exception& e) {
        std::printf("camera: not available (%s)\n", e.what());
        return nullptr;
    }
}

// One line of the application's own in the log file: "frame 12: Ada <what happened>".
void logEvent(int frame, const char* name, const std::string& what, bool warning = false) {
    const std::string line = "frame " + std::to_string(frame) + ": " + name + " " + what;
    if (warning) {
        g_stemlibLogger.bareWarning(line);
    } else {
        g_stemlibLogger.bareInfo(line);
    }
}

struct Summary {
    int framesAt[4] = {0, 0, 0, 0}; // by AOILocation: areas 0 to 2, then the exterior
    bool dwelt[3] = {false, false, false};
    int excludedFrames = 0;
    std::vector<std::string> doorEvents;
};

} // namespace

int main(int argc, char** argv) {
    int frameMs = 100;
    std::filesystem::path outDir = std::filesystem::temp_directory_path() / "stemlib-scene-demo";
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--fast") == 0) {
            frameMs = 10;
        } else if (std::strcmp(argv[i], "--frame-ms") == 0 && i + 1 < argc) {
            frameMs = std::atoi(argv[++i]);
        } else if (std::strcmp(argv[i], "--out") == 0 && i + 1 < argc) {
            outDir = argv[++i];
        } else {
            std::fprintf(stderr, "usage: %s [--fast] [--frame-ms N] [--out DIR]\n", argv[0]);
            return 2;
        }
    }

    std::error_code error;
    std::filesystem::create_directories(outDir, error);
    if (error) {
        std::fprintf(stderr, "cannot create %s: %s\n", outDir.c_str(), error.message().c_str());
        return 1;
    }
    const std::string logPath = (outDir / "scene_demo.log").string();
    const std::string crowdPath = (outDir / "crowd.csv").string();
    const std::string entrancePath = (outDir / "entrance.csv").string();
    const std::string occupancyPath = (outDir / "occupancy.csv").string();
    // Each run starts its archives afresh; the log file keeps growing between its size limits.
    for (const std::string& path : {crowdPath, entrancePath, occupancyPath}) {
        std::filesystem::remove(path, error);
    }

    // From here on the library's lines land in this file, with the prefix "STEMLIB::".
    Logger logger("scene_demo", logPath);
    useLogger(logger);

    std::printf("Stemlib %s scene demonstration, analysis resolution %s, %d ms per frame\n",
                getStemlibVersion().c_str(), kAnalysis.toString().c_str(), frameMs);

    AOIManager areas(NAOI);
    std::istringstream areasText(kAreasText);
    if (!areas.deserialize(areasText, kAnalysis)) {
        std::fprintf(stderr, "could not read the areas\n");
        return 1;
    }
    ExclusionManager exclusions;
    std::istringstream exclusionsText(kExclusionsText);
    if (!exclusions.deserialize(exclusionsText, kAnalysis)) {
        std::fprintf(stderr, "could not read the exclusions\n");
        return 1;
    }
    EntranceManager door;
    door.setEntrance(0, true, IPolygon(IRectangle(260, 200, 120, 60)));
    door.setCameraInside(false);

    for (unsigned int i = 0; i < areas.getNAOIs(); ++i) {
        std::printf("area %u: %s, dwell threshold %u s\n", i, areas.getAOI(i).toString().c_str(),
                    areas.getAOI(i).getAlertSeconds());
    }
    std::printf("exclusion 0: %s\n", exclusions.getExclusion(0).toString().c_str());

    const std::unique_ptr<AxisVideoStreamSource> camera = openCamera();
    std::vector<uint8_t> pixels(std::size_t{kAnalysis.width} * kAnalysis.height * 3);
    int cameraFrames = 0;

    int lastFrame = 0;
    for (const ScriptedPerson& person : script()) {
        lastFrame = std::max(lastFrame, person.path.back().frame);
    }

    std::map<int, Summary> summaries;
    std::map<int, bool> present;
    std::map<int, AOILocation> lastArea; // of each person in view, for the crowd records
    int entriesInSlot = 0;
    int exitsInSlot = 0;
    const auto start = std::chrono::steady_clock::now();
    for (int frame = 0; frame <= lastFrame + 1; ++frame) {
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::printf("frame %2d  t=%4.1fs\n", frame, seconds);
        if (camera && camera->getFrame(kAnalysis, 0, pixels.data())) {
            // The frame a detector would analyse: cropped and scaled to the analysis size.
            ++cameraFrames;
            const double level = std::accumulate(pixels.begin(), pixels.end(), 0.0) /
                                 static_cast<double>(pixels.size());
            std::printf("  %-12s %ux%u RGB frame arrived, mean level %.1f\n", "camera",
                        kAnalysis.width, kAnalysis.height, level);
        }
        for (const ScriptedPerson& person : script()) {
            FPoint feet;
            Summary& summary = summaries[person.findingID];
            if (!positionAt(person, frame, feet)) {
                if (present[person.findingID]) {
                    // The tracker dropped this person: the managers keep entries until told.
                    areas.remove(person.findingID);
                    door.remove(person.findingID);
                    present[person.findingID] = false;
                    lastArea.erase(person.findingID);
                    std::printf("  %-12s gone\n", person.name);
                    logEvent(frame, person.name, "left the view");
                }
                continue;
            }
            present[person.findingID] = true;
            const FRectangle box(feet.x - 25.0f, feet.y - 150.0f, 50.0f, 150.0f);
            const ExclusionLocation excluded = exclusions.getLocation(box);
            if (excluded != ExclusionLocation::Exterior) {
                if (summary.excludedFrames == 0) {
                    logEvent(frame, person.name, "ignored in " + toString(excluded));
                }
                ++summary.excludedFrames;
                std::printf("  %-12s box in %s: ignored\n", person.name,
                            toString(excluded).c_str());
                continue;
            }
            const AOIInfo where = areas.add(person.findingID, feet);
            const EntranceInfo crossing = door.add(person.findingID, feet);
            const auto index = static_cast<std::size_t>(where.location);
            const bool lengthily = where.duration == AOIDuration::Lengthily;
            ++summary.framesAt[index];
            lastArea[person.findingID] = where.location;
            if (index < 3) {
                if (lengthily && !summary.dwelt[index]) {
                    logEvent(frame, person.name,
                             std::string("dwelt at the ") + areaName(where.location), true);
                }
                summary.dwelt[index] |= lengthily;
            }
            if (crossing.activity != EntranceActivity::None) {
                summary.doorEvents.push_back(std::string(activityName(crossing.activity)) +
                                             " at frame " + std::to_string(frame));
                logEvent(frame, person.name, activityName(crossing.activity));
                (crossing.activity == EntranceActivity::EnterEntrance0 ? entriesInSlot
                                                                       : exitsInSlot)++;
            }
            std::printf("  %-12s at (%3.0f, %3.0f)  %-12s %-9s %s\n", person.name, feet.x, feet.y,
                        areaName(where.location),
                        where.location == AOILocation::Exterior ? ""
                        : lengthily                             ? "lengthily"
                                                                : "briefly",
                        activityName(crossing.activity));
        }
        if (frame % kArchiveEveryFrames == kArchiveEveryFrames - 1 || frame == lastFrame + 1) {
            // One set of archive records for the slot that ends with this frame.
            int inArea[NAOI] = {0, 0, 0};
            for (const auto& [findingID, location] : lastArea) {
                const auto area = static_cast<std::size_t>(location);
                if (area < static_cast<std::size_t>(NAOI)) {
                    ++inArea[area];
                }
            }
            const std::string stamp = ArchiveRecord::getCurrentDateTime();
            for (int area = 0; area < 2; ++area) {
                appendRecord(crowdPath, CrowdCountRecord(stamp, static_cast<AOILocation>(area),
                                                         Objects::Person, inArea[area]));
            }
            appendRecord(entrancePath,
                         EntranceActivityRecord(stamp, EntranceLocation::Entrance0, Objects::Person,
                                                entriesInSlot, exitsInSlot));
            appendRecord(occupancyPath, OccupancyObjectRecord(stamp, Objects::Person,
                                                              static_cast<int>(lastArea.size())));
            entriesInSlot = 0;
            exitsInSlot = 0;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(frameMs));
    }

    std::printf("\nsummary\n");
    for (const ScriptedPerson& person : script()) {
        const Summary& summary = summaries[person.findingID];
        std::printf("  %s (id %d): shop window %d frames%s, bench %d frames%s, pavement %d frames, "
                    "ignored %d frames\n",
                    person.name, person.findingID, summary.framesAt[0],
                    summary.dwelt[0] ? " (dwelt)" : "", summary.framesAt[1],
                    summary.dwelt[1] ? " (dwelt)" : "", summary.framesAt[3],
                    summary.excludedFrames);
        for (const std::string& event : summary.doorEvents) {
            std::printf("    %s\n", event.c_str());
        }
    }

    int crowdLines = 0;
    const std::map<std::string, int> columns = summarizeCrowdArchive(crowdPath, crowdLines);
    std::printf("\narchive %s: %d records read back\n", crowdPath.c_str(), crowdLines);
    for (const auto& [name, total] : columns) {
        std::printf("  %-12s %3d (sum of the records)\n", name.c_str(), total);
    }
    std::printf("archives %s, %s\n", entrancePath.c_str(), occupancyPath.c_str());
    if (camera) {
        std::printf("camera: %d frames taken\n", cameraFrames);
    }

    logger.flush();
    std::printf("log file %s now holds %zu entries\n", logPath.c_str(),
                logger.getLogEntries().size());
    return 0;
}
