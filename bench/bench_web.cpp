// The web endpoint's request rate through lighttpd, side by side with lighttpd serving a static
// file of the same size from the same server: 200 bytes either way, measured by the load tool wrk
// in a process of its own (as a browser is), with 6 connections (the endpoint's socket holds 5
// waiting connections and one in service; lighttpd refuses a seventh request in flight with 503).
// keepalive:1 keeps each connection to lighttpd open; keepalive:0 asks lighttpd to close it after
// every request, as a page's occasional request does. lighttpd opens a connection to the endpoint
// for every request either way. The figure is the counter requests_per_second; each repetition is
// one wrk run of 2 seconds. Needs lighttpd, wrk and a writable /usr/local/packages.
#include "WebServers.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <regex>
#include <string>

namespace {

const std::string kAnswer(200, 'a');

// lighttpd with one application page and one static file, for the whole run.
struct WebSetup {
    StemlibTest::PackageFolder folder{"bench"};
    std::unique_ptr<StemlibTest::TestFastCGIServer> server;
    std::unique_ptr<StemlibTest::Lighttpd> web;

    WebSetup() {
        if (!folder.created()) {
            return;
        }
        server = std::make_unique<StemlibTest::TestFastCGIServer>(
            folder.appName(),
            [](const std::string&, const std::string&, const std::string&) { return kAnswer; });
        web = std::make_unique<StemlibTest::Lighttpd>(
            folder.fastcgiConfig(),
            std::map<std::string, std::string>{{"static.txt", std::string(200, 's')}});
    }
    ~WebSetup() {
        web.reset(); // lighttpd first, then the application it forwards to
        server.reset();
    }
};

WebSetup& webSetup() {
    static WebSetup setup;
    return setup;
}

// Runs wrk against target for 2 seconds; its requests per second, or a negative number with the
// reason in error.
double loadRate(uint16_t port, const std::string& target, bool keepAlive, std::string& error) {
    const std::string command = "wrk -t2 -c6 -d2s " +
                                std::string(keepAlive ? "" : "-H 'Connection: close' ") +
                                "'http://127.0.0.1:" + std::to_string(port) + target + "' 2>&1";
    std::string report;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        char buffer[1024];
        while (std::fgets(buffer, sizeof(buffer), pipe) != nullptr) {
            report += buffer;
        }
        ::pclose(pipe);
    }
    std::smatch rate;
    if (report.find("Non-2xx") != std::string::npos ||
        report.find("errors:") != std::string::npos ||
        !std::regex_search(report, rate, std::regex("Requests/sec: +([0-9.]+)"))) {
        error = report.empty() ? "wrk did not run" : report;
        return -1.0;
    }
    return std::stod(rate[1]);
}

void fetch(benchmark::State& state, const std::string& target) {
    WebSetup& setup = webSetup();
    if (!setup.web) {
        state.SkipWithError("cannot write /usr/local/packages");
        return;
    }
    double rate = 0.0;
    for (auto _ : state) {
        std::string error;
        rate = loadRate(setup.web->port(), target, state.range(0) != 0, error);
        if (rate < 0.0) {
            state.SkipWithError(error.c_str());
            return;
        }
        state.SetIterationTime(2.0);
    }
    state.counters["requests_per_second"] = rate;
}

void BM_LighttpdStaticFile(benchmark::State& state) {
    fetch(state, "/static.txt");
}
BENCHMARK(BM_LighttpdStaticFile)
    ->ArgName("keepalive")
    ->Arg(1)
    ->Arg(0)
    ->Iterations(1)
    ->UseManualTime();

void BM_LighttpdFastCGIAction(benchmark::State& state) {
    fetch(state, "/local/" + webSetup().folder.appName() + "/?action=get");
}
BENCHMARK(BM_LighttpdFastCGIAction)
    ->ArgName("keepalive")
    ->Arg(1)
    ->Arg(0)
    ->Iterations(1)
    ->UseManualTime();

} // namespace
