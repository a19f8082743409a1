#include "PeopleCounter.h"

#include "Localization.h"
#include "LoggerWrapper.h"
#include "StreamMapper.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace PeopleCounting {

using namespace Ombrel;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

// The pose model's input, which the mosaic is made at.
const Resolution kModelInput(481, 353);
// The picture that the height calibration works in.
constexpr int kCalibrationWidth = 800;
constexpr int kCalibrationHeight = 450;
// A sighting fit to calibrate on: a pose this sure, shoulders and ankles this sure.
constexpr float kCalibrationPoseScore = 0.4f;
constexpr float kCalibrationJointScore = 0.5f;
// Per person, at most one calibration sighting in this many video seconds; monitoring sightings
// once calibrated, one in this many.
constexpr double kCalibrationSpacing = 2.0;
constexpr double kMonitoringSpacing = 5.0;

double seconds(Clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

std::string fixed(double value, int decimals) {
    char buffer[48];
    std::snprintf(buffer, sizeof(buffer), "%.*f", decimals, value);
    return buffer;
}

int areaIndex(AOILocation location) {
    switch (location) {
    case AOILocation::AOI0:
        return 0;
    case AOILocation::AOI1:
        return 1;
    case AOILocation::AOI2:
        return 2;
    default:
        return -1;
    }
}

FPoint midpoint(const Keypoint& a, const Keypoint& b) {
    return FPoint(0.5f * static_cast<float>(a.point.x + b.point.x),
                  0.5f * static_cast<float>(a.point.y + b.point.y));
}

} // namespace

PeopleCounter::PeopleCounter(const Options& options, const CameraPlan& plan, Logger& logger,
                             const volatile std::sig_atomic_t* stopFlag)
    : ApplicationBase(options.appName, options.configFile), _options(options), _plan(plan),
      _logger(logger), _stopFlag(stopFlag), _runStart(std::time(nullptr)) {
    _config = std::make_unique<CounterConfig>(_configFilePath);
    _settings = _config->settings();
    _published.app = _appName;
}

PeopleCounter::~PeopleCounter() {
    if (_web) {
        _web->stop();
    }
    if (_archives && !_archivesStopped) {
        _archives->stop();
        _archives->writePending();
    }
}

std::string PeopleCounter::socketPath() const {
    return "/usr/local/packages/" + _appName + "/html/" + _appName + "_fcgi.socket";
}

bool PeopleCounter::_canRunAnalysis() const {
    return _stopFlag == nullptr || *_stopFlag == 0;
}

