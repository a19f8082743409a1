// The web endpoint: its socket, the answers to good and bad requests (straight on the socket,
// byte for byte, and through a real lighttpd with mod_fastcgi), malformed traffic, and load.
#include "HttpClient.h"
#include "LogLines.h"
#include "ScopedLogger.h"
#include "WebServers.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstdio>
#include <fstream>
#include <mutex>
#include <regex>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
// From the sanitizer runtime (declared here: GCC ships no header for it).
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

using namespace Ombrel;
using StemlibTest::Lighttpd;
using StemlibTest::PackageFolder;
using StemlibTest::TestFastCGIServer;

namespace {

#define REQUIRE_PACKAGE_FOLDER(folder)                                                             \
    if (!(folder).created())                                                                       \
    GTEST_SKIP() << "cannot write /usr/local/packages"

// A Logger for lines that come from the server's thread while the test reads them.
class SharedLogger : public Logger {
public:
    SharedLogger() : Logger("SharedLogger", "/dev/null") {}
    void info(const std::string& message) override { add("info", message); }
    void warning(const std::string& message) override { add("warning", message); }
    void error(const std::string& message) override { add("error", message); }

    // The library lines at level received so far, without prefix; forgets all lines.
    std::vector<std::string> take(const std::string& level) {
        std::lock_guard<std::mutex> lock(_mutex);
        std::vector<std::string> lines;
        for (const auto& [lineLevel, message] : _lines) {
            if (lineLevel == level) {
                lines.push_back(StemlibTest::withoutPrefix(message));
            }
        }
        _lines.clear();
        return lines;
    }

private:
    void add(const std::string& level, const std::string& message) {
        std::lock_guard<std::mutex> lock(_mutex);
        _lines.emplace_back(level, message);
    }
    std::mutex _mutex;
    std::vector<std::pair<std::string, std::string>> _lines;
};

struct Call {
    std::string method, action, body;
    bool operator==(const Call& other) const {
        return method == other.method && action == other.action && body == other.body;
    }
};

// Handlers that record their calls and answer "<method>:<action>:<body size>"; the action
// "throw" throws, "nul" answers a text with a NUL byte inside and "large" 3 MiB.
struct RecordingHandlers {
    std::string operator()(const std::string& method, const std::string& action,
                           const std::string& body) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            calls.push_back({method, action, body});
        }
        if (action == "throw") {
            throw std::runtime_error("boom");
        }
        if (action == "nul") {
            return std::string("cut\0off", 7);
        }
        if (action == "large") {
            return std::string(3 << 20, 'L');
        }
        return method + ":" + action + ":" + std::to_string(body.size());
    }
    std::vector<Call> take() {
        std::lock_guard<std::mutex> lock(mutex);
        return std::exchange(calls, {});
    }
    std::mutex mutex;
    std::vector<Call> calls;
};

std::string block(const std::string& text) {
    return "Status: 200 OK\r\nContent-Type: text/plain\r\n\r\n" + text;
}

// FastCGI records as a web server writes them (version 1, request id 1, no padding).
std::string record(int type, const std::string& content) {
    const std::string header{1,
                             static_cast<char>(type),
                             0,
                             1,
                             static_cast<char>(content.size() >> 8),
                             static_cast<char>(content.size() & 0xFF),
                             0,
                             0};
    return header + content;
}

std::string encodedLength(std::size_t length) {
    if (length < 128) {
        return std::string(1, static_cast<char>(length));
    }
    return {static_cast<char>(0x80 | (length >> 24)), static_cast<char>(length >> 16),
            static_cast<char>(length >> 8), static_cast<char>(length)};
}

using FcgiParams = std::vector<std::pair<std::string, std::string>>;

// A whole responder request: begin, parameters, body.
std::string fastcgiRequest(const FcgiParams& params, const std::string& body = "") {
    std::string encoded;
    for (const auto& [name, value] : params) {
        encoded += encodedLength(name.size()) + encodedLength(value.size()) + name + value;
    }
    return record(1, std::string{0, 1, 0, 0, 0, 0, 0, 0}) + record(4, encoded) + record(4, "") +
           (body.empty() ? "" : record(5, body)) + record(5, "");
}

