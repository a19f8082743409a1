#include "CounterWebServer.h"

#include <sys/socket.h>
#include <unistd.h>

namespace PeopleCounting {

CounterWebServer::CounterWebServer(const std::string& appName, WebActions& actions)
    : FastCGIServer(appName), _actions(actions) {}

CounterWebServer::~CounterWebServer() {
    stop();
}

void CounterWebServer::serve() {
    if (!_serving) {
        start();
        _serving = true;
    }
}

void CounterWebServer::stop() {
    if (_socket >= 0) {
        ::shutdown(_socket, SHUT_RDWR);
        if (_serving) {
            pthread_join(_thread, nullptr);
            _serving = false;
        }
        ::close(_socket);
        _socket = -1;
    }
}

std::string CounterWebServer::processGetRequest(const std::string& action) {
    if (action == "status") {
        return _actions.statusJson();
    }
    if (action == "getConfig") {
        return _actions.configText();
    }
    if (action == "setConfig") {
        return "ERROR: setConfig takes the configuration as the body of a POST";
    }
    return "ERROR: unknown action " + action;
}

std::string CounterWebServer::processPostRequest(const std::string& action,
                                                 const std::string& body) {
    if (action == "setConfig") {
        return _actions.setConfig(body);
    }
    if (action == "status" || action == "getConfig") {
        return processGetRequest(action);
    }
    return "ERROR: unknown action " + action;
}

} // namespace PeopleCounting