bool PeopleCounter::initialize() {
    _analysis = _options.size.width > 0 ? _options.size : analysisResolutionFor(_plan);

    try {
        _camera = std::make_unique<AxisVideoStreamSource>(_analysis);
    } catch (const std::exception& e) {
        _error = "the camera's stream of " + _analysis.toString() + " did not open: " + e.what();
        _logger.error(_error);
        return false;
    }
    _frame = std::make_unique<FrameHolder>(_analysis);

    try {
        if (_options.mosaic) {
            auto pano = std::make_unique<PosenetPanoDetector>(_options.model, _options.device);
            _panoDetector = pano.get();
            _detector = std::move(pano);
            _mosaic = std::make_unique<PanoImageFrameSource>(kModelInput);
            _mosaic->setGridResolution(Resolution(1, 2));
        } else {
            _detector = std::make_unique<PosenetPoseDetector>(_options.model, _options.device);
        }
        if (!_detector->initialize()) {
            throw std::runtime_error("the detector did not start");
        }
    } catch (const std::exception& e) {
        _error = "the pose model " + _options.model + " did not start: " + e.what();
        _logger.error(_error);
        return false;
    }

    applySettings(_settings);
    _appliedVersion = _settingsVersion;

    // The calibration's picture holds the whole analysis picture, centred and uniformly scaled,
    // so that its principal point stays in the middle.
    const EmbeddingMapper toCalibration(static_cast<int>(_analysis.height),
                                        static_cast<int>(_analysis.width), kCalibrationHeight,
                                        kCalibrationWidth, false);
    _calibrationScale = toCalibration.alpha;
    _calibrationOffset = FPoint(toCalibration.deltaX, toCalibration.deltaY);
    _calibration.setDimensions(kCalibrationWidth, kCalibrationHeight);

    _painter = std::make_unique<OverlayPainter>(_analysis);
    _bgr.create(static_cast<int>(_analysis.height), static_cast<int>(_analysis.width), CV_8UC3);
    if (_options.writeVideo) {
        const double fps = _options.fps > 0.0      ? _options.fps
                           : _plan.clipFps > 0.0   ? _plan.clipFps
                           : _plan.framerate > 0.0 ? _plan.framerate
                                                   : 10.0;
        _video.open(
            videoPath(), cv::VideoWriter::fourcc('m', 'p', '4', 'v'), fps,
            cv::Size(static_cast<int>(_analysis.width), static_cast<int>(_analysis.height)));
        if (!_video.isOpened()) {
            _logger.warning("no annotated video: OpenCV cannot write " + videoPath());
        }
    }

    // The web page: the socket lives in the package's html folder, which exists on a camera;
    // on a PC it can be made only with the rights to /usr/local/packages.
    std::error_code ignored;
    if (_options.web) {
        fs::create_directories("/usr/local/packages/" + _appName + "/html", ignored);
    }
    try {
        if (_options.web) {
            _web = std::make_unique<CounterWebServer>(_appName, *this);
        }
    } catch (const std::exception& e) {
        const std::string why = "the web page's socket " + socketPath() + " cannot be opened (" +
                                e.what() + "): its folder must exist and be writable";
        if (_options.serve) {
            _error = why;
            _logger.error(_error);
            return false;
        }
        _logger.warning("web page off: " + why);
    }
    if (_web) {
        // The page shows the snapshot from its own folder.
        const fs::path link = fs::path(socketPath()).parent_path() / "snapshot.png";
        fs::remove(link, ignored);
        fs::create_symlink(fs::absolute(snapshotPath()), link, ignored);
        _web->serve();
    }

    _archives = std::make_unique<ArchiveWriter>(_options.outputFolder, _runStart);
    _archivesStopped = false;

    _logger.info("analysis of " + _analysis.toString() + " from " + _plan.source + " with " +
                 _options.model + (_options.mosaic ? " over a mosaic of area 0" : ""));
    _isInitialized = true;
    return true;
}

void PeopleCounter::applySettings(const CounterSettings& settings) {
    _settings = settings;
    _areas.setNControlPoints(settings.controlPoints);
    _areas.loadFromNormalized(settings.areas, _analysis);
    _entrances.loadFromNormalized(settings.entrances, _analysis);
    _entrances.setCameraInside(settings.cameraInside);
    _exclusions.loadFromNormalized(settings.exclusions, _analysis);
    TrackerOptions tracking = _tracker.options();
    tracking.gatePixels = settings.trackGate * static_cast<float>(_analysis.width);
    tracking.maxSpeed = 0.3f * static_cast<float>(_analysis.width);
    tracking.timeoutSeconds = settings.trackTimeoutSeconds;
    _tracker.setOptions(tracking);
    if (_detector) {
        _detector->setConfidenceThreshold(settings.poseScore);
    }
}

void PeopleCounter::takeNewSettings() {
    CounterSettings next;
    {
        std::lock_guard<std::mutex> lock(_lock);
        if (_settingsVersion == _appliedVersion) {
            return;
        }
        next = _config->settings();
        _appliedVersion = _settingsVersion;
    }
    applySettings(next);
    _logger.info("new settings taken over at frame " + std::to_string(_lastFrameIndex + 1));
}

PeopleCounter::Detections PeopleCounter::detect() {
    if (_panoDetector != nullptr) {
        // The path area's box, in two overlapping halves side by side.
        const AOI& path = _areas.getAOI(0);
        if (!path.isActive() || path.getNPoints() < 3) {
            return {};
        }
        const IBoundingBox box = path.getBoundingBox();
        const int x0 = std::max(0, box.x);
        const int y0 = std::max(0, box.y);
        const int x1 = std::min(static_cast<int>(_analysis.width), box.x + box.width);
        const int y1 = std::min(static_cast<int>(_analysis.height), box.y + box.height);
        if (x1 - x0 < 8 || y1 - y0 < 8) {
            return {};
        }
        const int half = (x1 - x0) * 55 / 100;
        _mosaic->loadImagePatches(
            *_frame, {IRectangle(x0, y0, half, y1 - y0), IRectangle(x1 - half, y0, half, y1 - y0)});
        return _panoDetector->detect(*_mosaic);
    }
    return _detector->detect(*_frame, _frame->cropFor(kModelInput));
}