// The parameters of a request; a null method, URI or length is left out.
FcgiParams params(const char* method, const char* uri, const char* contentLength = nullptr) {
    FcgiParams result;
    for (const auto& [name, value] : {std::pair<const char*, const char*>{"REQUEST_URI", uri},
                                      {"REQUEST_METHOD", method},
                                      {"CONTENT_LENGTH", contentLength}}) {
        if (value != nullptr) {
            result.emplace_back(name, value);
        }
    }
    return result;
}

// Connects to the socket, sends bytes and returns the content of the STDOUT records of the
// answer, read until the server closes the connection. hangUp: close right after sending.
std::string fastcgiExchange(const std::string& socketPath, const std::string& bytes,
                            bool hangUp = false) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval limit{20, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    std::string received;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        char buffer[65536];
        ssize_t got;
        while (!hangUp && (got = ::recv(fd, buffer, sizeof(buffer), 0)) > 0) {
            received.append(buffer, static_cast<std::size_t>(got));
        }
    }
    ::close(fd);
    std::string out;
    for (std::size_t at = 0; at + 8 <= received.size();) {
        const auto byte = [&](std::size_t i) {
            return static_cast<unsigned char>(received[at + i]);
        };
        const std::size_t length = byte(4) * 256u + byte(5);
        if (byte(1) == 6) {
            out += received.substr(at + 8, length);
        }
        at += 8 + length + byte(6);
    }
    return out;
}

// The memory of the process that a leak would grow: resident memory, or under AddressSanitizer
// (whose quarantine keeps freed memory resident) the bytes the application holds allocated.
long memoryInUse() {
#if defined(__SANITIZE_ADDRESS__)
    return static_cast<long>(__sanitizer_get_current_allocated_bytes());
#else
    long pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * ::sysconf(_SC_PAGESIZE);
#endif
}

std::string get(const std::string& app, const std::string& target) {
    return "GET /local/" + app + "/" + target +
           " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
}

} // namespace

TEST(FastCGIServer, OpensItsSocketForEveryUserAndRefusesAFolderItCannotUse) {
    SharedLogger logger;
    StemlibTest::ScopedLogger scope(logger);
    PackageFolder folder("open");
    REQUIRE_PACKAGE_FOLDER(folder);
    {
        RecordingHandlers handlers;
        TestFastCGIServer server(folder.appName(), std::ref(handlers));
        struct stat status {};
        ASSERT_EQ(::stat(folder.socketPath().c_str(), &status), 0);
        EXPECT_TRUE(S_ISSOCK(status.st_mode));
        EXPECT_EQ(status.st_mode & 07777, 0777u);
        EXPECT_EQ(fastcgiExchange(
                      folder.socketPath(),
                      fastcgiRequest({{"REQUEST_URI", "/?action=a"}, {"REQUEST_METHOD", "GET"}})),
                  block("GET:a:0"));
    }
    EXPECT_EQ(
        logger.take("info"),
        (std::vector<std::string>{
            "FastCGIServer: Starting FastCGI server for appName " + folder.appName(),
            "FastCGIServer: FCGX_Init succeeded",
            "FastCGIServer: Opening Socket: " + folder.socketPath(),
            "run: Starting FastCGI server run loop", "run: Exiting FastCGI server run loop"}));

    {
        // The socket file left behind is replaced by the next server.
        RecordingHandlers handlers;
        TestFastCGIServer server(folder.appName(), std::ref(handlers));
        EXPECT_EQ(fastcgiExchange(
                      folder.socketPath(),
                      fastcgiRequest({{"REQUEST_URI", "/?action=b"}, {"REQUEST_METHOD", "GET"}})),
                  block("GET:b:0"));
    }
    logger.take("info");

    // libfcgi would end the process on these; the constructor throws instead.
    PackageFolder occupied("occupied");
    std::filesystem::create_directory(occupied.socketPath());
    for (const std::string& appName :
         {std::string("stemlibtest_no_such_package"), std::string(40, 'x'),
          std::string("stemlibtest:80"), occupied.appName()}) {
        RecordingHandlers handlers;
        try {
            TestFastCGIServer server(appName, std::ref(handlers));
            ADD_FAILURE() << appName << " opened";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "FCGX_OpenSocket failed");
        }
        EXPECT_EQ(logger.take("error"),
                  std::vector<std::string>{"FastCGIServer: FCGX_OpenSocket failed"});
    }
}

