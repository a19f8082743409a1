#include "FastCGI.h"

#include "Points.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <uriparser/Uri.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <sstream>
#include <stdexcept>

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
    while (FCGX_Accept_r(&_request) == 0) {
        // Bound what a silent peer can hold up: the body's reads and the answer's writes.
        const timeval limit{kSilenceSeconds, 0};
        ::setsockopt(_request.ipcFd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        ::setsockopt(_request.ipcFd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
        serveRequest();
    }
    g_stemlibLogger.info("run: Exiting FastCGI server run loop");
    return 0;
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
    // What the client did not send reads as end of input, which stays 0xFF.
    std::size_t read = 0;
    while (read < body.size()) {
        const int wanted = static_cast<int>(std::min<std::size_t>(body.size() - read, 65536));
        const int got = FCGX_GetStr(&body[read], wanted, _request.in);
        if (got <= 0) {
            break;
        }
        read += static_cast<std::size_t>(got);
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