std::vector<Sighting> PeopleCounter::sightingsOf(const Detections& detections) const {
    std::vector<Sighting> sightings;
    for (const auto& detection : detections) {
        const IBoundingBox& b = detection.boundingBox;
        if (b.width <= 0 || b.height <= 0) {
            continue;
        }
        Sighting sighting;
        sighting.box = FRectangle(static_cast<float>(b.x), static_cast<float>(b.y),
                                  static_cast<float>(b.width), static_cast<float>(b.height));
        if (_exclusions.getLocation(sighting.box) != ExclusionLocation::Exterior) {
            continue; // wholly inside an exclusion: the sign, not a person
        }
        sighting.skeleton = detection.skeleton;
        sighting.score = detection.confidence;
        sighting.centre =
            PersonTracker::centreOf(detection.skeleton, sighting.box, _settings.jointScore);
        if (!detection.skeleton.getInferior(sighting.feet, _settings.jointScore)) {
            sighting.feet = sighting.box.getBottomMidpoint();
        }
        sightings.push_back(sighting);
    }
    return sightings;
}

void PeopleCounter::closeVisit(TrackState& state, double until) {
    if (state.area >= 0) {
        AreaStatus& area = _areaTotals[static_cast<std::size_t>(state.area)];
        const double visit = std::max(0.0, until - state.areaSince);
        area.dwellSeconds += visit;
        area.longestSeconds = std::max(area.longestSeconds, visit);
    }
    state.area = -1;
}

void PeopleCounter::forget(int id) {
    const auto found = _states.find(id);
    if (found != _states.end()) {
        if (found->second.seenByManagers) {
            closeVisit(found->second, std::max(found->second.lastSeen, found->second.areaSince));
        }
        _states.erase(found);
    }
    _areas.remove(id);
    _entrances.remove(id);
}

void PeopleCounter::track(const std::vector<Sighting>& sightings, double now) {
    for (const int id : _tracker.update(sightings, now)) {
        forget(id);
    }
    int inView = 0;
    for (const Track& track : _tracker.tracks()) {
        if (!track.confirmed || !track.matched) {
            continue;
        }
        TrackState& state = _states[track.id];
        if (track.newlyConfirmed) {
            ++_peopleSeen;
        }
        ++inView;
        state.lastSeen = now; // the visit of a person dropped later ends here

        const AOIInfo where = _areas.add(track.id, track.steadyFeet);
        const int area = areaIndex(where.location);
        if (!state.seenByManagers || area != state.area) {
            if (state.seenByManagers) {
                closeVisit(state, now);
            }
            state.area = area;
            state.areaSince = now;
            if (area >= 0) {
                ++_areaTotals[static_cast<std::size_t>(area)].arrivals;
                ++_interval.arrivals[static_cast<std::size_t>(area)];
            }
        }
        state.lengthily = where.duration == AOIDuration::Lengthily;

        const EntranceInfo crossing = _entrances.add(track.id, track.steadyFeet);
        const int activity = static_cast<int>(crossing.activity);
        // A person first seen inside an entrance came from there: only crossings seen count.
        if (state.seenByManagers && activity >= 0 &&
            activity <= static_cast<int>(EntranceActivity::ExitEntrance2)) {
            const auto entrance = static_cast<std::size_t>(activity / 2);
            const bool entering = activity % 2 == 0;
            (entering ? _entries : _exits)[entrance] += 1;
            (entering ? _interval.entries : _interval.exits)[entrance] += 1;
            _logger.info(std::string(entering ? "entry" : "exit") + " at entrance " +
                         std::to_string(entrance) + ": person " + std::to_string(track.id) +
                         " at " + fixed(now, 1) + " s");
        }
        state.seenByManagers = true;

        if (_calibration.isCalibrated()) {
            state.floor = _calibration.pixelToWorld(toCalibration(track.steadyFeet));
            state.hasFloor = true;
            // Walking speed on the floor, measured over a second or more.
            if (!state.hasSpeedBase) {
                state.speedBase = state.floor;
                state.speedBaseTime = now;
                state.hasSpeedBase = true;
            } else if (now - state.speedBaseTime >= 1.0) {
                const double speed = std::hypot(state.floor.x - state.speedBase.x,
                                                state.floor.y - state.speedBase.y) /
                                     (now - state.speedBaseTime);
                if (speed < 5.0 && _speeds.size() < 100000) {
                    _speeds.push_back(static_cast<float>(speed));
                }
                state.speedBase = state.floor;
                state.speedBaseTime = now;
            }
        } else {
            state.hasFloor = false;
            state.hasSpeedBase = false;
        }
        calibrateWith(track, state, now);
    }
    _peakInView = std::max(_peakInView, inView);
    _interval.peakInView = std::max(_interval.peakInView, inView);
}

