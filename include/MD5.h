// MD5: the digest of a text as 32 lower-case hexadecimal characters, the form that HTTP Digest
// authentication exchanges. The algorithm is GLib's (GChecksum); this class only adapts it.
//
// No state: hash may be called from any thread.
#pragma once

#include <string>

namespace Ombrel {

class MD5 {
public:
    // The MD5 digest of every byte of input (NUL bytes included), in lower-case hexadecimal.
    static std::string hash(const std::string& input);
};

} // namespace Ombrel
