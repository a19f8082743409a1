// The text of a GError that a camera service call reported, for the library's log lines.
#pragma once

#include <glib.h>

#include <string>

namespace Ombrel {
namespace detail {

// The error's message ("unknown error" when the service set none). The error is released and
// the pointer cleared, so the caller may pass it to the next call.
inline std::string takeErrorMessage(GError*& error) {
    std::string message =
        error != nullptr && error->message != nullptr ? error->message : "unknown error";
    g_clear_error(&error);
    return message;
}

} // namespace detail
} // namespace Ombrel