TEST(FastCGIServer, AnswersEachRequestOnItsSocketAndKeepsServing) {
    SharedLogger logger;
    StemlibTest::ScopedLogger scope(logger);
    PackageFolder folder("socket");
    REQUIRE_PACKAGE_FOLDER(folder);
    RecordingHandlers handlers;
    TestFastCGIServer server(folder.appName(), std::ref(handlers));
    logger.take("info");

    const std::string unsupported = "Only GET and POST supported. Method ";
    struct Case {
        const char* what;
        FcgiParams params;
        std::string body, answer;
        std::vector<Call> calls = {};
        std::vector<std::string> errors = {};
    } cases[] = {
        {"one action, decoded",
         params("GET", "/p?action=a%20b+c"),
         "",
         block("GET:a b c:0"),
         {{"GET", "a b c", ""}}},
        {"an item before the action",
         params("GET", "/p?x=1&action=go"),
         "",
         block("") + block("GET:go:0"),
         {{"GET", "go", ""}}},
        {"action without value",
         params("GET", "/p?action"),
         "",
         block("GET::0"),
         {{"GET", "", ""}}},
        {"answer cut at NUL",
         params("GET", "/p?action=nul"),
         "",
         block("cut"),
         {{"GET", "nul", ""}}},
        {"large answer",
         params("GET", "/p?action=large"),
         "",
         block(std::string(3 << 20, 'L')),
         {{"GET", "large", ""}}},
        {"handler throws",
         params("GET", "/p?action=throw"),
         "",
         block(""),
         {{"GET", "throw", ""}},
         {"run: Handler failed: boom"}},
        {"no REQUEST_URI",
         params("GET", nullptr),
         "",
         "Failed to parse URI",
         {},
         {"run: Failed to parse URI "}},
        {"unparsable URI",
         params("GET", "/p?action=%zz"),
         "",
         "Failed to parse URI",
         {},
         {"run: Failed to parse URI /p?action=%zz"}},
        {"no query", params("GET", "/p"), "", "Failed to parse query"},
        {"bare question mark", params("GET", "/p?"), "", ""},
        {"no REQUEST_METHOD", params(nullptr, "/p?action=go"), "",
         block(unsupported + " not supported")},
        {"PUT", params("PUT", "/p?action=go"), "", block(unsupported + "PUT not supported")},
        {"DELETE without action", params("DELETE", "/p?y=1"), "", block("")},
        {"short body pads with 0xFF",
         params("POST", "/p?action=set", "5"),
         "ab",
         block("POST:set:5"),
         {{"POST", "set", "ab\xFF\xFF\xFF"}}},
        {"second action reads past the body",
         params("POST", "/p?action=a&action=b", "2"),
         "xy",
         block("POST:a:2") + block("POST:b:2"),
         {{"POST", "a", "xy"}, {"POST", "b", "\xFF\xFF"}}},
        {"16 MiB is the largest body",
         params("POST", "/p?action=big", "16777216"),
         "",
         block("POST:big:16777216"),
         {{"POST", "big", std::string(16 << 20, '\xFF')}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(fastcgiExchange(folder.socketPath(), fastcgiRequest(c.params, c.body)), c.answer);
        EXPECT_EQ(handlers.take(), c.calls);
        EXPECT_EQ(logger.take("error"), c.errors);
    }

    // Refused lengths: no body is read, no handler runs, the bare text answers.
    const char* const lengths[] = {nullptr, "", "-1", "12abc", "16777217", "99999999999999999999"};
    for (const char* length : lengths) {
        const FcgiParams params = ::params("POST", "/p?action=set", length);
        EXPECT_EQ(fastcgiExchange(folder.socketPath(), fastcgiRequest(params, "abc")),
                  "Failed to read request body");
        EXPECT_TRUE(handlers.take().empty());
        EXPECT_EQ(logger.take("error"),
                  std::vector<std::string>{std::string("run: Refused request body of length ") +
                                           (length != nullptr ? length : "")});
    }
}

TEST(FastCGIServer, ParseQueryStringSplitsAtTheFirstEqualsSignWithoutDecoding) {
    PackageFolder folder("parse");
    REQUIRE_PACKAGE_FOLDER(folder);
    RecordingHandlers handlers;
    TestFastCGIServer server(folder.appName(), std::ref(handlers));
    EXPECT_EQ(server.parseQueryString("a=1&b=x=y&c=&flag&a=2&d=%20+"),
              (KeyValueMap{{"a", "2"}, {"b", "x=y"}, {"c", ""}, {"d", "%20+"}}));
    EXPECT_TRUE(server.parseQueryString("").empty());
}

TEST(FastCGIServer, ServesThroughLighttpdAndSurvivesMalformedTrafficWithFlatMemory) {
    PackageFolder folder("web");
    REQUIRE_PACKAGE_FOLDER(folder);
    RecordingHandlers handlers;
    TestFastCGIServer server(folder.appName(), std::ref(handlers));
    Lighttpd web(folder.fastcgiConfig());
    const std::string app = folder.appName();
    const auto body = [](const std::string& response) {
        const std::size_t blank = response.find("\r\n\r\n");
        return blank == std::string::npos ? "" : response.substr(blank + 4);
    };

    // The road of a page: query decoding, the handler's text, status and type.
    const std::string page = StemlibTest::httpExchange(web.port(), get(app, "?action=a%20b+c"));
    EXPECT_EQ(page.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << page;
    EXPECT_NE(page.find("\r\nContent-Type: text/plain\r\n"), std::string::npos);
    EXPECT_EQ(body(page), "GET:a b c:0");
    EXPECT_EQ(body(StemlibTest::httpExchange(web.port(), get(app, "?x=1&action=go"))),
              block("GET:go:0"))
        << "the later block arrives inside the body";
    EXPECT_EQ(body(StemlibTest::httpExchange(
                  web.port(), "POST /local/" + app +
                                  "/?action=set HTTP/1.1\r\nHost: h\r\nContent-Length: 9\r\n"
                                  "Connection: close\r\n\r\nvalue=1&2")),
              "POST:set:9");
    const std::string put = StemlibTest::httpExchange(
        web.port(),
        "PUT /local/" + app +
            "/?action=go HTTP/1.1\r\nHost: h\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(put.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << put;
    EXPECT_EQ(body(put), "Only GET and POST supported. Method PUT not supported");
    handlers.take();

    // Odd HTTP through lighttpd and malformed FastCGI straight to the socket, each followed by a
    // good request; repeated so that a leak per request would show.
    const std::string hugeQuery = "?action=" + std::string(7000, 'q');
    const std::string post = "POST /local/" + app + "/?action=x HTTP/1.1\r\nHost: h\r\n";
    const std::vector<std::pair<std::string, bool>> oddHttp = {
        {get(app, ""), false},
        {get(app, "?"), false},
        {get(app, hugeQuery), false},
        {get(app, "?action=" + std::string(70000, 'q')), false},
        {get(app, "?action=%zz%%"), false},
        {get(app, "?action=%00%ff"), false},
        {"DELETE /local/" + app + "/?action=x HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n",
         false},
        {post + "Content-Length: 99\r\n\r\nshort", true}, // hangs up before the rest
        {post + "Content-Length: -5\r\nConnection: close\r\n\r\n", false},
        {post + "Content-Length: 2\r\nConnection: close\r\n\r\nlonger", false},
    };
    const std::string begin = record(1, std::string{0, 1, 0, 0, 0, 0, 0, 0});
    const std::string goodParams = fastcgiRequest({{"REQUEST_URI", "/?action=x"}});
    const std::vector<std::pair<std::string, bool>> malformed = {
        {goodParams.substr(0, 13), true}, // truncated record
        {begin + record(4, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"
                           "ab"),
         true}, // absurd lengths
        {begin + record(4, "\x8F\xFF\xFF\xF0\x01"
                           "a"),
         true},
        {std::string("\x01\x01\x00\x00\x00\x08") + std::string(40, '\xEE'), false}, // garbage
        {std::string(300, '\0'), false},
        {fastcgiRequest(
             {{"REQUEST_URI", "/?action=x"}, {"REQUEST_METHOD", "POST"}, {"CONTENT_LENGTH", "100"}},
             "part"),
         true}, // hangs up before the answer
        {goodParams.substr(0, goodParams.size() - 8), true},
    };
    const auto goodRequestsWork = [&]() {
        EXPECT_EQ(body(StemlibTest::httpExchange(web.port(), get(app, "?action=ok"))), "GET:ok:0");
        EXPECT_EQ(fastcgiExchange(
                      folder.socketPath(),
                      fastcgiRequest({{"REQUEST_URI", "/?action=ok"}, {"REQUEST_METHOD", "GET"}})),
                  block("GET:ok:0"));
        handlers.take(); // keeps the recorded calls from counting as the server's memory
    };
    long settled = 0;
    for (int round = 0; round < 20; ++round) {
        for (std::size_t i = 0; i < oddHttp.size(); ++i) {
            SCOPED_TRACE("odd HTTP " + std::to_string(i));
            StemlibTest::httpExchange(web.port(), oddHttp[i].first, oddHttp[i].second);
            goodRequestsWork();
        }
        for (std::size_t i = 0; i < malformed.size(); ++i) {
            SCOPED_TRACE("malformed FastCGI " + std::to_string(i));
            fastcgiExchange(folder.socketPath(), malformed[i].first, malformed[i].second);
            goodRequestsWork();
        }
        if (round == 4) {
            settled = memoryInUse();
        }
        if (HasFailure()) {
            break;
        }
    }
    EXPECT_LE(memoryInUse() - settled, 64 * 1024);

    // A peer that falls silent in the middle of a body holds the server for 10 seconds at most,
    // and then the body is padded.
    handlers.take();
    std::thread silentPeer([&] {
        const std::string request = fastcgiRequest({{"REQUEST_URI", "/?action=slow"},
                                                    {"REQUEST_METHOD", "POST"},
                                                    {"CONTENT_LENGTH", "4"}});
        fastcgiExchange(folder.socketPath(),
                        request.substr(0, request.size() - 8) + record(5, "ab"));
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(body(StemlibTest::httpExchange(web.port(), get(app, "?action=ok"))), "GET:ok:0");
    silentPeer.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(12));
    EXPECT_EQ(handlers.take(),
              (std::vector<Call>{{"POST", "slow", "ab\xFF\xFF"}, {"GET", "ok", ""}}));
}

// Concurrency 6: lighttpd connects to the socket once per request in flight, and a connection
// beyond what the backlog of 5 holds (six waiting, one being served) fails at once; lighttpd then
// answers 503 and takes the application out of service for a while.
TEST(FastCGIServer, Serves20000RequestsThroughLighttpdAtConcurrency6WithFlatMemory) {
    PackageFolder folder("load");
    REQUIRE_PACKAGE_FOLDER(folder);
    TestFastCGIServer server(folder.appName(),
                             [](const std::string&, const std::string& action, const std::string&) {
                                 return "state of " + action;
                             });
    Lighttpd web(folder.fastcgiConfig());
    const std::string url = "http://127.0.0.1:" + std::to_string(web.port()) + "/local/" +
                            folder.appName() + "/?action=get";
    // Runs the load tool; returns its report.
    const auto load = [&](int requests) {
        const std::string command =
            "ab -q -n " + std::to_string(requests) + " -c 6 '" + url + "' 2>&1";
        std::string report;
        if (FILE* pipe = ::popen(command.c_str(), "r")) {
            char buffer[4096];
            while (std::fgets(buffer, sizeof(buffer), pipe) != nullptr) {
                report += buffer;
            }
            ::pclose(pipe);
        }
        EXPECT_NE(report.find("Complete requests:      " + std::to_string(requests)),
                  std::string::npos)
            << report;
        EXPECT_TRUE(std::regex_search(report, std::regex("Failed requests: +0\n"))) << report;
        EXPECT_EQ(report.find("Non-2xx responses"), std::string::npos) << report;
    };
    load(1000);
    const long afterFirst = memoryInUse();
    load(18000);
    load(1000);
    EXPECT_LE(std::labs(memoryInUse() - afterFirst), 1024 * 1024);
}