void PeopleCounter::calibrateWith(const Track& track, TrackState& state, double now) {
    if (track.score < kCalibrationPoseScore) {
        return;
    }
    Keypoint leftShoulder;
    Keypoint rightShoulder;
    Keypoint leftAnkle;
    Keypoint rightAnkle;
    const auto& skeleton = track.skeleton;
    if (!skeleton.getKeypoint(BodypixBodyPart::LeftShoulder, kCalibrationJointScore,
                              leftShoulder) ||
        !skeleton.getKeypoint(BodypixBodyPart::RightShoulder, kCalibrationJointScore,
                              rightShoulder) ||
        !skeleton.getKeypoint(BodypixBodyPart::LeftAnkle, kCalibrationJointScore, leftAnkle) ||
        !skeleton.getKeypoint(BodypixBodyPart::RightAnkle, kCalibrationJointScore, rightAnkle)) {
        return;
    }
    const FPoint neck = midpoint(leftShoulder, rightShoulder);
    const FPoint feet = midpoint(leftAnkle, rightAnkle);
    const float rise = feet.y - neck.y;
    // Upright: the neck well above the feet and not far to one side of them.
    if (rise < 20.0f || std::abs(feet.x - neck.x) > 0.35f * rise) {
        return;
    }
    if (now - state.lastCalibration < kCalibrationSpacing) {
        return;
    }
    state.lastCalibration = now;
    const HeightObservation sighting{toCalibration(neck), toCalibration(feet)};
    const std::string before = _calibration.getStatus();
    _calibration.addCalibrationObservation(sighting);
    if (_calibration.isCalibrated() && now - _lastMonitoring >= kMonitoringSpacing) {
        _lastMonitoring = now;
        _calibration.addMonitoringObservation(sighting);
    }
    if (_calibration.getStatus() != before) {
        _logger.info("calibration at " + fixed(now, 1) + " s: " + _calibration.getStatus() + " (" +
                     std::to_string(_calibration.countCalibrationObservations()) + " sightings)");
    }
}

FPoint PeopleCounter::toCalibration(const FPoint& point) const {
    return FPoint(point.x * _calibrationScale + _calibrationOffset.x,
                  point.y * _calibrationScale + _calibrationOffset.y);
}

double PeopleCounter::walkingSpeed() const {
    if (_speeds.empty()) {
        return -1.0;
    }
    std::vector<float> sorted = _speeds;
    std::nth_element(sorted.begin(), sorted.begin() + static_cast<long>(sorted.size() / 2),
                     sorted.end());
    return sorted[sorted.size() / 2];
}

void PeopleCounter::advanceIntervals(double now) {
    const int index = static_cast<int>(std::floor(now / kIntervalSeconds));
    while (_interval.index < index) {
        for (int area = 0; area < NAOI; ++area) {
            _interval.areaActive[static_cast<std::size_t>(area)] =
                _settings.areas[static_cast<std::size_t>(area)].isActive();
        }
        for (std::size_t entrance = 0; entrance < _settings.entrances.size(); ++entrance) {
            _interval.entranceActive[entrance] = _settings.entrances[entrance].isActive();
        }
        _archives->push(_interval);
        IntervalCounts next;
        next.index = _interval.index + 1;
        _interval = next;
    }
}

