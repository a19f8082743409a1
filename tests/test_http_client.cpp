// The local HTTP client: the exact requests, reading until the server closes, the limits that
// keep a misbehaving server from hanging or flooding the caller, and Digest authentication
// against a scripted server and against lighttpd's mod_auth.
#include "HttpClient.h"
#include "MD5.h"
#include "WebServers.h"

#include <gtest/gtest.h>

#include <mutex>
#include <regex>

using namespace Ombrel;
using namespace std::chrono_literals;

namespace {

// A TCP server on 127.0.0.1 that reads each request's head and hands the connection to a
// script, one thread per connection.
class ScriptedServer {
public:
    using Script = std::function<void(int fd, const std::string& request)>;

    explicit ScriptedServer(Script script) : _script(std::move(script)) {
        _listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        ::bind(_listener, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        ::listen(_listener, 8);
        ::getsockname(_listener, reinterpret_cast<sockaddr*>(&address), &length);
        _port = ntohs(address.sin_port);
        _acceptor = std::thread([this] {
            int fd;
            while ((fd = ::accept(_listener, nullptr, nullptr)) >= 0) {
                _connections.emplace_back([this, fd] { serve(fd); });
            }
        });
    }
    ~ScriptedServer() {
        ::shutdown(_listener, SHUT_RDWR);
        _acceptor.join();
        for (std::thread& connection : _connections) {
            connection.join();
        }
        ::close(_listener);
    }

    uint16_t port() const { return _port; }
    std::vector<std::string> requests() {
        std::lock_guard<std::mutex> lock(_mutex);
        return _requests;
    }

private:
    void serve(int fd) {
        const timeval limit{5, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        std::string request;
        char buffer[4096];
        ssize_t got;
        while (request.find("\r\n\r\n") == std::string::npos &&
               (got = ::recv(fd, buffer, sizeof(buffer), 0)) > 0) {
            request.append(buffer, static_cast<std::size_t>(got));
        }
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _requests.push_back(request);
        }
        _script(fd, request);
        ::close(fd);
    }

    Script _script;
    int _listener;
    uint16_t _port = 0;
    std::thread _acceptor;
    std::vector<std::thread> _connections;
    std::mutex _mutex;
    std::vector<std::string> _requests;
};

void sendAll(int fd, const std::string& text) {
    ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
}

// Waits (at most 15 s) until the client closes the connection.
void waitForClientToClose(int fd) {
    const timeval limit{15, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    char byte;
    ::recv(fd, &byte, 1, 0);
}

const std::string kChallenge =
    "HTTP/1.1 401 Unauthorized\r\n"
    "WWW-Authenticate: Digest realm=\"testrealm@host.com\", qop=\"auth\", "
    "nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", opaque=\"5ccc069c403ebaf9f0171e9517f40e41\"\r\n"
    "Content-Length: 0\r\n\r\n";

} // namespace

TEST(MD5, HashesToLowerCaseHexadecimal) {
    EXPECT_EQ(MD5::hash(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(MD5::hash("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(MD5::hash("The quick brown fox jumps over the lazy dog"),
              "9e107d9d372bb6826bd81d3542a419d6");
    EXPECT_EQ(MD5::hash(std::string("a\0b", 3)), "70350f6027bce3713f6b76473084309b");
    EXPECT_EQ(MD5::hash("Mufasa:testrealm@host.com:Circle Of Life"),
              "939e7578ed9e3c518a452acee763bce9");
}

TEST(HttpClient, ExtractsQuotedFieldsAndMakesFreshClientNonces) {
    const std::string header = "WWW-Authenticate: Digest cnonce=\"c1\", nonce=\"n1\", "
                               "algorithm=MD5, qop=\"auth,auth-int\", empty=\"\", open=\"tail";
    EXPECT_EQ(extractField(header, "nonce"), "c1") << "the first place the letters stand";
    EXPECT_EQ(extractField(header, "qop"), "auth,auth-int");
    EXPECT_EQ(extractField(header, "algorithm"), "") << "unquoted";
    EXPECT_EQ(extractField(header, "realm"), "");
    EXPECT_EQ(extractField(header, "empty"), "");
    EXPECT_EQ(extractField(header, "open"), "tail");

    const std::string first = generateCnonce();
    EXPECT_TRUE(std::regex_match(first, std::regex("[0-9a-f]{8,64}"))) << first;
    EXPECT_NE(first, generateCnonce());
}

TEST(HttpClient, SendsOneRequestAndReadsUntilTheServerCloses) {
    const std::string response = "HTTP/1.1 200 OK\r\nX-Part: 1\r\n\r\nbody\r\n\r\nmore";
    ScriptedServer server([&](int fd, const std::string& request) {
        sendAll(fd, request.find("/bare") != std::string::npos ? "no blank line" : response);
    });
    EXPECT_EQ(httpGetLocalRaw("/a?b=c", server.port()), response);
    EXPECT_EQ(httpGetLocalWithHeader("/p", "X-Token: t", server.port()), "body\r\n\r\nmore");
    EXPECT_EQ(httpGetLocalWithHeader("/bare", "X-Token: t", server.port()), "no blank line");
    EXPECT_EQ(
        server.requests(),
        (std::vector<std::string>{
            "GET /a?b=c HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n",
            "GET /p HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Token: t\r\nConnection: close\r\n\r\n",
            "GET /bare HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Token: t\r\nConnection: close\r\n\r\n"}));
}

TEST(HttpClient, GivesUpOnNoServerASilentServerAndStopsReadingAt64MiB) {
    const uint16_t closedPort = StemlibTest::freeLocalPort();
    try {
        httpGetLocalRaw("/", closedPort);
        ADD_FAILURE() << "connected";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "connect() failed");
    }
    EXPECT_EQ(httpGetLocalWithHeader("/", "X: y", closedPort), "");

    // Both calls at once against a server that answers part of a response and falls silent.
    ScriptedServer silent([](int fd, const std::string&) {
        sendAll(fd, "HTTP/1.1 200 OK\r\n\r\npart");
        waitForClientToClose(fd);
    });
    const auto start = std::chrono::steady_clock::now();
    std::string withHeader = "unset";
    std::thread other([&] { withHeader = httpGetLocalWithHeader("/", "X: y", silent.port()); });
    try {
        httpGetLocalRaw("/", silent.port());
        ADD_FAILURE() << "returned";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "recv() timed out");
    }
    other.join();
    EXPECT_EQ(withHeader, "");
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, 9900ms);
    EXPECT_LT(waited, 13s);

    ScriptedServer flood([](int fd, const std::string&) {
        const std::string chunk(1 << 20, 'f');
        while (::send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL) > 0) {
        }
    });
    const std::string flooded = httpGetLocalRaw("/", flood.port());
    EXPECT_EQ(flooded.size(), std::size_t{64} << 20);
    EXPECT_EQ(httpGetLocalWithHeader("/", "X: y", flood.port()).size(), std::size_t{64} << 20);
}

TEST(HttpClient, DigestAnswersTheChallengeWithOneCountAndTheFieldsInOrder) {
    std::atomic<int> connection{0};
    ScriptedServer server([&](int fd, const std::string&) {
        sendAll(fd, ++connection == 1 ? kChallenge : "HTTP/1.1 200 OK\r\n\r\nsecret page");
    });
    EXPECT_EQ(httpGetDigest("/dir/index.html", "Mufasa", "Circle Of Life", server.port()),
              "secret page");
    const std::vector<std::string> requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0],
              "GET /dir/index.html HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    std::smatch fields;
    ASSERT_TRUE(std::regex_match(
        requests[1], fields,
        std::regex("GET /dir/index.html HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Digest "
                   "username=\"Mufasa\", realm=\"testrealm@host.com\", "
                   "nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", uri=\"/dir/index.html\", "
                   "qop=auth, nc=00000001, cnonce=\"([0-9a-f]+)\", response=\"([0-9a-f]{32})\"\r\n"
                   "Connection: close\r\n\r\n")))
        << requests[1];
    const std::string ha2 = MD5::hash("GET:/dir/index.html");
    EXPECT_EQ(fields[2].str(), MD5::hash("939e7578ed9e3c518a452acee763bce9:"
                                         "dcd98b7102dd2f0e8b11d0f600bfb0c093:00000001:" +
                                         fields[1].str() + ":auth:" + ha2));

