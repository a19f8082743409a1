// A minimal HTTP/1.1 client for a web server on the camera's own loopback address (127.0.0.1),
// with the client side of HTTP Digest authentication (RFC 2617, qop "auth", MD5).
//
// Every call opens one TCP connection, sends one GET with "Connection: close" and reads until the
// server closes it; neither the status line nor chunked transfer coding is interpreted. A peer
// that stays silent for 10 seconds (while connecting or reading) ends the call, and at most
// 64 MiB of a response is read, so a misbehaving local server can neither hang nor flood the
// caller.
//
// No state: the functions may be called from any thread; each blocks its caller for as long as
// the exchange takes.
#pragma once

#include <cstdint>
#include <string>

namespace Ombrel {

// The whole response to "GET path", headers included. Throws std::runtime_error with
// "socket() failed" or "connect() failed" when there is no connection, and "recv() timed out"
// when the server stays silent for 10 seconds.
std::string httpGetLocalRaw(const std::string& path, uint16_t port);

// The body of the response (the text behind the first blank line; the whole response if there is
// none) to "GET path" with one extra header line, given without its line end. Never throws: no
// connection or a silent server gives an empty text.
std::string httpGetLocalWithHeader(const std::string& path, const std::string& extraHeader,
                                   uint16_t port);

// The quoted value of key="..." in header: the first place where the letters of key stand before
// '="', wherever that is (the key "nonce" also matches inside "cnonce"). Empty if absent or
// unquoted; an unclosed quote runs to the end.
std::string extractField(const std::string& header, const std::string& key);

// A fresh client nonce: eight 32-bit values of the system's random device in hexadecimal,
// without leading zeros or separators (so up to 64 characters).
std::string generateCnonce();

// The body of "GET path", answering a Digest challenge with username and password. An
// unchallenged response (no "401" anywhere in it) gives its body from the first connection;
// otherwise a second request carries the Authorization header (nc 00000001, a fresh cnonce), and
// its body is returned as it comes, a refusal included. Exceptions of the first request pass
// through; a 401 without a WWW-Authenticate header throws std::out_of_range.
std::string httpGetDigest(const std::string& path, const std::string& username,
                          const std::string& password, uint16_t port);

} // namespace Ombrel