void PeopleCounter::draw(double analysisMs, double fps) {
    OverlayScene scene;
    for (int i = 0; i < NAOI; ++i) {
        scene.areas[static_cast<std::size_t>(i)] = _areas.getAOI(static_cast<unsigned int>(i));
    }
    for (std::size_t i = 0; i < scene.entrances.size(); ++i) {
        scene.entrances[i] = denormalize(_settings.entrances[i], _analysis);
        scene.exclusions[i] = _exclusions.getExclusion(static_cast<int>(i));
    }
    for (const Track& track : _tracker.tracks()) {
        if (!track.confirmed || !track.matched) {
            continue;
        }
        const TrackState& state = _states[track.id];
        OverlayPerson person;
        person.id = track.id;
        person.box = track.box;
        person.skeleton = track.skeleton;
        person.area = state.area;
        person.dwellSeconds = _lastSeconds - state.areaSince;
        person.lengthily = state.lengthily && state.area >= 0;
        person.hasFloor = state.hasFloor;
        person.floor = state.floor;
        if (state.area >= 0) {
            ++scene.inside[static_cast<std::size_t>(state.area)];
        }
        scene.people.push_back(person);
    }
    scene.peopleSeen = _peopleSeen;
    scene.inView = static_cast<int>(scene.people.size());
    for (std::size_t i = 0; i < _entries.size(); ++i) {
        scene.entries += _entries[i];
        scene.exits += _exits[i];
    }
    scene.calibrated = _calibration.isCalibrated();
    scene.calibrationObservations = _calibration.countCalibrationObservations();
    scene.walkingSpeed = walkingSpeed();
    scene.analysisMs = analysisMs;
    scene.fps = fps;
    _painter->paint(scene);
    _painter->compose(_frame->getImageData(), _bgr);
}

void PeopleCounter::encode(long frameIndex) {
    if (_video.isOpened()) {
        // Frames the camera skipped while the analysis was busy get this picture too, so the
        // video keeps the clip's frame rate and length.
        long target = frameIndex + 1;
        if (_videoFramesWanted > 0) {
            target = std::min(target, _videoFramesWanted);
        }
        while (_videoFramesWritten < target) {
            _video.write(_bgr);
            ++_videoFramesWritten;
        }
    }
    if (_lastSeconds >= _nextSnapshot) {
        if (OverlayPainter::writePng(_bgr, snapshotPath())) {
            _snapshotFrame = frameIndex;
        } else {
            _logger.warning("cannot write the snapshot " + snapshotPath());
        }
        _nextSnapshot = _lastSeconds + _options.snapshotSeconds;
    }
}

void PeopleCounter::publish(long frameIndex, double now, double fps) {
    CounterStatus status;
    status.app = _appName;
    status.running = _isRunning;
    status.frame = frameIndex;
    status.videoSeconds = now;
    status.fps = fps;
    status.language = Localization::getLanguage();
    status.peopleSeen = _peopleSeen;
    status.peakInView = _peakInView;
    for (std::size_t i = 0; i < _entries.size(); ++i) {
        status.entries += _entries[i];
        status.exits += _exits[i];
    }
    status.areas = _areaTotals;
    for (int i = 0; i < NAOI; ++i) {
        status.areas[static_cast<std::size_t>(i)].active =
            _settings.areas[static_cast<std::size_t>(i)].isActive();
    }
    for (const Track& track : _tracker.tracks()) {
        if (!track.confirmed || !track.matched) {
            continue;
        }
        const TrackState& state = _states[track.id];
        PersonStatus person;
        person.id = track.id;
        person.area = state.area;
        person.dwellSeconds = state.area >= 0 ? now - state.areaSince : 0.0;
        person.feet = track.steadyFeet;
        person.hasFloor = state.hasFloor;
        person.floor = state.floor;
        if (state.area >= 0) {
            ++status.areas[static_cast<std::size_t>(state.area)].inside;
        }
        status.people.push_back(person);
    }
    status.inView = static_cast<int>(status.people.size());
    status.calibrationStatus = _calibration.getStatus();
    status.calibrated = _calibration.isCalibrated();
    status.calibrationObservations = _calibration.countCalibrationObservations();
    status.walkingSpeed = walkingSpeed();
    status.snapshotFrame = _snapshotFrame;
    status.configVersion = _appliedVersion;
    std::lock_guard<std::mutex> lock(_lock);
    _published = std::move(status);
}

