#include "FastCGI.h"

#include "Points.h"

#include <errno.h>
#include <fastcgi.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <uriparser/Uri.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <set>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace Ombrel {

namespace {

// The largest request body that is read.
constexpr long kMaxBodyBytes = 16L * 1024 * 1024;
// How long the peer of an accepted connection may stay silent while the body is read or the
// answer written.
constexpr time_t kSilenceSeconds = 10;

// The value of a request parameter; empty when the web server did not send it.
std::string requestParam(const char* name, FCGX_ParamArray envp) {
    const char* value = FCGX_GetParam(name, envp);
    return value != nullptr ? value : "";
}

// Whether libfcgi can make a Unix socket at path. It ends the whole process when binding fails
// or the path is too long, and it takes a path with a colon for a TCP address, so these are
// checked first and reported as a failure to open. An old socket at the path is replaced.
bool canOpenSocketAt(const std::string& path) {
    if (path.size() >= sizeof(sockaddr_un::sun_path) || path.find(':') != std::string::npos) {
        return false;
    }
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0 && !S_ISSOCK(status.st_mode)) {
        return false;
    }
    const std::string folder = path.substr(0, path.rfind('/'));
    return ::stat(folder.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
           ::access(folder.c_str(), W_OK | X_OK) == 0;
}

// A decimal CONTENT_LENGTH within the limit, or -1.
long acceptedBodyLength(const char* text) {
    if (text == nullptr || *text == '\0') {
        return -1;
    }
    long length = 0;
    for (const char* c = text; *c != '\0'; ++c) {
        if (*c < '0' || *c > '9') {
            return -1;
        }
        length = length * 10 + (*c - '0');
        if (length > kMaxBodyBytes) {
            return -1;
        }
    }
    return length;
}

// The largest parameter stream of a request.
constexpr std::size_t kMaxParamsBytes = 64 * 1024;
// The most body bytes handed to libfcgi at a time.
constexpr std::size_t kRelayChunk = 32 * 1024;

using Clock = std::chrono::steady_clock;

// Waits at most limit for the next bytes of fd.
void setSilenceLimit(int fd, Clock::duration limit) {
    const long long micros = std::max<long long>(
        1, std::chrono::duration_cast<std::chrono::microseconds>(limit).count());
    const timeval value{static_cast<time_t>(micros / 1000000),
                        static_cast<suseconds_t>(micros % 1000000)};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &value, sizeof(value));
}

enum class ReadResult { Done, Ended, Failed };

// Reads exactly size bytes. Ended: the peer closed or fell silent before the first byte; Failed:
// later. With a deadline, no wait goes past it; without, each wait is the socket's own limit.
ReadResult readExactly(int fd, char* out, std::size_t size, const Clock::time_point* deadline) {
    std::size_t got = 0;
    while (got < size) {
        if (deadline != nullptr) {
            const Clock::duration left = *deadline - Clock::now();
            if (left <= Clock::duration::zero()) {
                return got == 0 ? ReadResult::Ended : ReadResult::Failed;
            }
            setSilenceLimit(fd,
                            std::min<Clock::duration>(left, std::chrono::seconds(kSilenceSeconds)));
        }
        const ssize_t n = ::recv(fd, out + got, size - got, 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return got == 0 ? ReadResult::Ended : ReadResult::Failed;
        }
        got += static_cast<std::size_t>(n);
    }
    return ReadResult::Done;
}

bool readContent(int fd, std::string& content, std::size_t size,
                 const Clock::time_point* deadline) {
    content.resize(size);
    return size == 0 || readExactly(fd, &content[0], size, deadline) == ReadResult::Done;
}

bool skipBytes(int fd, std::size_t size, const Clock::time_point* deadline) {
    char buffer[4096];
    while (size > 0) {
        const std::size_t part = std::min(size, sizeof(buffer));
        if (readExactly(fd, buffer, part, deadline) != ReadResult::Done) {
            return false;
        }
        size -= part;
    }
    return true;
}

