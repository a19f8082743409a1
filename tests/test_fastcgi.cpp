// The web endpoint: its socket, the answers to good and bad requests (straight on the socket,
// byte for byte, and through a real lighttpd with mod_fastcgi), malformed traffic, and load.
#include "Config.h"
#include "Emulation.h"
#include "HttpClient.h"
#include "Localization.h"
#include "LogLines.h"
#include "ScopedLogger.h"
#include "ScratchDirectory.h"
#include "WebServers.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <regex>
#include <sstream>
#include <thread>
#include <utility>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define STEMLIB_SANITIZER_ALLOCATOR 1
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

struct Record {
    int type;
    int requestId;
    std::string content;
};

// Connects, sends bytes, and returns every record of the answer until the server closes the
// connection or has sent an FCGI_END_REQUEST for each of endsAwaited requests.
std::vector<Record> recordExchange(int fd, const std::string& bytes, int endsAwaited = 1 << 30) {
    ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    std::vector<Record> records;
    std::string received;
    char buffer[65536];
    int ends = 0;
    while (ends < endsAwaited) {
        const ssize_t got = ::recv(fd, buffer, sizeof(buffer), 0);
        if (got <= 0) {
            break;
        }
        received.append(buffer, static_cast<std::size_t>(got));
        while (received.size() >= 8) {
            const auto byte = [&](std::size_t i) {
                return static_cast<unsigned char>(received[i]);
            };
            const std::size_t length = byte(4) * 256u + byte(5);
            if (received.size() < 8 + length + byte(6)) {
                break;
            }
            records.push_back({byte(1), byte(2) * 256 + byte(3), received.substr(8, length)});
            ends += byte(1) == 3 ? 1 : 0;
            received.erase(0, 8 + length + byte(6));
        }
    }
    return records;
}

int connectTo(const std::string& socketPath) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval limit{20, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    return fd;
}

// An application's configuration as its web page changes it: a dwell time and the confidence
// threshold that goes with it (always a hundredth of it), behind the version and the language.
class PageConfig : public Config {
public:
    explicit PageConfig(const std::string& filename) : Config(filename, 2) {}

    std::string serialize() const override {
        std::ostringstream s;
        s << Config::serialize() << dwellSeconds << ' ' << confidence << '\n';
        return s.str();
    }

    int dwellSeconds = 5;
    float confidence = 0.05f;

protected:
    using Config::deserializeStream;
    // Takes both values or neither.
    bool deserializeStream(std::stringstream& s, int /*versionNumber*/) override {
        int dwell = 0;
        float minimum = 0.0f;
        if (!(s >> dwell >> minimum) || dwell < 0 || minimum < 0.0f || minimum > 1.0f) {
            return false;
        }
        dwellSeconds = dwell;
        confidence = minimum;
        return true;
    }
};

