// Debian's chromium, headless, driven through its DevTools protocol over a pipe
// (--remote-debugging-pipe: the browser reads commands from descriptor 3 and writes answers and
// events to descriptor 4, each message JSON text closed by a NUL byte).
//
// The browser starts with a fresh profile in a scratch folder and without the background
// services that would try to reach the network. open() makes a page and attaches to it;
// evaluate() runs JavaScript in it and returns the value. Every wait is bounded; the destructor
// closes the browser (Browser.close, then SIGTERM and SIGKILL) and removes the profile.
#pragma once

#include "ScratchDirectory.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace StemlibTest {

inline std::string chromiumProgram() {
    for (const char* path : {"/usr/bin/chromium", "/usr/bin/chromium-browser"}) {
        if (::access(path, X_OK) == 0) {
            return path;
        }
    }
    return "";
}

class HeadlessChromium {
public:
    // Throws std::runtime_error if the browser cannot be started.
    HeadlessChromium() {
        // A browser that dies must not take the test program with it through SIGPIPE.
        ::signal(SIGPIPE, SIG_IGN);
        const std::string program = chromiumProgram();
        if (program.empty()) {
            throw std::runtime_error("chromium is not installed");
        }
        int commands[2];
        int answers[2];
        if (::pipe2(commands, O_CLOEXEC) != 0 || ::pipe2(answers, O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipes for chromium");
        }
        std::vector<std::string> arguments = {program,
                                              "--headless",
                                              "--no-sandbox",
                                              "--disable-gpu",
                                              "--disable-quic",
                                              "--no-first-run",
                                              "--disable-background-networking",
                                              "--disable-component-update",
                                              "--disable-sync",
                                              "--disable-dev-shm-usage",
                                              "--window-size=1400,1000",
                                              "--remote-debugging-pipe",
                                              "--user-data-dir=" + _profile.file("profile"),
                                              "about:blank"};
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        const std::string log = _profile.file("chromium.log");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, commands[0], 3);
        posix_spawn_file_actions_adddup2(&actions, answers[1], 4);
        posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        pid_t pid = -1;
        const int failed =
            ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(commands[0]);
        ::close(answers[1]);
        _toBrowser = commands[1];
        _fromBrowser = answers[0];
        if (failed != 0) {
            closePipes();
            throw std::runtime_error("chromium did not start");
        }
        _pid = pid;
        // The browser answers once it is up.
        call("Browser.getVersion", nlohmann::json::object(), "", std::chrono::seconds(30));
    }

