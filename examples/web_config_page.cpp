// A minimal application page: an ApplicationBase, a Config and a FastCGIServer working together.
//
// The application keeps two settings in its configuration file (a dwell time in seconds and a
// detection confidence) and shows them, once a second and whenever they change, from its analysis
// loop. Its web page reads and replaces them through the application's FastCGI socket, which the
// camera's web server (or lighttpd on a PC, see web_config_page.lighttpd.conf) forwards to:
//
//   GET  /local/web_config_page/app.cgi?action=get   the configuration text
//   POST /local/web_config_page/app.cgi?action=set   body: a whole configuration text, stored with
//                                                     Config::update; answers "OK" or "ERROR: ..."
//
// The configuration text is the version (2), the language code, then "<dwell> <confidence>",
// e.g. "2\nen\n5 0.6\n". The web thread and the analysis loop share the configuration under one
// mutex, since Config holds no lock of its own.
//
// The socket lives in /usr/local/packages/<app>/html/, which must exist (it does on a camera).
// Options: --app NAME (default web_config_page), --config FILE (default <temp>/<app>.conf),
// --seconds N (stop after N seconds; default: until interrupted).
#include "Stemlib.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

using namespace Ombrel;

namespace {

volatile std::sig_atomic_t g_stopRequested = 0;

void requestStop(int) {
    g_stopRequested = 1;
}

class PageConfig : public Config {
public:
    explicit PageConfig(const std::string& filename) : Config(filename, 2) { initialize(); }

    std::string serialize() const override {
        std::ostringstream s;
        s << Config::serialize() << dwellSeconds << ' ' << confidence << '\n';
        return s.str();
    }

    int dwellSeconds = 5;
    float confidence = 0.6f;

protected:
    using Config::deserializeStream;
    // Takes the values over only when both are present and in range.
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

class PageServer : public FastCGIServer {
public:
    PageServer(const std::string& appName, PageConfig& config, std::mutex& mutex)
        : FastCGIServer(appName), _config(config), _mutex(mutex) {}

    // Ends the request loop: the waiting accept fails once the socket is shut down.
    void stop() {
        ::shutdown(_socket, SHUT_RDWR);
        pthread_join(_thread, nullptr);
        ::close(_socket);
    }

protected:
    std::string processGetRequest(const std::string& action) override {
        if (action != "get") {
            return "ERROR: unknown action " + action;
        }
        std::lock_guard<std::mutex> lock(_mutex);
        return _config.serialize();
    }

    std::string processPostRequest(const std::string& action, const std::string& body) override {
        if (action != "set") {
            return "ERROR: unknown action " + action;
        }
        std::lock_guard<std::mutex> lock(_mutex);
        const std::string previous = _config.serialize();
        if (!_config.update(body)) {
            _config.deserialize(previous); // a refused text may have changed the language
            return "ERROR: configuration refused";
        }
        return "OK";
    }

private:
    PageConfig& _config;
    std::mutex& _mutex;
};

class PageApplication : public ApplicationBase {
public:
    PageApplication(const std::string& appName, const std::string& configPath, int seconds)
        : ApplicationBase(appName, configPath), _config(configPath),
          _server(appName, _config, _mutex), _seconds(seconds) {}

    bool initialize() override {
        _server.start();
        return ApplicationBase::initialize();
    }

    void run() override {
        _isRunning = true;
        const auto start = std::chrono::steady_clock::now();
        std::string shown;
        while (!g_stopRequested && (_seconds <= 0 || std::chrono::steady_clock::now() - start <
                                                         std::chrono::seconds(_seconds))) {
            std::string now;
            {
                std::lock_guard<std::mutex> lock(_mutex);
                now = "dwell " + std::to_string(_config.dwellSeconds) + " s, confidence " +
                      std::to_string(_config.confidence);
            }
            if (now != shown) {
                std::printf("%s: %s\n", _appName.c_str(), now.c_str());
                std::fflush(stdout);
                shown = now;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
        _server.stop();
        _isRunning = false;
    }

private:
    std::mutex _mutex;
    PageConfig _config;
    PageServer _server;
    int _seconds;
};

} // namespace

int main(int argc, char** argv) {
    std::string appName = "web_config_page";
    std::string configPath;
    int seconds = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--app") == 0) {
            appName = argv[i + 1];
        } else if (std::strcmp(argv[i], "--config") == 0) {
            configPath = argv[i + 1];
        } else if (std::strcmp(argv[i], "--seconds") == 0) {
            seconds = std::atoi(argv[i + 1]);
        }
    }
    const std::filesystem::path temp = std::filesystem::temp_directory_path();
    if (configPath.empty()) {
        configPath = (temp / (appName + ".conf")).string();
    }

    Logger logger(appName, (temp / (appName + ".log")).string());
    useLogger(logger);
    std::signal(SIGINT, requestStop);
    std::signal(SIGTERM, requestStop);

    try {
        PageApplication application(appName, configPath, seconds);
        application.initialize();
        std::printf("%s: serving /usr/local/packages/%s/html/%s_fcgi.socket, settings in %s\n",
                    appName.c_str(), appName.c_str(), appName.c_str(), configPath.c_str());
        application.run();
    } catch (const std::runtime_error& e) {
        std::fprintf(stderr, "%s: %s (does /usr/local/packages/%s/html/ exist?)\n", appName.c_str(),
                     e.what(), appName.c_str());
        return 1;
    }
    return 0;
}
