// Real web servers for tests and benchmarks of the web road:
//
// - Lighttpd: Debian's lighttpd on 127.0.0.1 at a free port, with its configuration, document
//   root and error log in a scratch folder of its own. Started in the constructor (which waits, in
//   a bounded loop, until it accepts connections) and stopped in the destructor, also when a test
//   fails.
// - PackageFolder: "/usr/local/packages/<app>/html" for an application name unique to the process
//   and the moment, removed with the package folder afterwards.
// - TestFastCGIServer: a FastCGIServer whose handlers are one function, running from construction
//   and stopped (socket shut down, thread joined) on destruction, so that one process can run many.
#pragma once

#include "FastCGI.h"
#include "ScratchDirectory.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace StemlibTest {

// A TCP port on 127.0.0.1 that the kernel has just handed out as free.
inline uint16_t freeLocalPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    uint16_t port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    ::close(fd);
    return port;
}

// Whether something accepts TCP connections on 127.0.0.1 at port.
inline bool acceptsConnections(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool accepted =
        ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return accepted;
}

// Sends request as it stands to 127.0.0.1:port and returns all that the server answers until it
// closes the connection, or until it has been silent for 15 seconds. hangUp: close right after
// sending, reading nothing.
inline std::string httpExchange(uint16_t port, const std::string& request, bool hangUp = false) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval limit{15, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string response;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
        ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
            static_cast<ssize_t>(request.size())) {
        char buffer[65536];
        ssize_t received;
        while (!hangUp && (received = ::recv(fd, buffer, sizeof(buffer), 0)) > 0) {
            response.append(buffer, static_cast<std::size_t>(received));
        }
    }
    ::close(fd);
    return response;
}

class Lighttpd {
public:
    // config: the lines behind the server's own (bind address, port, document root, error log);
    // "@DIR@" in it stands for the scratch folder. documents: files of the document root, by
    // name. Throws std::runtime_error if lighttpd does not come up.
    explicit Lighttpd(const std::string& config,
                      const std::map<std::string, std::string>& documents = {}) {
        std::filesystem::create_directories(_folder.path() / "www");
        for (const auto& [name, contents] : documents) {
            std::filesystem::create_directories(
                std::filesystem::path(_folder.file("www/" + name)).parent_path());
            writeWholeFile(_folder.file("www/" + name), contents);
        }
        std::string body = config;
        for (std::size_t at = body.find("@DIR@"); at != std::string::npos;
             at = body.find("@DIR@", at)) {
            body.replace(at, 5, _folder.path().string());
        }
        // Another test may take the port between the probe and lighttpd's bind: try others.
        for (int attempt = 0; attempt < 5 && _pid <= 0; ++attempt) {
            _port = freeLocalPort();
            writeWholeFile(_folder.file("lighttpd.conf"), "server.bind = \"127.0.0.1\"\n"
                                                          "server.port = " +
                                                              std::to_string(_port) +
                                                              "\n"
                                                              "server.document-root = \"" +
                                                              _folder.file("www") +
                                                              "\"\n"
                                                              "server.errorlog = \"" +
                                                              _folder.file("error.log") + "\"\n" +
                                                              body);
            launch();
        }
        if (_pid <= 0) {
            throw std::runtime_error(
                "lighttpd did not start: " + readWholeFile(_folder.file("error.log")) +
                readWholeFile(_folder.file("output.log")));
        }
    }

    ~Lighttpd() { stop(); }
    Lighttpd(const Lighttpd&) = delete;
    Lighttpd& operator=(const Lighttpd&) = delete;

    uint16_t port() const { return _port; }
    std::string folder() const { return _folder.path().string(); }
    std::string errorLog() const { return readWholeFile(_folder.file("error.log")); }

private:
    void launch() {
        const std::string program =
            ::access("/usr/sbin/lighttpd", X_OK) == 0 ? "/usr/sbin/lighttpd" : "lighttpd";
        const std::string conf = _folder.file("lighttpd.conf");
        const std::string output = _folder.file("output.log");
        std::vector<char*> argv{const_cast<char*>(program.c_str()), const_cast<char*>("-D"),
                                const_cast<char*>("-f"), const_cast<char*>(conf.c_str()), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                         0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        pid_t pid = 0;
        const int failed =
            ::posix_spawnp(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (failed != 0) {
            return;
        }
        _pid = pid;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < deadline) {
            if (::waitpid(_pid, nullptr, WNOHANG) == _pid) { // it gave up, e.g. port taken
                _pid = -1;
                return;
            }
            if (acceptsConnections(_port)) {
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        stop();
    }

    void stop() {
        if (_pid <= 0) {
            return;
        }
        ::kill(_pid, SIGTERM);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (::waitpid(_pid, nullptr, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                ::kill(_pid, SIGKILL);
                ::waitpid(_pid, nullptr, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        _pid = -1;
    }

    ScratchDirectory _folder;
    uint16_t _port = 0;
    pid_t _pid = -1;
};

class PackageFolder {
public:
    // tag keeps the names of one test apart; the process id those of parallel test programs.
    explicit PackageFolder(const std::string& tag) {
        static std::atomic<int> counter{0};
        _appName = "stemlibtest_" + tag + "_" + std::to_string(::getpid()) + "_" +
                   std::to_string(counter++);
        std::error_code error;
        std::filesystem::create_directories(html(), error);
        _created = !error;
    }
    ~PackageFolder() {
        std::error_code ignored;
        std::filesystem::remove_all("/usr/local/packages/" + _appName, ignored);
    }
    PackageFolder(const PackageFolder&) = delete;
    PackageFolder& operator=(const PackageFolder&) = delete;

    // False when /usr/local/packages cannot be written (tests then skip).
    bool created() const { return _created; }
    const std::string& appName() const { return _appName; }
    std::string html() const { return "/usr/local/packages/" + _appName + "/html"; }
    std::string socketPath() const { return html() + "/" + _appName + "_fcgi.socket"; }
    // The lighttpd lines that forward every page under /local/<app>/ to the socket.
    std::string fastcgiConfig() const {
        return "server.modules += (\"mod_fastcgi\")\n"
               "fastcgi.server = ( \"/local/" +
               _appName + "/\" => (( \"socket\" => \"" + socketPath() +
               "\", \"check-local\" => \"disable\" )) )\n";
    }

private:
    std::string _appName;
    bool _created = false;
};

class TestFastCGIServer final : public Ombrel::FastCGIServer {
public:
    // method is "GET" or "POST"; body is empty for a GET.
    using Handler = std::function<std::string(const std::string& method, const std::string& action,
                                              const std::string& body)>;

    TestFastCGIServer(const std::string& appName, Handler handler)
        : FastCGIServer(appName), _handler(std::move(handler)) {
        start();
    }
    ~TestFastCGIServer() override {
        ::shutdown(_socket, SHUT_RDWR);
        pthread_join(_thread, nullptr);
        ::close(_socket);
    }

    using FastCGIServer::parseQueryString;

protected:
    std::string processGetRequest(const std::string& action) override {
        return _handler("GET", action, "");
    }
    std::string processPostRequest(const std::string& action, const std::string& body) override {
        return _handler("POST", action, body);
    }

private:
    Handler _handler;
};

} // namespace StemlibTest