// Sends all of bytes; false if the peer is gone, or (on a non-blocking socket) full.
bool sendAll(int fd, const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

struct RecordHeader {
    unsigned int version = 0;
    unsigned int type = 0;
    unsigned int requestId = 0;
    std::size_t contentLength = 0;
    std::size_t paddingLength = 0;
};

ReadResult readHeader(int fd, RecordHeader& header, const Clock::time_point* deadline) {
    unsigned char bytes[FCGI_HEADER_LEN] = {};
    const ReadResult result =
        readExactly(fd, reinterpret_cast<char*>(bytes), sizeof(bytes), deadline);
    header.version = bytes[0];
    header.type = bytes[1];
    header.requestId = bytes[2] * 256u + bytes[3];
    header.contentLength = bytes[4] * 256u + bytes[5];
    header.paddingLength = bytes[6];
    return result;
}

// A record as this class writes it: version 1, padded to a multiple of eight bytes.
std::string makeRecord(unsigned int type, unsigned int requestId, const char* content,
                       std::size_t size) {
    const std::size_t padding = (8 - size % 8) % 8;
    std::string bytes{static_cast<char>(FCGI_VERSION_1), static_cast<char>(type),
                      static_cast<char>(requestId >> 8), static_cast<char>(requestId & 0xFF),
                      static_cast<char>(size >> 8),      static_cast<char>(size & 0xFF),
                      static_cast<char>(padding),        0};
    bytes.append(content, size);
    bytes.append(padding, '\0');
    return bytes;
}

std::string makeRecord(unsigned int type, unsigned int requestId, const std::string& content) {
    return makeRecord(type, requestId, content.data(), content.size());
}

// One length of a name-value pair: one byte below 128, else four with the top bit set.
bool readPairLength(const std::string& stream, std::size_t& at, std::size_t& length) {
    if (at >= stream.size()) {
        return false;
    }
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(stream[i]); };
    if ((byte(at) & 0x80) == 0) {
        length = byte(at);
        at += 1;
        return true;
    }
    if (stream.size() - at < 4) {
        return false;
    }
    length = (static_cast<std::size_t>(byte(at) & 0x7F) << 24) |
             (static_cast<std::size_t>(byte(at + 1)) << 16) |
             (static_cast<std::size_t>(byte(at + 2)) << 8) | byte(at + 3);
    at += 4;
    return true;
}

// The names of a stream of name-value pairs; false unless every pair lies whole inside it.
// libfcgi allocates what a pair's lengths announce before it reads the pair (and ends the
// process when that fails), so only a stream that passes here reaches it.
bool pairNames(const std::string& stream, std::vector<std::string>& names) {
    std::size_t at = 0;
    while (at < stream.size()) {
        std::size_t nameLength = 0;
        std::size_t valueLength = 0;
        if (!readPairLength(stream, at, nameLength) || !readPairLength(stream, at, valueLength) ||
            nameLength > stream.size() - at || valueLength > stream.size() - at - nameLength) {
            return false;
        }
        names.push_back(stream.substr(at, nameLength));
        at += nameLength + valueLength;
    }
    return true;
}

// The answer to a management record: the values that FCGI_GET_VALUES asks for (one connection,
// one request at a time, no multiplexing), each once, or FCGI_UNKNOWN_TYPE for any other type.
// Empty for a damaged FCGI_GET_VALUES, which is not answered.
std::string managementAnswer(unsigned int type, const std::string& content) {
    if (type != FCGI_GET_VALUES) {
        std::string body(8, '\0');
        body[0] = static_cast<char>(type);
        return makeRecord(FCGI_UNKNOWN_TYPE, FCGI_NULL_REQUEST_ID, body);
    }
    std::vector<std::string> names;
    if (!pairNames(content, names)) {
        return "";
    }
    std::string values;
    std::set<std::string> answered;
    for (const std::string& name : names) {
        const char* value = name == FCGI_MAX_CONNS    ? "1"
                            : name == FCGI_MAX_REQS   ? "1"
                            : name == FCGI_MPXS_CONNS ? "0"
                                                      : nullptr;
        if (value != nullptr && answered.insert(name).second) {
            values += static_cast<char>(name.size());
            values += '\1';
            values += name + value;
        }
    }
    return makeRecord(FCGI_GET_VALUES_RESULT, FCGI_NULL_REQUEST_ID, values);
}