    ~HeadlessChromium() {
        if (_pid > 0) {
            try {
                call("Browser.close", nlohmann::json::object(), "", std::chrono::seconds(5));
            } catch (const std::exception&) {
            }
            // 5 seconds to close by itself, 5 more after SIGTERM, then SIGKILL.
            const auto start = std::chrono::steady_clock::now();
            bool terminated = false;
            while (::waitpid(_pid, nullptr, WNOHANG) == 0) {
                const auto waited = std::chrono::steady_clock::now() - start;
                if (waited > std::chrono::seconds(10)) {
                    ::kill(_pid, SIGKILL);
                    ::waitpid(_pid, nullptr, 0);
                    break;
                }
                if (!terminated && waited > std::chrono::seconds(5)) {
                    ::kill(_pid, SIGTERM);
                    terminated = true;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        }
        closePipes();
    }
    HeadlessChromium(const HeadlessChromium&) = delete;
    HeadlessChromium& operator=(const HeadlessChromium&) = delete;

    // A new page showing url, attached for evaluate().
    void open(const std::string& url) {
        const nlohmann::json target = call("Target.createTarget", {{"url", url}});
        const nlohmann::json attached =
            call("Target.attachToTarget", {{"targetId", target.at("targetId")}, {"flatten", true}});
        _session = attached.at("sessionId").get<std::string>();
    }

    // The value of a JavaScript expression in the page (promises awaited); throws
    // std::runtime_error with the page's exception text if it throws.
    nlohmann::json evaluate(const std::string& expression) {
        const nlohmann::json result =
            call("Runtime.evaluate",
                 {{"expression", expression}, {"returnByValue", true}, {"awaitPromise", true}},
                 _session);
        if (result.contains("exceptionDetails")) {
            throw std::runtime_error("page error: " + result["exceptionDetails"].dump());
        }
        const nlohmann::json& value = result.at("result");
        return value.contains("value") ? value.at("value") : nlohmann::json();
    }

    // Evaluates condition (a JavaScript expression) every 100 ms until it is true; false if
    // limit passes first.
    bool waitFor(const std::string& condition, std::chrono::seconds limit) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < deadline) {
            try {
                if (evaluate("Boolean(" + condition + ")") == true) {
                    return true;
                }
            } catch (const std::runtime_error&) {
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    }

    // A PNG of the page's top-left width x height pixels, scaled by scale.
    std::string screenshot(int width, int height, double scale) {
        const nlohmann::json clip = {
            {"x", 0}, {"y", 0}, {"width", width}, {"height", height}, {"scale", scale}};
        const nlohmann::json result =
            call("Page.captureScreenshot", {{"format", "png"}, {"clip", clip}}, _session);
        return decodeBase64(result.at("data").get<std::string>());
    }

    // Sends one command and returns its result; throws std::runtime_error on an error answer or
    // when no answer comes within limit. Events are read and dropped.
    nlohmann::json call(const std::string& method, const nlohmann::json& params,
                        const std::string& session = "",
                        std::chrono::seconds limit = std::chrono::seconds(20)) {
        const int id = ++_lastId;
        nlohmann::json message = {{"id", id}, {"method", method}, {"params", params}};
        if (!session.empty()) {
            message["sessionId"] = session;
        }
        const std::string text = message.dump() + std::string(1, '\0');
        std::size_t sent = 0;
        while (sent < text.size()) {
            const ssize_t n = ::write(_toBrowser, text.data() + sent, text.size() - sent);
            if (n <= 0) {
                throw std::runtime_error("chromium's pipe is closed");
            }
            sent += static_cast<std::size_t>(n);
        }
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (true) {
            const std::size_t end = _buffer.find('\0');
            if (end != std::string::npos) {
                const nlohmann::json answer = nlohmann::json::parse(_buffer.substr(0, end));
                _buffer.erase(0, end + 1);
                if (answer.contains("id") && answer["id"] == id) {
                    if (answer.contains("error")) {
                        throw std::runtime_error(method + ": " + answer["error"].dump());
                    }
                    return answer.value("result", nlohmann::json::object());
                }
                continue;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                throw std::runtime_error(method + ": no answer from chromium");
            }
            pollfd readable{_fromBrowser, POLLIN, 0};
            if (::poll(&readable, 1, static_cast<int>(left.count())) <= 0) {
                continue;
            }
            char chunk[65536];
            const ssize_t n = ::read(_fromBrowser, chunk, sizeof(chunk));
            if (n <= 0) {
                throw std::runtime_error(method + ": chromium closed its pipe");
            }
            _buffer.append(chunk, static_cast<std::size_t>(n));
        }
    }

    std::string log() const { return readWholeFile(_profile.file("chromium.log")); }

private:
    static std::string decodeBase64(const std::string& text) {
        std::string out;
        int value = 0;
        int bits = -8;
        for (const char c : text) {
            int digit;
            if (c >= 'A' && c <= 'Z') {
                digit = c - 'A';
            } else if (c >= 'a' && c <= 'z') {
                digit = c - 'a' + 26;
            } else if (c >= '0' && c <= '9') {
                digit = c - '0' + 52;
            } else if (c == '+') {
                digit = 62;
            } else if (c == '/') {
                digit = 63;
            } else {
                continue;
            }
            value = (value << 6) | digit;
            bits += 6;
            if (bits >= 0) {
                out.push_back(static_cast<char>((value >> bits) & 0xFF));
                bits -= 8;
            }
        }
        return out;
    }

    void closePipes() {
        if (_toBrowser >= 0) {
            ::close(_toBrowser);
            _toBrowser = -1;
        }
        if (_fromBrowser >= 0) {
            ::close(_fromBrowser);
            _fromBrowser = -1;
        }
    }

    ScratchDirectory _profile;
    pid_t _pid = -1;
    int _toBrowser = -1;
    int _fromBrowser = -1;
    int _lastId = 0;
    std::string _buffer;
    std::string _session;
};

} // namespace StemlibTest
