#include "HttpClient.h"

#include "MD5.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <sstream>
#include <stdexcept>

namespace Ombrel {

namespace {

// How long a peer may stay silent while connecting or sending, and between two pieces of the
// response.
constexpr time_t kSilenceSeconds = 10;
// The most of a response that is read; the rest is left unread.
constexpr std::size_t kMaxResponseBytes = std::size_t{64} << 20;

// A TCP socket that closes itself.
class Connection {
public:
    Connection() : _fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (_fd >= 0) {
            const timeval limit{kSilenceSeconds, 0};
            ::setsockopt(_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
            // On Linux this also bounds connect().
            ::setsockopt(_fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
        }
    }
    ~Connection() {
        if (_fd >= 0) {
            ::close(_fd);
        }
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool isOpen() const { return _fd >= 0; }

    bool connectToLocalPort(uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int result;
        do {
            result = ::connect(_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        } while (result != 0 && errno == EINTR);
        return result == 0;
    }

    // One send call; a partial send is not repeated. MSG_NOSIGNAL: a peer that has gone away
    // must not raise SIGPIPE in the application.
    void send(const std::string& request) {
        ::send(_fd, request.data(), request.size(), MSG_NOSIGNAL);
    }

    // Appends the response to response until the peer closes the connection, an error occurs or
    // kMaxResponseBytes have been read. False if the peer stayed silent for too long.
    bool receiveAll(std::string& response) {
        char buffer[4096];
        while (response.size() < kMaxResponseBytes) {
            const std::size_t wanted =
                std::min(sizeof(buffer), kMaxResponseBytes - response.size());
            const ssize_t received = ::recv(_fd, buffer, wanted, 0);
            if (received > 0) {
                response.append(buffer, static_cast<std::size_t>(received));
            } else if (received == 0) {
                break;
            } else if (errno == EINTR) {
                continue;
            } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
                return false;
            } else {
                break;
            }
        }
        return true;
    }

private:
    int _fd;
};

} // namespace

std::string httpGetLocalRaw(const std::string& path, uint16_t port) {
    Connection connection;
    if (!connection.isOpen()) {
        throw std::runtime_error("socket() failed");
    }
    if (!connection.connectToLocalPort(port)) {
        throw std::runtime_error("connect() failed");
    }
    connection.send("GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    std::string response;
    if (!connection.receiveAll(response)) {
        throw std::runtime_error("recv() timed out");
    }
    return response;
}

std::string httpGetLocalWithHeader(const std::string& path, const std::string& extraHeader,
                                   uint16_t port) {
    Connection connection;
    if (!connection.isOpen() || !connection.connectToLocalPort(port)) {
        return "";
    }
    connection.send("GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + extraHeader +
                    "\r\nConnection: close\r\n\r\n");
    std::string response;
    if (!connection.receiveAll(response)) {
        return "";
    }
    const std::size_t blankLine = response.find("\r\n\r\n");
    return blankLine == std::string::npos ? response : response.substr(blankLine + 4);
}

std::string extractField(const std::string& header, const std::string& key) {
    const std::string opening = key + "=\"";
    const std::size_t start = header.find(opening);
    if (start == std::string::npos) {
        return "";
    }
    const std::size_t valueStart = start + opening.size();
    const std::size_t valueEnd = header.find('"', valueStart);
    return header.substr(valueStart,
                         valueEnd == std::string::npos ? std::string::npos : valueEnd - valueStart);
}

std::string generateCnonce() {
    std::random_device device;
    std::ostringstream text;
    text << std::hex;
    for (int i = 0; i < 8; ++i) {
        text << static_cast<uint32_t>(device());
    }
    return text.str();
}

std::string httpGetDigest(const std::string& path, const std::string& username,
                          const std::string& password, uint16_t port) {
    const std::string raw = httpGetLocalRaw(path, port);
    if (raw.find("401") == std::string::npos) {
        // Not challenged. Without a blank line the text from the fourth character on is given.
        const std::size_t blankLine = raw.find("\r\n\r\n");
        const std::size_t bodyStart = blankLine == std::string::npos ? 3 : blankLine + 4;
        return bodyStart < raw.size() ? raw.substr(bodyStart) : "";
    }

    const std::size_t headerStart = raw.find("WWW-Authenticate:");
    if (headerStart == std::string::npos) {
        throw std::out_of_range("httpGetDigest: 401 response without a WWW-Authenticate header");
    }
    const std::size_t headerEnd = raw.find("\r\n", headerStart);
    const std::string challenge = raw.substr(
        headerStart, headerEnd == std::string::npos ? std::string::npos : headerEnd - headerStart);
    const std::string realm = extractField(challenge, "realm");
    const std::string nonce = extractField(challenge, "nonce");
    const std::string qop = extractField(challenge, "qop");

    const std::string nc = "00000001";
    const std::string cnonce = generateCnonce();
    const std::string method = "GET";

    const std::string ha1 = MD5::hash(username + ":" + realm + ":" + password);
    const std::string ha2 = MD5::hash(method + ":" + path);
    const std::string response =
        MD5::hash(ha1 + ":" + nonce + ":" + nc + ":" + cnonce + ":" + qop + ":" + ha2);

    const std::string authorization = "Digest username=\"" + username + "\", realm=\"" + realm +
                                      "\", nonce=\"" + nonce + "\", uri=\"" + path +
                                      "\", qop=" + qop + ", nc=" + nc + ", cnonce=\"" + cnonce +
                                      "\", response=\"" + response + "\"";
    return httpGetLocalWithHeader(path, "Authorization: " + authorization, port);
}

} // namespace Ombrel