// Reads the content and padding of a record that is not part of the request being read: a
// management record is answered, a new request while one is in progress refused as libfcgi
// would, and anything else dropped. False if the connection fails meanwhile.
bool answerOrDrop(int fd, const RecordHeader& header, bool requestBegun,
                  const Clock::time_point* deadline) {
    std::string content;
    if (!readContent(fd, content, header.contentLength, deadline) ||
        !skipBytes(fd, header.paddingLength, deadline)) {
        return false;
    }
    if (header.requestId == FCGI_NULL_REQUEST_ID) {
        return sendAll(fd, managementAnswer(header.type, content));
    }
    if (requestBegun && header.type == FCGI_BEGIN_REQUEST) {
        std::string body(8, '\0');
        body[4] = static_cast<char>(FCGI_CANT_MPX_CONN);
        return sendAll(fd, makeRecord(FCGI_END_REQUEST, header.requestId, body));
    }
    return true;
}

} // namespace

FastCGIServer::FastCGIServer(const std::string& appName) {
    g_stemlibLogger.info("FastCGIServer: Starting FastCGI server for appName " + appName);
    std::memset(&_request, 0, sizeof(_request));
    if (FCGX_Init() != 0) {
        throw std::runtime_error("FCGX_Init failed");
    }
    g_stemlibLogger.info("FastCGIServer: FCGX_Init succeeded");

    const std::string socketPath =
        "/usr/local/packages/" + appName + "/html/" + appName + "_fcgi.socket";
    g_stemlibLogger.info("FastCGIServer: Opening Socket: " + socketPath);
    _socket = canOpenSocketAt(socketPath) ? FCGX_OpenSocket(socketPath.c_str(), 5) : -1;
    if (_socket < 0) {
        g_stemlibLogger.error("FastCGIServer: FCGX_OpenSocket failed");
        throw std::runtime_error("FCGX_OpenSocket failed");
    }
    // Every user (the web server's included) may connect.
    ::chmod(socketPath.c_str(), 0777);

    if (FCGX_InitRequest(&_request, _socket, 0) != 0) {
        FCGX_Free(&_request, _socket);
        g_stemlibLogger.error("FastCGIServer: FCGX_InitRequest failed");
        throw std::runtime_error("FCGX_InitRequest failed");
    }
}

FastCGIServer::~FastCGIServer() {
    FCGX_Free(&_request, _socket);
}

int FastCGIServer::start() {
    if (pthread_create(&_thread, nullptr, &FastCGIServer::threadFunction, this) != 0) {
        g_stemlibLogger.error("start: Failed to create the FastCGI server thread");
    }
    return 0;
}

void* FastCGIServer::threadFunction(void* arg) {
    static_cast<FastCGIServer*>(arg)->run();
    return nullptr;
}

int FastCGIServer::run() {
    g_stemlibLogger.info("run: Starting FastCGI server run loop");
    // This class accepts the connections itself, and libfcgi reads only the records that it has
    // checked and passed on; libfcgi never accepts by itself.
    _request.listen_sock = -1;
    for (;;) {
        const int connection = ::accept4(_socket, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) {
            if (errno == EINTR || errno == ECONNABORTED || errno == EPROTO) {
                continue;
            }
            break;
        }
        serveConnection(connection);
    }
    g_stemlibLogger.info("run: Exiting FastCGI server run loop");
    return 0;
}