// The memory of the process that a leak would grow: resident memory, or under a sanitizer
// (whose quarantine and shadow keep freed memory resident) the bytes the application holds
// allocated.
long memoryInUse() {
#if defined(STEMLIB_SANITIZER_ALLOCATOR)
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

TEST(FastCGIServer, ChecksEveryRecordBeforeLibfcgiReadsIt) {
    SharedLogger logger;
    StemlibTest::ScopedLogger scope(logger);
    PackageFolder folder("records");
    REQUIRE_PACKAGE_FOLDER(folder);
    RecordingHandlers handlers;
    TestFastCGIServer server(folder.appName(), std::ref(handlers));
    const std::string get = fastcgiRequest(params("GET", "/?action=a"));
    const std::string begin = get.substr(0, 16);
    const std::string stdoutBlock = block("GET:a:0");

    // Management records are answered here, libfcgi never sees them: the values asked for, each
    // once, and an unknown type named back. A request behind them is served as usual.
    std::string names;
    for (const char* name : {"FCGI_MAX_CONNS", "FCGI_MPXS_CONNS", "FCGI_MAX_CONNS", "OTHER"}) {
        names += encodedLength(std::strlen(name)) + '\0' + name;
    }
    std::string management = record(9, names) + record(42, std::string(8, 'x'));
    management[3] = management[8 + names.size() + 3] = 0; // request id 0
    int fd = connectTo(folder.socketPath());
    std::vector<Record> records = recordExchange(fd, management + get);
    ::close(fd);
    ASSERT_GE(records.size(), 4u);
    EXPECT_EQ(records[0].type, 10);
    EXPECT_EQ(records[0].requestId, 0);
    EXPECT_EQ(records[0].content, std::string("\x0e\x01"
                                              "FCGI_MAX_CONNS1"
                                              "\x0f\x01"
                                              "FCGI_MPXS_CONNS0"));
    EXPECT_EQ(records[1].type, 11);
    EXPECT_EQ(records[1].content, std::string("\x2a\0\0\0\0\0\0\0", 8));
    EXPECT_EQ(records[2].type, 6);
    EXPECT_EQ(records[2].content, stdoutBlock);
    EXPECT_EQ(records.back().type, 3);
    EXPECT_TRUE(logger.take("error").empty());

    // A kept connection serves one request after the other, as the web server sends them.
    std::string kept = get;
    kept[10] = 1; // FCGI_KEEP_CONN
    fd = connectTo(folder.socketPath());
    for (int i = 0; i < 3; ++i) {
        records = recordExchange(fd, kept, 1);
        ASSERT_EQ(records.size(), 3u) << i; // the answer, the end of the stream, the end
        EXPECT_EQ(records[0].content, stdoutBlock);
    }
    ::close(fd);
    EXPECT_EQ(handlers.take().size(), 4u);

    // Damaged heads never reach libfcgi, which would end the process on some (lengths that
    // overflow its allocation) and lose memory on others: refused with a line, no answer, and
    // the server goes on.
    const std::string absurdLengths = begin +
                                      record(4, "\x8f\xff\xff\xf0\xff\xff\xff\xf0"
                                                "ab") +
                                      record(4, "");
    const std::string tooLarge =
        begin + record(4, std::string(40000, 'p')) + record(4, std::string(40000, 'p'));
    std::string version2 = get;
    version2[16] = 2;
    const std::string shortBegin = record(1, std::string{0, 1, 0, 0});
    const std::string roleFive = record(1, std::string{0, 5, 0, 0, 0, 0, 0, 0});
    const std::string stdinFirst = begin + record(5, "x") + get.substr(16);
    const std::string refused = "run: Refused FastCGI request: ";
    struct Case {
        std::string bytes;
        bool hangUp;
        std::string line;
    };
    const std::vector<Case> cases = {
        {absurdLengths, false, refused + "damaged parameters"},
        {begin + record(4, "\x05\x09REQUEST") + record(4, ""), false,
         refused + "damaged parameters"},
        {tooLarge + record(4, ""), false, refused + "parameters larger than 65536 bytes"},
        {version2, false, refused + "record of version 2"},
        {shortBegin + get.substr(16), false, refused + "damaged begin record"},
        {roleFive + get.substr(16), false, refused + "role 5"},
        {stdinFirst, false, refused + "record of type 5 before the end of the parameters"},
        {get.substr(0, 40), true,
         refused + "the connection ended or fell silent before the end of the parameters"},
        {"", true, ""}, // a connection closed before a request is no failure
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        EXPECT_EQ(fastcgiExchange(folder.socketPath(), c.bytes, c.hangUp), "");
        // Connections are served in turn: the next answer comes after the line.
        EXPECT_EQ(fastcgiExchange(folder.socketPath(), get), stdoutBlock);
        EXPECT_EQ(logger.take("error"),
                  c.line.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.line});
    }
    EXPECT_EQ(handlers.take().size(), cases.size());

    // Management records of unknown types cost nothing, however many arrive.
    std::string unknown = record(42, std::string(8, '\0'));
    unknown[3] = 0;
    std::string many;
    for (int i = 0; i < 4000; ++i) {
        many += unknown;
    }
    fastcgiExchange(folder.socketPath(), many + get);
    const long before = memoryInUse();
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(fastcgiExchange(folder.socketPath(), many + get), stdoutBlock);
    }
    // Under emulation the resident size also holds the emulator's translated code, which grows.
    if (!StemlibTest::underEmulation()) {
        EXPECT_LE(memoryInUse() - before, 64 * 1024);
    }
    handlers.take();
}