    // Unchallenged: one connection. A 401 without a challenge header: out of range.
    ScriptedServer open(
        [](int fd, const std::string&) { sendAll(fd, "HTTP/1.1 200 OK\r\nX: y\r\n\r\npublic"); });
    EXPECT_EQ(httpGetDigest("/", "u", "p", open.port()), "public");
    EXPECT_EQ(open.requests().size(), 1u);
    ScriptedServer bare(
        [](int fd, const std::string&) { sendAll(fd, "HTTP/1.1 401 Unauthorized\r\n\r\n"); });
    EXPECT_THROW(httpGetDigest("/", "u", "p", bare.port()), std::out_of_range);
}

TEST(HttpClient, DigestLogsInToLighttpd) {
    StemlibTest::Lighttpd web(
        "server.modules += (\"mod_auth\", \"mod_authn_file\")\n"
        "auth.backend = \"htdigest\"\n"
        "auth.backend.htdigest.userfile = \"@DIR@/www/users.htdigest\"\n"
        "auth.require = ( \"/private/\" => ( \"method\" => \"digest\", \"realm\" => \"Camera\", "
        "\"require\" => \"valid-user\" ) )\n",
        {{"users.htdigest", "operator:Camera:eca2e3ac95661c82a919a01a7c2ae8dd\n"},
         {"private/status.txt", "recording\n"}});
    EXPECT_EQ(httpGetDigest("/private/status.txt", "operator", "s3cret", web.port()),
              "recording\n");
    const std::string refused =
        httpGetDigest("/private/status.txt", "operator", "wrong", web.port());
    EXPECT_NE(refused.find("401"), std::string::npos) << refused;
    EXPECT_EQ(refused.find("recording"), std::string::npos);
    EXPECT_EQ(httpGetLocalWithHeader("/private/status.txt", "X: y", web.port()).find("recording"),
              std::string::npos);
}
