#include "Logger.h"

namespace Ombrel {

Logger::~Logger() = default;

} // namespace Ombrel