void FastCGIServer::serveConnection(int connection) {
    // Bound what a silent peer can hold up: the answer's writes (and, below, every read).
    const timeval limit{kSilenceSeconds, 0};
    ::setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    _exchange = Exchange();
    _exchange.connection = connection;
    bool open = true; // false once libfcgi has closed the connection
    bool another = true;
    // One request after the other, for as long as the web server keeps the connection.
    while (open && another) {
        another = false;
        int relay[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, relay) != 0) {
            g_stemlibLogger.error(std::string("run: Failed to make a socket pair: ") +
                                  std::strerror(errno));
            break;
        }
        // Written without waiting: it never holds more than a request's head or one part of its
        // body, which libfcgi reads before more is written.
        ::fcntl(relay[0], F_SETFL, ::fcntl(relay[0], F_GETFL) | O_NONBLOCK);
        _exchange.relayIn = relay[0];
        _exchange.relayOut = relay[1];
        _exchange.unreadBody = 0;
        _exchange.bodyEnded = false;

        bool relayOutOpen = true;
        if (relayRequestHead()) {
            _request.ipcFd = relay[1];
            // Keeps libfcgi from closing the relay as the end of a previous request.
            _request.keepConnection = 1;
            if (FCGX_Accept_r(&_request) == 0) {
                // The answer goes straight to the web server.
                _request.ipcFd = connection;
                setSilenceLimit(connection, std::chrono::seconds(kSilenceSeconds));
                serveRequest();
                // A request that the parse failures left open is finished here.
                if (_request.in != nullptr) {
                    FCGX_Finish_r(&_request);
                }
                // libfcgi closes the connection unless the web server asked to keep it.
                open = _request.ipcFd == connection;
                another = open;
            } else {
                // libfcgi refused the records and closed its end of the relay.
                relayOutOpen = false;
                g_stemlibLogger.error("run: Refused FastCGI request: libfcgi could not read it");
            }
        }
        if (relayOutOpen) {
            ::close(relay[1]);
        }
        ::close(relay[0]);
    }
    if (open) {
        ::close(connection);
    }
    _request.ipcFd = -1;
    _exchange = Exchange();
}

bool FastCGIServer::relayRequestHead() {
    const int fd = _exchange.connection;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(kSilenceSeconds);
    const auto refuse = [](const std::string& reason) {
        g_stemlibLogger.error("run: Refused FastCGI request: " + reason);
        return false;
    };
    // The rest of the previous request's last body record, on a kept connection.
    const std::size_t rest = _exchange.recordLeft + _exchange.paddingLeft;
    _exchange.recordLeft = 0;
    _exchange.paddingLeft = 0;
    if (!skipBytes(fd, rest, &deadline)) {
        return false;
    }

    std::string begin;
    std::string params;
    for (;;) {
        RecordHeader header;
        const ReadResult read = readHeader(fd, header, &deadline);
        if (read != ReadResult::Done) {
            // A web server that closes a connection between requests is no failure.
            return begin.empty() && read == ReadResult::Ended
                       ? false
                       : refuse("the connection ended or fell silent before the end of the "
                                "parameters");
        }
        if (header.version != FCGI_VERSION_1) {
            return refuse("record of version " + std::to_string(header.version));
        }
        const bool begun = !begin.empty();
        if (header.type == FCGI_BEGIN_REQUEST && !begun && header.requestId != 0) {
            if (header.contentLength != 8 || !readContent(fd, begin, 8, &deadline) ||
                !skipBytes(fd, header.paddingLength, &deadline)) {
                return refuse("damaged begin record");
            }
            // libfcgi's roles; it would drop any other only after a wait.
            const unsigned int role =
                static_cast<unsigned char>(begin[0]) * 256u + static_cast<unsigned char>(begin[1]);
            if (role != FCGI_RESPONDER && role != FCGI_AUTHORIZER && role != FCGI_FILTER) {
                return refuse("role " + std::to_string(role));
            }
            _exchange.requestId = header.requestId;
            continue;
        }
        if (!begun || header.requestId != _exchange.requestId) {
            if (!answerOrDrop(fd, header, begun, &deadline)) {
                return refuse("the connection ended or fell silent before the end of the "
                              "parameters");
            }
            continue;
        }
        if (header.type != FCGI_PARAMS) {
            return refuse("record of type " + std::to_string(header.type) +
                          " before the end of the parameters");
        }
        if (header.contentLength == 0) {
            break;
        }
        if (params.size() + header.contentLength > kMaxParamsBytes) {
            return refuse("parameters larger than " + std::to_string(kMaxParamsBytes) + " bytes");
        }
        std::string content;
        if (!readContent(fd, content, header.contentLength, &deadline) ||
            !skipBytes(fd, header.paddingLength, &deadline)) {
            return refuse("the connection ended or fell silent before the end of the parameters");
        }
        params += content;
    }
    std::vector<std::string> names;
    if (!pairNames(params, names)) {
        return refuse("damaged parameters");
    }

    std::string head = makeRecord(FCGI_BEGIN_REQUEST, _exchange.requestId, begin);
    for (std::size_t at = 0; at < params.size(); at += FCGI_MAX_LENGTH) {
        const std::size_t part = std::min<std::size_t>(FCGI_MAX_LENGTH, params.size() - at);
        head += makeRecord(FCGI_PARAMS, _exchange.requestId, params.data() + at, part);
    }
    head += makeRecord(FCGI_PARAMS, _exchange.requestId, "");
    if (!sendAll(_exchange.relayIn, head)) {
        return refuse("the parameters do not fit into the relay");
    }
    return true;
}

