// The FastCGI request path: the input is what a web server writes on one connection to the
// application's socket (records of any type, one request or several on a kept connection), read
// and checked by FastCGIServer, parsed by libfcgi and served by the server's own loop, handlers
// included. Whatever the records, the server must survive them without a leak, hand a handler at
// most the largest body, and end its loop when the connection ends.
//
// No thread and no waiting: the server of the harness opens its socket as any application does
// (under /usr/local/packages), made non-blocking. For each input the harness connects, writes the
// input and hangs up (answers are then lost, as to a web server gone away, instead of filling the
// socket), and runs the server's loop: it accepts the connection, serves what the input holds,
// finds no further connection and returns.
#include "FuzzSupport.h"

#include "FastCGI.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

using namespace Ombrel;
using StemlibFuzz::check;

namespace {

// Larger inputs would not fit into the socket's buffer before the server reads them.
constexpr std::size_t kMaxInput = 64 * 1024;
// Exit status of a harness that cannot run on this machine (ctest counts it as skipped).
constexpr int kCannotRunHere = 77;

class HarnessServer final : public FastCGIServer {
public:
    explicit HarnessServer(const std::string& appName)
        : FastCGIServer(appName),
          _socketPath("/usr/local/packages/" + appName + "/html/" + appName + "_fcgi.socket") {
        ::fcntl(_socket, F_SETFL, ::fcntl(_socket, F_GETFL) | O_NONBLOCK);
    }
    ~HarnessServer() override { ::close(_socket); }

    // Serves the connections waiting on the socket.
    void serve() { run(); }
    const std::string& socketPath() const { return _socketPath; }

protected:
    std::string processGetRequest(const std::string& action) override { return handle(action); }
    std::string processPostRequest(const std::string& action, const std::string& body) override {
        check(body.size() <= 16u * 1024 * 1024, "a body stays within the length limit");
        return handle(action);
    }

private:
    std::string handle(const std::string& action) {
        if (action == "throw") {
            throw std::runtime_error("refused");
        }
        return "handled";
    }

    std::string _socketPath;
};

// The application's package folder, made for this process and removed at exit. Those of earlier
// runs that ended with a finding (and so without removing theirs) go first.
class PackageFolder {
public:
    PackageFolder() : _appName("stemlibfuzz_" + std::to_string(::getpid())) {
        std::error_code error;
        for (const auto& entry :
             std::filesystem::directory_iterator("/usr/local/packages", error)) {
            const std::string name = entry.path().filename().string();
            if (name.rfind("stemlibfuzz_", 0) == 0 &&
                !std::filesystem::exists("/proc/" + name.substr(12))) {
                std::filesystem::remove_all(entry.path(), error);
            }
        }
        error.clear();
        std::filesystem::create_directories("/usr/local/packages/" + _appName + "/html", error);
        if (error) {
            std::fprintf(stderr,
                         "fuzz_fastcgi: cannot write /usr/local/packages, where the server's "
                         "socket must be (%s); not run\n",
                         error.message().c_str());
            std::exit(kCannotRunHere);
        }
    }
    ~PackageFolder() {
        std::error_code ignored;
        std::filesystem::remove_all("/usr/local/packages/" + _appName, ignored);
    }
    const std::string& appName() const { return _appName; }

private:
    std::string _appName;
};

HarnessServer& server() {
    static PackageFolder folder;
    static HarnessServer server(folder.appName());
    return server;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    StemlibFuzz::quietLibraryLog();
    server();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > kMaxInput) {
        return 0;
    }
    HarnessServer& harnessServer = server();
    const int webServer = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    harnessServer.socketPath().copy(address.sun_path, sizeof(address.sun_path) - 1);
    check(::connect(webServer, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0,
          "the harness connects");
    check(::send(webServer, data, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size),
          "the input fits into the socket");
    ::close(webServer);
    harnessServer.serve();
    return 0;
}