void PeopleCounter::progressLine(long frameIndex, double fps) const {
    int entries = 0;
    int exits = 0;
    for (std::size_t i = 0; i < _entries.size(); ++i) {
        entries += _entries[i];
        exits += _exits[i];
    }
    const long total = _videoFramesWanted;
    std::printf(
        "%s: frame %ld%s, %.1f frames/s, %d in view, %d people, %d entries, %d exits\n",
        _appName.c_str(), frameIndex + 1, total > 0 ? (" of " + std::to_string(total)).c_str() : "",
        fps,
        static_cast<int>(std::count_if(_tracker.tracks().begin(), _tracker.tracks().end(),
                                       [](const Track& t) { return t.confirmed && t.matched; })),
        _peopleSeen, entries, exits);
    std::fflush(stdout);
}

void PeopleCounter::run() {
    _isRunning = true;
    _runStart = std::time(nullptr);
    _archives->setRunStart(_runStart);
    const double fps = _options.fps > 0.0      ? _options.fps
                       : _plan.clipFps > 0.0   ? _plan.clipFps
                       : _plan.framerate > 0.0 ? _plan.framerate
                                               : 10.0;
    const bool realTime = _plan.framerate > 0.0 && !_plan.fast;
    const long endFrame =
        _options.frames > 0 ? _options.frames : (_options.serve ? 0 : _plan.clipFrames);
    _videoFramesWanted = _options.frames > 0 ? _options.frames : _plan.clipFrames;
    _logger.info("analysis started: " +
                 std::string(realTime ? "at the camera's frame rate" : "as fast as frames come") +
                 ", video time at " + fixed(fps, 3) + " frames/s" +
                 (endFrame > 0 ? ", until frame " + std::to_string(endFrame) : ""));

    const Clock::time_point wallStart = Clock::now();
    Clock::time_point firstFrame;
    Clock::time_point lastProgress = wallStart;
    long framesAtProgress = 0;
    double currentFps = 0.0;
    long frameIndex = -1;
    int failures = 0;
    bool reachedEnd = false;
    while (_canRunAnalysis()) {
        const Clock::time_point t0 = Clock::now();
        if (!_camera->getFrame(_analysis, 0, _frame->getImageData())) {
            if (++failures >= 20) {
                _error = "the camera gave no frame 20 times in a row";
                _logger.error(_error);
                break;
            }
            continue;
        }
        failures = 0;
        const Clock::time_point t1 = Clock::now();
        if (realTime) {
            if (frameIndex < 0) {
                firstFrame = t1;
            }
            frameIndex = std::max(frameIndex + 1,
                                  static_cast<long>(std::llround(seconds(t1 - firstFrame) * fps)));
        } else {
            ++frameIndex;
        }
        if (endFrame > 0 && frameIndex >= endFrame) {
            reachedEnd = true;
            break;
        }
        const double now = static_cast<double>(frameIndex) / fps;
        _lastSeconds = now;

        takeNewSettings();
        advanceIntervals(now);
        const Detections found = detect();
        const Clock::time_point t2 = Clock::now();
        track(sightingsOf(found), now);
        const Clock::time_point t3 = Clock::now();
        draw(seconds(t3 - t0) * 1000.0, currentFps);
        const Clock::time_point t4 = Clock::now();
        encode(frameIndex);
        const Clock::time_point t5 = Clock::now();

        _times.camera += seconds(t1 - t0);
        _times.detection += seconds(t2 - t1);
        _times.tracking += seconds(t3 - t2);
        _times.drawing += seconds(t4 - t3);
        _times.encoding += seconds(t5 - t4);
        ++_times.frames;
        ++_framesProcessed;
        _lastFrameIndex = frameIndex;

        const double sinceProgress = seconds(t5 - lastProgress);
        if (sinceProgress >= 2.0 || currentFps == 0.0) {
            currentFps = static_cast<double>(_framesProcessed - framesAtProgress) /
                         std::max(1e-6, sinceProgress);
            if (framesAtProgress == 0 && _framesProcessed == 1) {
                currentFps = 1.0 / std::max(1e-6, seconds(t5 - t0));
            }
            framesAtProgress = _framesProcessed;
            lastProgress = t5;
            if (_options.progress && sinceProgress >= 2.0) {
                progressLine(frameIndex, currentFps);
            }
        }
        publish(frameIndex, now, currentFps);
        if (endFrame > 0 && frameIndex + 1 >= endFrame) {
            reachedEnd = true;
            break;
        }
    }
    _wallSeconds = seconds(Clock::now() - wallStart);
    finish(reachedEnd ? _videoFramesWanted : 0);
    _isRunning = false;
    publish(_lastFrameIndex, _lastSeconds,
            _wallSeconds > 0.0 ? static_cast<double>(_framesProcessed) / _wallSeconds : 0.0);
    writeSummaryFile();
    _logger.info("analysis stopped after " + std::to_string(_framesProcessed) + " frames");
}

