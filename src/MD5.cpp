#include "MD5.h"

#include <glib.h>

#include <algorithm>
#include <memory>

namespace Ombrel {

std::string MD5::hash(const std::string& input) {
    std::unique_ptr<GChecksum, decltype(&g_checksum_free)> checksum(g_checksum_new(G_CHECKSUM_MD5),
                                                                    &g_checksum_free);
    // GChecksum takes the length as a signed size; feed huge inputs in pieces.
    const std::size_t piece = 1u << 30;
    for (std::size_t offset = 0; offset < input.size(); offset += piece) {
        const std::size_t length = std::min(piece, input.size() - offset);
        g_checksum_update(checksum.get(), reinterpret_cast<const guchar*>(input.data() + offset),
                          static_cast<gssize>(length));
    }
    return g_checksum_get_string(checksum.get());
}

} // namespace Ombrel
