#include "Location.h"

namespace Ombrel {

std::string toString(AOILocation location) {
    switch (location) {
    case AOILocation::AOI0:
        return "AOI0";
    case AOILocation::AOI1:
        return "AOI1";
    case AOILocation::AOI2:
        return "AOI2";
    case AOILocation::Exterior:
        return "Exterior";
    case AOILocation::Unknown:
        break;
    }
    return "Unknown";
}

std::string toString(ExclusionLocation location) {
    switch (location) {
    case ExclusionLocation::Exclusion0:
        return "Exclusion0";
    case ExclusionLocation::Exclusion1:
        return "Exclusion1";
    case ExclusionLocation::Exclusion2:
        return "Exclusion2";
    case ExclusionLocation::Exterior:
        return "Exterior";
    }
    return "Unknown";
}

std::string toString(EntranceLocation location) {
    switch (location) {
    case EntranceLocation::Entrance0:
        return "Entrance0";
    case EntranceLocation::Entrance1:
        return "Entrance1";
    case EntranceLocation::Entrance2:
        return "Entrance2";
    case EntranceLocation::Exterior:
        return "Exterior";
    case EntranceLocation::Unknown:
        break;
    }
    return "Unknown";
}

std::string toString(Objects object) {
    switch (object) {
    case Objects::Person:
        return "Person";
    case Objects::Bicycle:
        return "Bicycle";
    case Objects::Car:
        return "Car";
    case Objects::Motorcycle:
        return "Motorcycle";
    case Objects::Airplane:
        return "Airplane";
    case Objects::Bus:
        return "Bus";
    case Objects::Train:
        return "Train";
    case Objects::Truck:
        return "Truck";
    case Objects::Boat:
        return "Boat";
    case Objects::Unknown:
        break;
    }
    return "Unknown";
}

} // namespace Ombrel