void PeopleCounter::finish(long padVideoTo) {
    // Visits still going on end with the run; the managers forget everyone.
    for (const int id : _tracker.clear()) {
        const auto found = _states.find(id);
        if (found != _states.end() && found->second.seenByManagers) {
            closeVisit(found->second, std::max(found->second.areaSince, found->second.lastSeen));
        }
        _areas.remove(id);
        _entrances.remove(id);
    }
    _states.clear();

    // The last, partial interval, then the archive thread's last writes.
    if (_framesProcessed > 0) {
        for (int area = 0; area < NAOI; ++area) {
            _interval.areaActive[static_cast<std::size_t>(area)] =
                _settings.areas[static_cast<std::size_t>(area)].isActive();
        }
        for (std::size_t entrance = 0; entrance < _settings.entrances.size(); ++entrance) {
            _interval.entranceActive[entrance] = _settings.entrances[entrance].isActive();
        }
        _archives->push(_interval);
    }
    if (!_archivesStopped) {
        _archives->stop();
        _archivesStopped = true;
    }
    if (!_archives->writePending()) {
        _logger.error("archives left unwritten in " + _options.outputFolder);
    }

    if (_framesProcessed > 0) {
        if (OverlayPainter::writePng(_bgr, snapshotPath())) {
            _snapshotFrame = _lastFrameIndex;
        }
    }
    if (_video.isOpened()) {
        while (padVideoTo > 0 && _videoFramesWritten < padVideoTo) {
            _video.write(_bgr);
            ++_videoFramesWritten;
        }
        _video.release();
    }

    for (const LogEntry& entry : _logger.getLogEntries()) {
        const std::size_t at = entry._message.find("Camera Parameters: ");
        if (at != std::string::npos) {
            _cameraParameters = entry._message.substr(at + 19);
        }
    }
}

std::string PeopleCounter::summary() const {
    std::ostringstream out;
    const double fps =
        _wallSeconds > 0.0 ? static_cast<double>(_framesProcessed) / _wallSeconds : 0.0;
    int entries = 0;
    int exits = 0;
    for (std::size_t i = 0; i < _entries.size(); ++i) {
        entries += _entries[i];
        exits += _exits[i];
    }
    out << _appName << ": " << (_lastFrameIndex + 1) << " frames of video ("
        << fixed(_lastSeconds, 1) << " s) in " << fixed(_wallSeconds, 1) << " s, "
        << _framesProcessed << " analysed, " << fixed(fps, 1) << " frames/s\n";
    out << "  people seen        " << _peopleSeen << " (at most " << _peakInView
        << " in view at once)\n";
    out << "  entries, exits     " << entries << ", " << exits << "\n";
    for (int i = 0; i < NAOI; ++i) {
        const auto& area = _areaTotals[static_cast<std::size_t>(i)];
        if (!_settings.areas[static_cast<std::size_t>(i)].isActive()) {
            continue;
        }
        out << "  area " << i << "             " << area.arrivals << " arrivals, "
            << fixed(area.dwellSeconds, 1) << " s of dwell in all"
            << (area.arrivals > 0
                    ? ", " + fixed(area.dwellSeconds / area.arrivals, 1) + " s on average"
                    : std::string())
            << ", longest " << fixed(area.longestSeconds, 1) << " s\n";
    }
    out << "  calibration        " << _calibration.getStatus() << " ("
        << _calibration.countCalibrationObservations() << " sightings)";
    if (_calibration.isCalibrated()) {
        out << "; " << _cameraParameters;
        if (walkingSpeed() > 0.0) {
            out << "; people walk at " << fixed(walkingSpeed(), 2) << " m/s (median)";
        }
    }
    out << "\n";
    if (_times.frames > 0) {
        const double n = static_cast<double>(_times.frames);
        const double total =
            _times.camera + _times.detection + _times.tracking + _times.drawing + _times.encoding;
        auto step = [&](const char* name, double sum) {
            return std::string(name) + " " + fixed(sum / n * 1000.0, 1) + " ms (" +
                   fixed(total > 0.0 ? sum / total * 100.0 : 0.0, 0) + " %)";
        };
        out << "  time per frame     " << step("camera", _times.camera) << ", "
            << step("detection", _times.detection) << ", "
            << step("tracking and managers", _times.tracking) << ", "
            << step("drawing", _times.drawing) << ", " << step("encoding", _times.encoding) << "\n";
    }
    out << "  video              " << (_videoFramesWritten > 0 ? videoPath() : "none") << " ("
        << _videoFramesWritten << " frames)\n";
    out << "  snapshot           " << snapshotPath() << "\n";
    out << "  archives           " << _options.outputFolder << "/{crowd,entrances,occupancy}.csv ("
        << (_archives ? _archives->recordsWritten() : 0) << " records)\n";
    out << "  log                " << logPath() << "\n";
    out << "  configuration      " << _configFilePath << "\n";
    return out.str();
}

