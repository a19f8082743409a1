#include "PersonTracker.h"

#include <algorithm>
#include <cmath>
#include <tuple>

namespace PeopleCounting {

using Ombrel::FPoint;

namespace {

float distance(const FPoint& a, const FPoint& b) {
    return std::hypot(a.x - b.x, a.y - b.y);
}

// Velocity limited to maxSpeed, so that one bad match cannot fling a track away.
FPoint limited(const FPoint& velocity, float maxSpeed) {
    const float speed = std::hypot(velocity.x, velocity.y);
    if (speed <= maxSpeed || speed == 0.0f) {
        return velocity;
    }
    return FPoint(velocity.x * maxSpeed / speed, velocity.y * maxSpeed / speed);
}

} // namespace

FPoint PersonTracker::centreOf(const Ombrel::Skeleton<Ombrel::BodypixBodyPart>& skeleton,
                               const Ombrel::FRectangle& box, float jointScore) {
    FPoint centre;
    if (skeleton.getSkeletonCenter(centre, jointScore) ||
        skeleton.getHipMedian(centre, jointScore)) {
        return centre;
    }
    return box.getCentroid();
}

std::vector<int> PersonTracker::update(const std::vector<Sighting>& sightings, double seconds) {
    // Every pair within its track's gate, closest first.
    std::vector<std::tuple<float, std::size_t, std::size_t>> pairs;
    for (std::size_t t = 0; t < _tracks.size(); ++t) {
        Track& track = _tracks[t];
        track.matched = false;
        track.newlyConfirmed = false;
        const float gap = static_cast<float>(std::max(0.0, seconds - track.lastSeen));
        const FPoint predicted(track.centre.x + track.velocity.x * gap,
                               track.centre.y + track.velocity.y * gap);
        const float gate = _options.gatePixels + _options.maxSpeed * gap;
        for (std::size_t s = 0; s < sightings.size(); ++s) {
            const float d = distance(predicted, sightings[s].centre);
            if (d <= gate) {
                pairs.emplace_back(d, t, s);
            }
        }
    }
    std::sort(pairs.begin(), pairs.end());

    std::vector<bool> sightingTaken(sightings.size(), false);
    for (const auto& [d, t, s] : pairs) {
        Track& track = _tracks[t];
        if (track.matched || sightingTaken[s]) {
            continue;
        }
        const Sighting& sighting = sightings[s];
        const double gap = seconds - track.lastSeen;
        if (gap > 0.0) {
            const FPoint step((sighting.centre.x - track.centre.x) / static_cast<float>(gap),
                              (sighting.centre.y - track.centre.y) / static_cast<float>(gap));
            const FPoint blended = track.hits >= 2 ? FPoint(0.5f * step.x + 0.5f * track.velocity.x,
                                                            0.5f * step.y + 0.5f * track.velocity.y)
                                                   : step;
            track.velocity = limited(blended, _options.maxSpeed);
        }
        track.centre = sighting.centre;
        track.feet = sighting.feet;
        track.steadyFeet = FPoint(0.5f * sighting.feet.x + 0.5f * track.steadyFeet.x,
                                  0.5f * sighting.feet.y + 0.5f * track.steadyFeet.y);
        track.box = sighting.box;
        track.skeleton = sighting.skeleton;
        track.score = sighting.score;
        track.lastSeen = seconds;
        ++track.hits;
        track.matched = true;
        if (!track.confirmed && track.hits >= _options.minHits) {
            track.confirmed = true;
            track.newlyConfirmed = true;
        }
        sightingTaken[s] = true;
    }

    // Tracks unseen for too long go; the rest wait for their person to come back.
    std::vector<int> dropped;
    auto expired = [&](const Track& track) {
        return !track.matched && seconds - track.lastSeen > _options.timeoutSeconds;
    };
    for (const Track& track : _tracks) {
        if (expired(track)) {
            dropped.push_back(track.id);
        }
    }
    _tracks.erase(std::remove_if(_tracks.begin(), _tracks.end(), expired), _tracks.end());

    for (std::size_t s = 0; s < sightings.size(); ++s) {
        if (sightingTaken[s]) {
            continue;
        }
        Track track;
        track.id = _nextId++;
        track.centre = sightings[s].centre;
        track.feet = sightings[s].feet;
        track.steadyFeet = sightings[s].feet;
        track.box = sightings[s].box;
        track.skeleton = sightings[s].skeleton;
        track.score = sightings[s].score;
        track.firstSeen = seconds;
        track.lastSeen = seconds;
        track.hits = 1;
        track.matched = true;
        track.confirmed = _options.minHits <= 1;
        track.newlyConfirmed = track.confirmed;
        _tracks.push_back(track);
    }
    return dropped;
}

std::vector<int> PersonTracker::clear() {
    std::vector<int> ids;
    for (const Track& track : _tracks) {
        ids.push_back(track.id);
    }
    _tracks.clear();
    return ids;
}

} // namespace PeopleCounting