void FastCGIServer::relayBody(std::size_t wanted) {
    const int fd = _exchange.connection;
    std::string content;
    bool failed = false;
    while (content.size() < wanted && !_exchange.bodyEnded && !failed) {
        if (_exchange.recordLeft == 0) {
            RecordHeader header;
            if (!skipBytes(fd, _exchange.paddingLeft, nullptr) ||
                readHeader(fd, header, nullptr) != ReadResult::Done ||
                header.version != FCGI_VERSION_1) {
                failed = true;
                break;
            }
            _exchange.paddingLeft = 0;
            if (header.requestId != _exchange.requestId) {
                failed = !answerOrDrop(fd, header, true, nullptr);
                continue;
            }
            // libfcgi would take a stream other than the body for a protocol error.
            if (header.type != FCGI_STDIN) {
                failed = true;
                break;
            }
            if (header.contentLength == 0) {
                _exchange.bodyEnded = skipBytes(fd, header.paddingLength, nullptr);
                failed = !_exchange.bodyEnded;
                break;
            }
            _exchange.recordLeft = header.contentLength;
            _exchange.paddingLeft = header.paddingLength;
        }
        const std::size_t part = std::min(_exchange.recordLeft, wanted - content.size());
        std::string bytes;
        if (!readContent(fd, bytes, part, nullptr)) {
            failed = true;
            break;
        }
        content += bytes;
        _exchange.recordLeft -= part;
    }

    std::string relayed;
    for (std::size_t at = 0; at < content.size(); at += FCGI_MAX_LENGTH) {
        const std::size_t part = std::min<std::size_t>(FCGI_MAX_LENGTH, content.size() - at);
        relayed += makeRecord(FCGI_STDIN, _exchange.requestId, content.data() + at, part);
    }
    if (_exchange.bodyEnded) {
        relayed += makeRecord(FCGI_STDIN, _exchange.requestId, "");
    }
    _exchange.unreadBody += content.size();
    if (!sendAll(_exchange.relayIn, relayed) || failed) {
        // libfcgi then finds the end of its input where the body stops.
        ::shutdown(_exchange.relayIn, SHUT_WR);
        _exchange.bodyEnded = true;
    }
}

