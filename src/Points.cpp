#include "Points.h"

namespace Ombrel::detail {

float planeDistance(float dx, float dy) {
    const float sum = dx * dx + dy * dy;
    return static_cast<float>(std::sqrt(static_cast<double>(sum)));
}

} // namespace Ombrel::detail
