// CounterStatus: what the people counter tells its web page, and its JSON text.
//
// The analysis loop fills a CounterStatus at every frame and publishes a copy under the
// application's lock; the web thread formats its copy with toJson() outside the lock.
//
// JSON form (numbers in plain decimal, texts escaped):
//   {"app":"people_counter","running":true,"frame":120,"videoSeconds":12.0,"fps":9.6,
//    "language":"en","inView":4,"peopleSeen":17,"peakInView":7,"entries":3,"exits":2,
//    "areas":[{"index":0,"active":true,"inside":2,"arrivals":9,"dwellSeconds":41.5,
//              "longestSeconds":12.1}, ...],
//    "people":[{"id":5,"area":0,"dwellSeconds":3.2,"x":412.0,"y":300.5,
//               "floor":{"x":1.25,"y":6.5}}, ...],          "area": -1 outside every area,
//                                                           "floor": null until calibrated
//    "calibration":{"status":"Observations: 3","calibrated":false,"observations":3,
//                   "walkingSpeed":null},
//    "snapshot":{"file":"snapshot.png","frame":110},"configVersion":0}
#pragma once

#include "CommonStructs.h"
#include "Points.h"

#include <array>
#include <string>
#include <vector>

namespace PeopleCounting {

struct PersonStatus {
    int id = 0;
    int area = -1; // -1: outside every area
    double dwellSeconds = 0.0;
    Ombrel::FPoint feet;
    bool hasFloor = false;
    Ombrel::FPoint floor; // metres on the floor, once calibrated
};

struct AreaStatus {
    bool active = false;
    int inside = 0;
    int arrivals = 0;
    double dwellSeconds = 0.0;   // visits that have ended, summed
    double longestSeconds = 0.0; // the longest visit that has ended
};

struct CounterStatus {
    std::string app;
    bool running = true;
    long frame = 0;
    double videoSeconds = 0.0;
    double fps = 0.0;
    std::string language = "en";
    int inView = 0;
    int peopleSeen = 0;
    int peakInView = 0;
    int entries = 0;
    int exits = 0;
    std::array<AreaStatus, Ombrel::NAOI> areas{};
    std::vector<PersonStatus> people;
    std::string calibrationStatus = "Not started";
    bool calibrated = false;
    int calibrationObservations = 0;
    double walkingSpeed = -1.0; // median of people's floor speeds in m/s; negative: unknown
    std::string snapshotFile = "snapshot.png";
    long snapshotFrame = -1;
    long configVersion = 0; // settings taken over by the analysis loop since the start
};

std::string toJson(const CounterStatus& status);
// A JSON string literal of text, quotes included.
std::string jsonString(const std::string& text);

} // namespace PeopleCounting
