// PersonTracker: gives each person found in a frame a findingID that stays with them from frame to
// frame, so that the library's managers can follow them.
//
// Matching is by distance between skeleton centres. A sighting's centre is the hips' midpoint
// (one hip, or the middle of the box, when the hips are not seen). Each track's centre is first
// carried forward to the frame's time with the track's velocity; then pairs of track and
// sighting are taken greedily, closest first, while their distance stays within the gate:
// gatePixels plus maxSpeed (pixels a second) times the seconds since the track was last matched.
// A sighting left over starts a new track with the next id (1, 2, ...). A track left over keeps
// its last position, unmatched, until it has gone unseen for longer than timeoutSeconds, and is
// then dropped: update() returns the ids dropped at that frame, and the caller must remove them
// from its managers, which never expire anything themselves.
//
// A track is confirmed once it has been matched in minHits frames; single stray detections
// never reach that, so callers count and report confirmed tracks only.
//
// Times are the caller's (seconds of video), so the tracker behaves the same at any playing
// speed. A value type without locks: one thread uses it.
#pragma once

#include "PoseBase.h"

#include <vector>

namespace PeopleCounting {

// One person found in a frame, in analysis pixels.
struct Sighting {
    Ombrel::FPoint centre;
    Ombrel::FPoint feet;
    Ombrel::FRectangle box;
    Ombrel::Skeleton<Ombrel::BodypixBodyPart> skeleton;
    float score = 0.0f;
};

struct Track {
    int id = 0;
    Ombrel::FPoint centre;     // where it was last matched
    Ombrel::FPoint velocity;   // pixels a second, smoothed
    Ombrel::FPoint feet;       // last feet, as detected
    Ombrel::FPoint steadyFeet; // feet smoothed over frames, for area and entrance decisions
    Ombrel::FRectangle box;
    Ombrel::Skeleton<Ombrel::BodypixBodyPart> skeleton;
    float score = 0.0f;
    double firstSeen = 0.0;
    double lastSeen = 0.0;
    int hits = 0;
    bool matched = false; // matched in the latest update
    bool confirmed = false;
    bool newlyConfirmed = false; // confirmed by the latest update
};

struct TrackerOptions {
    float gatePixels = 38.0f;
    float maxSpeed = 230.0f;
    double timeoutSeconds = 1.0;
    int minHits = 3;
};

class PersonTracker {
public:
    explicit PersonTracker(const TrackerOptions& options = TrackerOptions()) : _options(options) {}

    // Takes the sightings of the frame at time seconds (not earlier than the previous frame's)
    // and returns the ids of the tracks dropped for having timed out.
    std::vector<int> update(const std::vector<Sighting>& sightings, double seconds);
    // Drops every track; returns their ids.
    std::vector<int> clear();

    const std::vector<Track>& tracks() const { return _tracks; }
    void setOptions(const TrackerOptions& options) { _options = options; }
    const TrackerOptions& options() const { return _options; }
    // The id the next new track gets.
    int nextId() const { return _nextId; }

    // The centre the tracker matches a skeleton by: hips, one hip, or the box's middle.
    static Ombrel::FPoint centreOf(const Ombrel::Skeleton<Ombrel::BodypixBodyPart>& skeleton,
                                   const Ombrel::FRectangle& box, float jointScore);

private:
    TrackerOptions _options;
    std::vector<Track> _tracks;
    int _nextId = 1;
};

} // namespace PeopleCounting