void FastCGIServer::serveRequest() {
    // On the two parse failures the request stays open; the next FCGX_Accept_r finishes it.
    const char* uriParam = FCGX_GetParam("REQUEST_URI", _request.envp);
    const std::string uriString = uriParam != nullptr ? uriParam : "";
    UriUriA uri;
    const char* errorPosition = nullptr;
    if (uriParam == nullptr ||
        uriParseSingleUriA(&uri, uriString.c_str(), &errorPosition) != URI_SUCCESS) {
        g_stemlibLogger.error("run: Failed to parse URI " + uriString);
        FCGX_PutS("Failed to parse URI", _request.out);
        return;
    }

    // A URI without a query has a null query range, which uriparser refuses.
    UriQueryListA* queryList = nullptr;
    int itemCount = 0;
    if (uriDissectQueryMallocA(&queryList, &itemCount, uri.query.first, uri.query.afterLast) !=
        URI_SUCCESS) {
        FCGX_PutS("Failed to parse query", _request.out);
        uriFreeUriMembersA(&uri);
        return;
    }

    const std::string uriMethod = requestParam("REQUEST_METHOD", _request.envp);
    for (const UriQueryListA* item = queryList; item != nullptr; item = item->next) {
        std::string response;
        if (item->key != nullptr && std::strcmp(item->key, "action") == 0) {
            const std::string action = item->value != nullptr ? item->value : "";
            try {
                if (uriMethod == "GET") {
                    response = processGetRequest(action);
                } else if (uriMethod == "POST") {
                    std::string body;
                    if (!readPostBody(body)) {
                        FCGX_PutS("Failed to read request body", _request.out);
                        break;
                    }
                    response = processPostRequest(action, body);
                } else {
                    response =
                        "Only GET and POST supported. Method " + uriMethod + " not supported";
                }
            } catch (const std::exception& e) {
                g_stemlibLogger.error(std::string("run: Handler failed: ") + e.what());
                response.clear();
            } catch (...) {
                g_stemlibLogger.error("run: Handler failed: unknown exception");
                response.clear();
            }
        }
        // Every item writes a whole block, whatever its key.
        FCGX_PutS("Status: 200 OK\r\n", _request.out);
        FCGX_PutS("Content-Type: text/plain\r\n", _request.out);
        FCGX_PutS("\r\n", _request.out);
        FCGX_FPrintF(_request.out, "%s", response.c_str());
    }

    FCGX_Finish_r(&_request);
    uriFreeQueryListA(queryList);
    uriFreeUriMembersA(&uri);
}

std::string FastCGIServer::getPostBody() {
    std::string body;
    readPostBody(body);
    return body;
}

bool FastCGIServer::readPostBody(std::string& body) {
    const char* lengthParam = FCGX_GetParam("CONTENT_LENGTH", _request.envp);
    const long size = acceptedBodyLength(lengthParam);
    if (size < 0) {
        g_stemlibLogger.error(std::string("run: Refused request body of length ") +
                              (lengthParam != nullptr ? lengthParam : ""));
        body.clear();
        return false;
    }
    body.assign(static_cast<std::size_t>(size), '\xFF');
    // What the client did not send reads as end of input, which stays 0xFF. libfcgi reads the
    // body from the relay, a part at a time, as this class takes it from the connection.
    std::size_t read = 0;
    while (read < body.size()) {
        if (_exchange.unreadBody == 0 && !_exchange.bodyEnded) {
            relayBody(std::min(kRelayChunk, body.size() - read));
        }
        // Past the body's bytes, libfcgi reads its end.
        const std::size_t wanted =
            _exchange.unreadBody > 0 ? std::min(_exchange.unreadBody, body.size() - read) : 1;
        _request.ipcFd = _exchange.relayOut;
        const int got = FCGX_GetStr(&body[read], static_cast<int>(wanted), _request.in);
        _request.ipcFd = _exchange.connection;
        if (got <= 0) {
            break;
        }
        read += static_cast<std::size_t>(got);
        _exchange.unreadBody -= static_cast<std::size_t>(got);
    }
    return true;
}

KeyValueMap FastCGIServer::parseQueryString(const std::string& queryString) {
    KeyValueMap result;
    std::istringstream stream(queryString);
    std::string part;
    while (std::getline(stream, part, '&')) {
        const std::size_t equals = part.find('=');
        if (equals == std::string::npos) {
            continue;
        }
        result[part.substr(0, equals)] = part.substr(equals + 1);
    }
    return result;
}

} // namespace Ombrel
