// CounterWebServer: the people counter's FastCGI endpoint, behind the web server's
// /local/<app>/app.cgi.
//
//   GET  ?action=status      the CounterStatus as JSON text
//   GET  ?action=getConfig   the whole configuration text
//   POST ?action=setConfig   body: a whole configuration text; "OK", or "ERROR: <why>" with
//                            nothing changed
// Anything else is answered "ERROR: unknown action <action>".
//
// The answers come from the application through the WebActions it implements; they run on the
// server's thread, so the application guards what they share with its analysis loop.
//
// Lifecycle: the constructor opens the socket (throwing std::runtime_error if it cannot);
// start() serves on a thread of its own; stop() ends that thread (socket shut down, thread
// joined, socket closed) and must be called before destruction once started.
#pragma once

#include "FastCGI.h"

#include <string>

namespace PeopleCounting {

class WebActions {
public:
    virtual ~WebActions() = default;
    virtual std::string statusJson() = 0;
    virtual std::string configText() = 0;
    virtual std::string setConfig(const std::string& text) = 0;
};

class CounterWebServer : public Ombrel::FastCGIServer {
public:
    CounterWebServer(const std::string& appName, WebActions& actions);
    ~CounterWebServer() override;

    void serve();
    void stop();

protected:
    std::string processGetRequest(const std::string& action) override;
    std::string processPostRequest(const std::string& action, const std::string& body) override;

private:
    WebActions& _actions;
    bool _serving = false;
};

} // namespace PeopleCounting
