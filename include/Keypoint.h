// KeypointT and KeypointsT: scored body joints as a pose model gives them.
//
// A KeypointT is a position, the joint it belongs to and the model's confidence. KeypointsT
// holds at most one keypoint per joint, in a std::map, so iteration runs in the numeric order
// of the joints. Looking up a joint that is not held never fails: it gives the empty keypoint,
// at (0, 0) with the enumeration's first joint and score 0.0, and callers recognise the case by
// that score. Plain values; the shared empty keypoint is a function-local constant that is only
// read after its thread-safe first initialisation.
#pragma once

#include "BodyParts.h"
#include "CommonStructs.h"
#include "Points.h"

#include <cstdint>
#include <map>
#include <sstream>
#include <string>

namespace Ombrel {

template <typename BodyPart, typename T>
struct KeypointT {
    PointT<T> point;
    BodyPart bodyPart;
    float score;

    KeypointT() : point(0, 0), bodyPart(static_cast<BodyPart>(0)), score(0.0f) {}
    KeypointT(const PointT<T>& point_, BodyPart bodyPart_, float score_)
        : point(point_), bodyPart(bodyPart_), score(score_) {}

    // Euclidean distance between the two positions.
    float distance(const KeypointT& other) const { return point.distance(other.point); }

    // "LeftEye (12, 34) 0.75": the joint's name, the position and the score.
    std::string toString() const {
        std::ostringstream os;
        os << Ombrel::toString(bodyPart) << ' ' << point << ' ' << score;
        return os.str();
    }
};

template <typename BodyPart, typename T>
class KeypointsT {
public:
    using Keypoint = KeypointT<BodyPart, T>;
    using KeypointMap = std::map<BodyPart, Keypoint>;
    using ValueIterator = ValueIteratorT<BodyPart, Keypoint>;
    using ConstValueIterator = ConstValueIteratorT<BodyPart, Keypoint>;

    // Stores keypoint under its own bodyPart, replacing one that is already there.
    void add(const Keypoint& keypoint) { _keypoints[keypoint.bodyPart] = keypoint; }

    // Removes the joint; false when it was not held.
    bool remove(BodyPart bodyPart) { return _keypoints.erase(bodyPart) > 0; }

    // The stored keypoint, or the shared empty keypoint (score 0.0) when the joint is missing.
    const Keypoint& get(BodyPart bodyPart) const {
        const auto it = _keypoints.find(bodyPart);
        return it != _keypoints.end() ? it->second : emptyKeypoint();
    }
    // The stored keypoint, changeable in place. For a missing joint it gives a per-thread
    // scratch copy of the empty keypoint, so that writing through it changes nothing here.
    Keypoint& get(BodyPart bodyPart) {
        const auto it = _keypoints.find(bodyPart);
        if (it != _keypoints.end()) {
            return it->second;
        }
        thread_local Keypoint scratch;
        scratch = emptyKeypoint();
        return scratch;
    }

    std::size_t size() const { return _keypoints.size(); }
    bool contains(BodyPart bodyPart) const { return _keypoints.count(bodyPart) > 0; }

    // Copies the joint into keypoint and returns true when its score exceeds scoreThreshold
    // strictly; otherwise returns false and leaves keypoint alone.
    bool getKeypoint(BodyPart bodyPart, float scoreThreshold, Keypoint& keypoint) const {
        const Keypoint& stored = get(bodyPart);
        if (scoreThreshold < stored.score) {
            keypoint = stored;
            return true;
        }
        return false;
    }

    // The midpoint of the two joints as held (a missing joint counts as (0, 0)); scores are
    // not looked at.
    FPoint getMidpoint(BodyPart bodyPart0, BodyPart bodyPart1) const {
        const PointT<T>& p0 = get(bodyPart0).point;
        const PointT<T>& p1 = get(bodyPart1).point;
        return FPoint(midpoint(p0.x, p1.x), midpoint(p0.y, p1.y));
    }

    ValueIterator begin() { return ValueIterator(_keypoints.begin()); }
    ValueIterator end() { return ValueIterator(_keypoints.end()); }
    ConstValueIterator begin() const { return ConstValueIterator(_keypoints.begin()); }
    ConstValueIterator end() const { return ConstValueIterator(_keypoints.end()); }

    static const Keypoint& emptyKeypoint() {
        static const Keypoint empty;
        return empty;
    }

private:
    // Integer coordinates are added as integers first, so a half pixel survives.
    static float midpoint(T a, T b) {
        if constexpr (std::is_integral_v<T>) {
            return static_cast<float>(static_cast<int64_t>(a) + static_cast<int64_t>(b)) / 2.0f;
        } else {
            return (static_cast<float>(a) + static_cast<float>(b)) / 2.0f;
        }
    }

    KeypointMap _keypoints;
};

using Keypoint = KeypointT<BodypixBodyPart, int>;
using IKeypoint = Keypoint;
using FKeypoint = KeypointT<BodypixBodyPart, float>;
using Keypoints = KeypointsT<BodypixBodyPart, int>;
using FKeypoints = KeypointsT<BodypixBodyPart, float>;
using HeadlessKeypoint = KeypointT<BodypixHeadlessBodyPart, int>;
using HeadlessKeypoints = KeypointsT<BodypixHeadlessBodyPart, int>;

} // namespace Ombrel
