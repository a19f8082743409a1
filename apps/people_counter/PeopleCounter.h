// PeopleCounter: the application. It counts the people a camera sees, how long they stay in
// areas of the picture, and who crosses an entrance, and shows it on an annotated video, a
// snapshot, archives and a web page.
//
// Set-up follows the library's order: the caller has made the Logger and handed it to useLogger;
// the constructor loads the configuration (which sets the language); initialize() opens the
// camera's stream, starts the pose detector, loads the areas into the managers at the analysis
// resolution, opens the web page's FastCGI socket and starts the archive thread; run() is the
// analysis loop. Tear-down runs the other way round when run() returns: archive thread stopped
// and its last records written, web page closed, video finished, and the caller's Logger
// destroyed last.
//
// One frame's road: the camera's frame lands in a FrameHolder; the detector (PosenetPoseDetector
// over the whole picture, or PosenetPanoDetector over a mosaic of the path area) finds
// skeletons; sightings wholly inside an exclusion are dropped; PersonTracker gives findingIDs;
// confirmed tracks go to the AOIManager (location, dwell) and the EntranceManager (crossings,
// not counted on a track's first sighting, which has crossed nothing that was seen); upright,
// well-seen people feed the HeightCalibrator3DManager; the overlay is drawn and the composite
// written to the video; every 10 s of video time the counts go to the archives. Dropped tracks
// are removed from the managers.
//
// Video time is the camera's clock: at the camera's own frame rate, the time since the first
// frame (a frame missed while the analysis was busy is skipped, as a camera does, and its place
// in the annotated video is filled with the next picture analysed); with --fast, the frame's number
// divided by the clip's frame rate. Dwell seconds in the summary, the status and the overlay are
// video time; the areas' dwell thresholds are the library's and run on the steady clock.
//
// Threads: the analysis loop (run), the web page's FastCGI thread, the archive thread. The web
// thread reads the published status and the configuration and hands new settings over under the
// application's lock (_lock); the loop takes them at the start of its next frame.
#pragma once

#include "AOIManager.h"
#include "Application.h"
#include "ArchiveWriter.h"
#include "AxisVideoStreamSource.h"
#include "CameraSetup.h"
#include "CounterConfig.h"
#include "CounterWebServer.h"
#include "EntranceManager.h"
#include "ExclusionManager.h"
#include "FrameHolder.h"
#include "HeightCalibrator3DManager.h"
#include "Logger.h"
#include "OverlayPainter.h"
#include "PanoImageFrameSource.h"
#include "PersonTracker.h"
#include "PosenetPanoDetector.h"
#include "PosenetPoseDetector.h"
#include "StatusJson.h"

#include <opencv2/videoio.hpp>

#include <array>
#include <chrono>
#include <csignal>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace PeopleCounting {

struct Options {
    std::string appName = "people_counter";
    std::string outputFolder; // video, snapshot, archives, log, camera.txt, summary.json
    std::string configFile;   // default <output>/<app>.conf
    std::string model;        // the pose model
    std::string device;       // the inference device; empty: the service's default
    bool mosaic = false;      // PosenetPanoDetector over the path area instead of the frame
    CameraRequest camera;
    long frames = 0;         // stop after this many frames of video; 0: at the clip's end
    double fps = 0.0;        // the video's frame rate, when the camera cannot tell
    Ombrel::Resolution size; // analysis resolution; 0x0: from the camera
    bool serve = false;      // web page required; keep analysing past the clip's end
    bool web = true;         // open the web page's socket (where its folder allows)
    bool writeVideo = true;
    double snapshotSeconds = 1.0; // video seconds between snapshots
    bool progress = true;
};

// Time spent per frame in each step, summed.
struct StepTimes {
    double camera = 0.0;
    double detection = 0.0;
    double tracking = 0.0;
    double drawing = 0.0;
    double encoding = 0.0;
    long frames = 0;
};

class PeopleCounter : public Ombrel::ApplicationBase, public WebActions {
public:
    // stopFlag: set (by a signal handler) to end run() after the frame in hand.
    PeopleCounter(const Options& options, const CameraPlan& plan, Ombrel::Logger& logger,
                  const volatile std::sig_atomic_t* stopFlag);
    ~PeopleCounter() override;

    // False, with error(), when the camera, the model or (with serve) the web page cannot start.
    bool initialize() override;
    void run() override;
    bool _canRunAnalysis() const override;