void PeopleCounter::writeSummaryFile() const {
    std::string status;
    {
        std::lock_guard<std::mutex> lock(_lock);
        status = toJson(_published);
    }
    const double n = _times.frames > 0 ? static_cast<double>(_times.frames) : 1.0;
    std::ofstream out(_options.outputFolder + "/summary.json");
    out << "{\"status\":" << status << ",\"framesAnalysed\":" << _framesProcessed
        << ",\"videoFrames\":" << _videoFramesWritten << ",\"lastFrame\":" << _lastFrameIndex
        << ",\"wallSeconds\":" << fixed(_wallSeconds, 3)
        << ",\"msPerFrame\":{\"camera\":" << fixed(_times.camera / n * 1000.0, 3)
        << ",\"detection\":" << fixed(_times.detection / n * 1000.0, 3)
        << ",\"tracking\":" << fixed(_times.tracking / n * 1000.0, 3)
        << ",\"drawing\":" << fixed(_times.drawing / n * 1000.0, 3)
        << ",\"encoding\":" << fixed(_times.encoding / n * 1000.0, 3)
        << "},\"archiveRecords\":" << (_archives ? _archives->recordsWritten() : 0)
        << ",\"cameraParameters\":" << jsonString(_cameraParameters)
        << ",\"files\":{\"video\":" << jsonString(_videoFramesWritten > 0 ? videoPath() : "")
        << ",\"snapshot\":" << jsonString(snapshotPath())
        << ",\"crowd\":" << jsonString(_archives ? _archives->crowdPath() : "")
        << ",\"entrances\":" << jsonString(_archives ? _archives->entrancesPath() : "")
        << ",\"occupancy\":" << jsonString(_archives ? _archives->occupancyPath() : "")
        << ",\"log\":" << jsonString(logPath()) << ",\"config\":" << jsonString(_configFilePath)
        << ",\"camera\":" << jsonString(_plan.description) << "}}\n";
}

std::string PeopleCounter::statusJson() {
    CounterStatus copy;
    {
        std::lock_guard<std::mutex> lock(_lock);
        copy = _published;
    }
    return toJson(copy);
}

std::string PeopleCounter::configText() {
    std::lock_guard<std::mutex> lock(_lock);
    return _config->serialize();
}

std::string PeopleCounter::setConfig(const std::string& text) {
    const std::string why = CounterConfig::validate(text);
    if (!why.empty()) {
        _logger.warning("setConfig refused: " + why);
        return "ERROR: " + why;
    }
    {
        std::lock_guard<std::mutex> lock(_lock);
        const bool stored = _config->update(text);
        ++_settingsVersion; // the object holds the new values even if the file kept the old
        if (!stored) {
            _logger.error("setConfig: the settings apply but could not be stored in " +
                          _configFilePath);
            return "ERROR: the settings apply but could not be stored in " + _configFilePath;
        }
    }
    _logger.info("setConfig: new configuration stored");
    return "OK";
}

} // namespace PeopleCounting
