// The shared enumerations of the scene rules, with their integer values, and their words.
//
// Values are fixed: they appear as integers in configuration and archive text.
#pragma once

#include <array>
#include <string>

namespace Ombrel {

enum class AOIDuration { Briefly = 0, Lengthily = 1, Unknown = 2 };

enum class AOILocation { AOI0 = 0, AOI1 = 1, AOI2 = 2, Exterior = 3, Unknown = 4 };

enum class ArmPosition { Up = 0, Out = 1, Down = 2, In = 3, Ignore = 4, Unknown = 100 };

enum class AspectRatio { Invalid = 0, Fullscreen = 1, Widescreen = 2, Square = 3 };

enum class EntranceActivity {
    EnterEntrance0 = 0,
    ExitEntrance0 = 1,
    EnterEntrance1 = 2,
    ExitEntrance1 = 3,
    EnterEntrance2 = 4,
    ExitEntrance2 = 5,
    None = 6,
    Unknown = 7
};

enum class EntranceLocation {
    Entrance0 = 0,
    Entrance1 = 1,
    Entrance2 = 2,
    Exterior = 3,
    Unknown = 4
};

enum class ExclusionLocation { Exclusion0 = 0, Exclusion1 = 1, Exclusion2 = 2, Exterior = 3 };

enum class Location {
    None = 0,
    Queue0 = 1,
    Cashier0 = 2,
    AOI0 = 3,
    AOI1 = 4,
    AOI2 = 5,
    Exterior = 6
};

enum class LogicalOperation { And = 0, Or = 1, Unknown = 100 };

enum class Objects {
    Person = 0,
    Bicycle = 1,
    Car = 2,
    Motorcycle = 3,
    Airplane = 4,
    Bus = 5,
    Train = 6,
    Truck = 7,
    Boat = 8,
    Unknown = 100
};

inline constexpr std::array<ExclusionLocation, 3> ValidExclusions{
    ExclusionLocation::Exclusion0, ExclusionLocation::Exclusion1, ExclusionLocation::Exclusion2};

// Each gives the member's own name, and "Unknown" for Unknown and any value outside the
// enumeration.
std::string toString(AOILocation location);
std::string toString(ExclusionLocation location);
std::string toString(EntranceLocation location);
std::string toString(Objects object);

} // namespace Ombrel