    const std::string& error() const { return _error; }
    // The closing report, as printed at the end of run.
    std::string summary() const;
    bool webPageUp() const { return _web != nullptr; }
    std::string socketPath() const;

    // WebActions, on the web thread.
    std::string statusJson() override;
    std::string configText() override;
    std::string setConfig(const std::string& text) override;

    std::string videoPath() const { return _options.outputFolder + "/annotated.mp4"; }
    std::string snapshotPath() const { return _options.outputFolder + "/snapshot.png"; }
    std::string logPath() const { return _options.outputFolder + "/" + _appName + ".log"; }

private:
    using Detections = std::vector<Ombrel::PoseDetectionBase<Ombrel::BodypixBodyPart>>;

    struct TrackState {
        int area = -1;
        double areaSince = 0.0;
        bool seenByManagers = false;
        bool lengthily = false;
        double lastSeen = 0.0;
        double lastCalibration = -1e9;
        bool hasFloor = false;
        Ombrel::FPoint floor; // metres, once calibrated
        bool hasSpeedBase = false;
        Ombrel::FPoint speedBase;
        double speedBaseTime = 0.0;
    };

    void applySettings(const CounterSettings& settings);
    void takeNewSettings();
    Detections detect();
    std::vector<Sighting> sightingsOf(const Detections& detections) const;
    void track(const std::vector<Sighting>& sightings, double seconds);
    void closeVisit(TrackState& state, double seconds);
    void forget(int id);
    void calibrateWith(const Track& track, TrackState& state, double seconds);
    void advanceIntervals(double seconds);
    void draw(double analysisMs, double fps);
    void encode(long frameIndex);
    void publish(long frameIndex, double seconds, double fps);
    // Ends the run: visits closed, last interval archived, video padded to padVideoTo frames.
    void finish(long padVideoTo);
    void writeSummaryFile() const;
    void progressLine(long frameIndex, double fps) const;
    Ombrel::FPoint toCalibration(const Ombrel::FPoint& point) const;
    double walkingSpeed() const;

    Options _options;
    CameraPlan _plan;
    Ombrel::Logger& _logger;
    const volatile std::sig_atomic_t* _stopFlag;
    std::string _error;
    std::time_t _runStart = 0;

    // The application's lock: the configuration, the hand-over of settings and the status.
    mutable std::mutex _lock;
    std::unique_ptr<CounterConfig> _config;
    long _settingsVersion = 0;
    CounterStatus _published;

    // The analysis loop's own.
    long _appliedVersion = -1;
    CounterSettings _settings;
    Ombrel::Resolution _analysis;
    std::unique_ptr<Ombrel::AxisVideoStreamSource> _camera;
    std::unique_ptr<FrameHolder> _frame;
    std::unique_ptr<Ombrel::PosenetPoseDetector> _detector;
    Ombrel::PosenetPanoDetector* _panoDetector = nullptr; // _detector, when it is one
    std::unique_ptr<Ombrel::PanoImageFrameSource> _mosaic;
    Ombrel::AOIManager _areas{Ombrel::NAOI};
    Ombrel::EntranceManager _entrances;
    Ombrel::ExclusionManager _exclusions;
    Ombrel::HeightCalibrator3DManager _calibration;
    float _calibrationScale = 1.0f;
    Ombrel::FPoint _calibrationOffset;
    double _lastMonitoring = -1e9;
    PersonTracker _tracker;
    std::map<int, TrackState> _states;
    std::unique_ptr<OverlayPainter> _painter;
    cv::Mat _bgr;
    cv::VideoWriter _video;
    long _videoFramesWritten = 0;
    long _videoFramesWanted = 0;
    double _nextSnapshot = 0.0;
    long _snapshotFrame = -1;
    std::unique_ptr<ArchiveWriter> _archives;
    bool _archivesStopped = true;
    IntervalCounts _interval;
    std::vector<float> _speeds;
    std::string _cameraParameters;

    // Totals.
    int _peopleSeen = 0;
    int _peakInView = 0;
    std::array<int, 3> _entries{};
    std::array<int, 3> _exits{};
    std::array<AreaStatus, Ombrel::NAOI> _areaTotals{};
    StepTimes _times;
    long _framesProcessed = 0;
    long _lastFrameIndex = -1;
    double _lastSeconds = 0.0;
    double _wallSeconds = 0.0;

    // Declared last, so that it stops first: its handlers use everything above.
    std::unique_ptr<CounterWebServer> _web;
};

} // namespace PeopleCounting
