// Common value types shared by every subsystem: resolutions, switchable resolutions and durations,
// the drawing cross, the memory record, iterators over map values, the area counts and the
// library's version.
//
// All are plain values without locks. Text forms are blank-separated, written with the stream's
// default formatting and read with the ordinary extraction operators.
#pragma once

#include "Location.h"

#include <chrono>
#include <iosfwd>
#include <iterator>
#include <map>
#include <set>
#include <string>

namespace Ombrel {

inline constexpr int NAOI = 3;
inline constexpr int NENTRANCES = 3;
inline constexpr int NEXCLUSIONS = 3;
inline constexpr int NOBJECTCLASSES = 9;

// A time point of the steady clock, which does not jump with the wall clock.
using TimePoint = std::chrono::steady_clock::time_point;

// Returns "1.0.0".
std::string getStemlibVersion();

// Picture size in pixels, width first.
struct Resolution {
    unsigned int width = 0;
    unsigned int height = 0;

    Resolution() = default;
    Resolution(unsigned int w, unsigned int h) : width(w), height(h) {}

    // width / height; with height 0 logs an error and returns 0.
    float aspectRatio() const;
    // "640 480".
    std::string toString() const;
    // width * height in unsigned 32-bit arithmetic.
    unsigned int area() const;
    Resolution transpose() const { return Resolution(height, width); }
    // Fullscreen (4:3), Widescreen (16:9), Square or Invalid, portrait counting as its landscape
    // twin; tolerance 0.01.
    AspectRatio getAspectRatioType() const;

    bool operator==(const Resolution& other) const {
        return width == other.width && height == other.height;
    }
    bool operator!=(const Resolution& other) const { return !(*this == other); }
    // Width first, then height.
    bool operator<(const Resolution& other) const {
        return width < other.width || (width == other.width && height < other.height);
    }
};

using ResolutionSet = std::set<Resolution>;

// A resolution with an on/off switch. An inactive entry never equals a plain Resolution.
struct ActivableResolution : Resolution {
    bool _isActive = false;

    ActivableResolution() = default;
    ActivableResolution(unsigned int w, unsigned int h, bool isActive)
        : Resolution(w, h), _isActive(isActive) {}

    bool isActive() const { return _isActive; }
    void setActive(bool isActive) { _isActive = isActive; }

    // "640 480 Active" or "640 480 Inactive".
    std::string toString() const;
    // "1 640 480": flag, width, height.
    std::string serialize() const;
    // Reads an int flag (non-zero is active), width and height. On a failed stream logs an
    // error, leaves the flag unchanged and returns false; width and height keep what extraction
    // left in them.
    bool deserialize(std::istream& is);

    bool operator==(const ActivableResolution& other) const {
        return Resolution::operator==(other) && _isActive == other._isActive;
    }
    // True only when this entry is active and the sizes match.
    bool operator==(const Resolution& other) const {
        return _isActive && Resolution::operator==(other);
    }
};

// A duration in seconds with an on/off switch.
struct ActivableDuration {
    bool _isActive = false;
    unsigned int _duration = 0;

    ActivableDuration() = default;
    ActivableDuration(bool isActive, unsigned int duration)
        : _isActive(isActive), _duration(duration) {}

    unsigned int getDuration() const { return _duration; }
    void setDuration(unsigned int duration) { _duration = duration; }
    bool isActive() const { return _isActive; }
    void setActive(bool isActive) { _isActive = isActive; }

    bool operator==(const ActivableDuration& other) const {
        return _isActive == other._isActive && _duration == other._duration;
    }
};

// A cross to be drawn on an overlay; no behaviour of its own.
struct Cross {
    float x = 0.0f;
    float y = 0.0f;
    float radius = 0.0f;

    Cross() = default;
    Cross(float x_, float y_, float radius_) : x(x_), y(y_), radius(radius_) {}
};

// Memory figures of the system, each in units of 1024 bytes.
struct MemoryState {
    unsigned long totalram = 0;
    unsigned long freeram = 0;
    unsigned long sharedram = 0;
    unsigned long bufferram = 0;
    unsigned long totalswap = 0;
    unsigned long freeswap = 0;
    unsigned long totalhigh = 0;
    unsigned long freehigh = 0;

    MemoryState() = default;

    // The eight fields in field order, joined by ",".
    std::string toCSV() const;
};

// Presents a std::map as the sequence of its values, in key order.
template <typename Key, typename Value>
struct ValueIteratorT {
    using MapIterator = typename std::map<Key, Value>::iterator;
    using iterator_category = std::forward_iterator_tag;
    using value_type = Value;
    using difference_type = std::ptrdiff_t;
    using pointer = Value*;
    using reference = Value&;

    MapIterator it;

    ValueIteratorT() = default;
    explicit ValueIteratorT(MapIterator i) : it(i) {}

    Value& operator*() const { return it->second; }
    Value* operator->() const { return &it->second; }
    ValueIteratorT& operator++() {
        ++it;
        return *this;
    }
    ValueIteratorT operator++(int) {
        ValueIteratorT previous = *this;
        ++it;
        return previous;
    }
    bool operator==(const ValueIteratorT& other) const { return it == other.it; }
    bool operator!=(const ValueIteratorT& other) const { return it != other.it; }
};

template <typename Key, typename Value>
struct ConstValueIteratorT {
    using MapConstIterator = typename std::map<Key, Value>::const_iterator;
    using iterator_category = std::forward_iterator_tag;
    using value_type = Value;
    using difference_type = std::ptrdiff_t;
    using pointer = const Value*;
    using reference = const Value&;

    MapConstIterator it;

    ConstValueIteratorT() = default;
    explicit ConstValueIteratorT(MapConstIterator i) : it(i) {}

    const Value& operator*() const { return it->second; }
    const Value* operator->() const { return &it->second; }
    ConstValueIteratorT& operator++() {
        ++it;
        return *this;
    }
    ConstValueIteratorT operator++(int) {
        ConstValueIteratorT previous = *this;
        ++it;
        return previous;
    }
    bool operator==(const ConstValueIteratorT& other) const { return it == other.it; }
    bool operator!=(const ConstValueIteratorT& other) const { return it != other.it; }
};

// Logs, at info level, a head line with the count and then one line per entry.
void logResolutionSet(const ResolutionSet& resolutionSet, const std::string& prefix);

// "640 480". The reader takes the width, skips exactly one character of any kind (so "640x480"
// reads too) and takes the height.
std::ostream& operator<<(std::ostream& os, const Resolution& resolution);
std::istream& operator>>(std::istream& is, Resolution& resolution);
// Count, then each resolution followed by a blank.
std::ostream& operator<<(std::ostream& os, const ResolutionSet& resolutionSet);
// The form of serialize; the reader calls deserialize and leaves the verdict to the stream state.
std::ostream& operator<<(std::ostream& os, const ActivableResolution& resolution);
std::istream& operator>>(std::istream& is, ActivableResolution& resolution);
// "1 30". The reader's flag is active only for exactly 1; one character is skipped after it.
std::ostream& operator<<(std::ostream& os, const ActivableDuration& duration);
std::istream& operator>>(std::istream& is, ActivableDuration& duration);

} // namespace Ombrel