TEST(FastCGIServer, HandlersChangeTheConfigurationThatTheAnalysisLoopReadsUnderTheAppsLock) {
    // As an application does: the web thread replaces the configuration with Config::update and
    // the analysis loop reads it, both under the application's own lock (Config has none), while
    // the loop also looks words up in the language that the update sets.
    PackageFolder folder("config");
    REQUIRE_PACKAGE_FOLDER(folder);
    StemlibTest::ScratchDirectory scratch;
    const std::string file = scratch.file("page.conf");
    PageConfig config(file);
    config.initialize();
    config.setLanguage("en");
    std::mutex applicationLock;
    TestFastCGIServer server(
        folder.appName(),
        [&](const std::string& method, const std::string& action, const std::string& body) {
            std::lock_guard<std::mutex> lock(applicationLock);
            if (method == "GET" && action == "get") {
                return config.serialize();
            }
            if (method == "POST" && action == "set") {
                const std::string previous = config.serialize();
                if (config.update(body)) {
                    return std::string("OK");
                }
                config.deserialize(previous); // a refused text may have changed the language
                return std::string("ERROR");
            }
            return std::string("unknown");
        });

    std::atomic<bool> stop{false};
    std::atomic<int> shownDwell{-1};
    std::atomic<int> torn{0};
    std::thread analysisLoop([&] {
        while (!stop) {
            int dwell = 0;
            float confidence = 0.0f;
            std::string language;
            {
                std::lock_guard<std::mutex> lock(applicationLock);
                dwell = config.dwellSeconds;
                confidence = config.confidence;
                language = config.getLanguage();
                torn += Localization::getLanguage() != language;
            }
            torn += confidence != static_cast<float>(dwell) / 100.0f;
            // Words are looked up outside the lock: the language is held atomically.
            torn += Localization::getString("markers.status.analysis").empty();
            shownDwell = dwell;
            std::this_thread::yield();
        }
    });

    const char* const languages[] = {"de", "fr", "ja", "en", "th"};
    std::string lastStored;
    for (int i = 1; i <= 60; ++i) {
        SCOPED_TRACE(i);
        const std::string text = "2\n" + std::string(languages[i % 5]) + "\n" + std::to_string(i) +
                                 " " + std::to_string(i / 100.0f) + "\n";
        const auto post = [&](const std::string& body) {
            return fastcgiExchange(
                folder.socketPath(),
                fastcgiRequest(params("POST", "/?action=set", std::to_string(body.size()).c_str()),
                               body));
        };
        ASSERT_EQ(post(text), block("OK"));
        lastStored = text;
        // Refused texts change nothing: a value out of range, a newer version.
        EXPECT_EQ(post("2\nde\n-1 0.5\n"), block("ERROR"));
        EXPECT_EQ(post("3\nen\n1 0.01\n"), block("ERROR"));
        // The loop shows each new configuration.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (shownDwell != i && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(shownDwell, i);
        std::ostringstream expected;
        expected << "2\n"
                 << languages[i % 5] << "\n"
                 << i << ' ' << static_cast<float>(i) / 100.0f << '\n';
        EXPECT_EQ(
            fastcgiExchange(folder.socketPath(), fastcgiRequest(params("GET", "/?action=get"))),
            block(expected.str()));
        if (HasFailure()) {
            break;
        }
    }
    stop = true;
    analysisLoop.join();
    EXPECT_EQ(torn, 0);
    std::ifstream stored(file, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(stored), {}), lastStored)
        << "the file holds the last accepted text byte for byte";
    Localization::setLanguage("en");
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
