// Runtime services: the cost of one Logger::info line including its share of the batched
// writes, side by side with spdlog writing a comparable line to a file, and text lookups.
#include "Localization.h"
#include "Logger.h"
#include "ScratchDirectory.h"

#include <benchmark/benchmark.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <string>

using namespace Ombrel;

namespace {

// A typical line of an analysis loop.
const std::string kMessage = "STEMLIB::detect: 3 persons, 1 in AOI0, inference took 42 ms";

// With purge:1 the default limits apply: the file is cut back from 2 MiB to 1 MiB whenever it
// reaches 2 MiB, so the purges' share is part of the figure. With purge:0 the limits are out of
// reach: the line and batch-write cost alone.
void BM_LoggerInfo(benchmark::State& state) {
    StemlibTest::ScratchDirectory dir;
    Logger logger("bench", dir.file("stemlib.log"));
    if (state.range(0) == 0) {
        logger.setSizeLimits(2147483647, 2147483647);
    }
    for (auto _ : state) {
        logger.info(kMessage);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LoggerInfo)->ArgName("purge")->Arg(1)->Arg(0);

// spdlog's thread-safe file sink with the same four fields per line.
void BM_SpdlogInfo(benchmark::State& state) {
    StemlibTest::ScratchDirectory dir;
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(dir.file("spdlog.log"), true);
    spdlog::logger logger("bench", sink);
    logger.set_pattern("%Y-%m-%d %H:%M:%S|bench|%l|%v");
    for (auto _ : state) {
        logger.info(kMessage);
    }
    logger.flush();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SpdlogInfo);

void BM_LocalizationGetString(benchmark::State& state) {
    Localization::setLanguage("de");
    const std::string key = "actions.names.walking";
    for (auto _ : state) {
        benchmark::DoNotOptimize(Localization::getString(key));
    }
    Localization::setLanguage("en");
}
BENCHMARK(BM_LocalizationGetString);

void BM_LocalizationGetStringWithArgument(benchmark::State& state) {
    Localization::setLanguage("de");
    const std::string key = "markers.status.conditionMet";
    const std::string seconds = "12";
    for (auto _ : state) {
        benchmark::DoNotOptimize(Localization::getString(key, seconds));
    }
    Localization::setLanguage("en");
}
BENCHMARK(BM_LocalizationGetStringWithArgument);

} // namespace
