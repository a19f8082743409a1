// Timers and periodic tasks: the lap report, countdowns, polled tasks, the stop flag and the
// worker thread's pauses. Whole-second waits appear only where the behaviour is counted in
// seconds.
#include "LogLines.h"
#include "ScopedLogger.h"
#include "Tasks.h"

#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <system_error>
#include <thread>
#include <vector>

using namespace Ombrel;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// Waits up to five seconds for condition; true if it came true.
template <typename Condition>
bool eventually(Condition condition) {
    const auto deadline = Clock::now() + 5s;
    while (!condition() && Clock::now() < deadline) {
        std::this_thread::sleep_for(2ms);
    }
    return condition();
}

struct CountingTask : TimedTask {
    using TimedTask::run;
    using TimedTask::TimedTask;
    void doTask() override { ++runs; }
    int runs = 0;
};

// A worker whose every job lasts jobTime.
struct Worker : TimedTaskThreadBase {
    explicit Worker(int pause, std::chrono::milliseconds jobTime = 0ms)
        : TimedTaskThreadBase("worker", pause), jobTime(jobTime) {}
    void doTask() override {
        inJob = true;
        std::this_thread::sleep_for(jobTime);
        inJob = false;
    }
    using TimedTaskThreadBase::sleepTime;
    using TimedTaskThreadBase::taskCounter;
    const std::chrono::milliseconds jobTime;
    std::atomic<bool> inJob{false};
};

} // namespace

TEST(Timer, ReportsAndLogsLapsInAPaddedColumnCountdownsAndPolledTasks) {
    const auto before = Clock::now();
    Timer timer("frame");
    EXPECT_EQ(timer.getReport(), "");
    std::this_thread::sleep_for(20ms);
    timer.tick("abc");
    timer.tick("fifteen_chars__");
    const auto elapsed = (Clock::now() - before) / 1ms;
    const std::string report = timer.getReport();
    std::smatch laps; // the longest name and 2 wide, laps rather than running totals
    ASSERT_TRUE(std::regex_match(
        report, laps, std::regex("abc {14} : (\\d+) ms\nfifteen_chars__   : (\\d+) ms\n")));
    EXPECT_GE(std::stoi(laps[1]), 20) << "the first lap counts from the start";
    EXPECT_LE(std::stoi(laps[1]) + std::stoi(laps[2]), elapsed);
    StemlibTest::RecordingLogger logger;
    StemlibTest::ScopedLogger scope(logger);
    timer.logReport();
    EXPECT_EQ(StemlibTest::linesAt(logger, "info"),
              (std::vector<std::string>{"logReport: Timer report for frame",
                                        "logReport: " + report.substr(0, report.find('\n') + 1),
                                        "logReport: " + report.substr(report.find('\n') + 1)}));
    timer.reset();
    timer.tick("a");
    EXPECT_EQ(timer.getNumberOfTicks(), 1);
    EXPECT_EQ(timer.getReport().substr(0, 15), "a            : ") << "at least 10 + 2 wide";

    CountdownTimer countdown(0);
    EXPECT_TRUE(countdown.isExpired() && CountdownTimer(-5).isExpired()) << "equality included";
    countdown.reset(60);
    EXPECT_FALSE(countdown.isExpired());
    EXPECT_GE(countdown.getExpiryTime() - std::chrono::system_clock::now(), 59s);
    CountingTask task(1);
    task.run();
    EXPECT_EQ(task.runs, 0);
    std::this_thread::sleep_for(1050ms);
    task.run();
    task.run();
    EXPECT_EQ(task.runs, 1) << "a new interval started after the job";
}

TEST(TimedTaskThreadBase, PausesStopsAndJobs) {
    auto start = Clock::now();
    Worker first(1);
    EXPECT_EQ(first.taskCounter.load(), 0);
    ASSERT_TRUE(eventually([&] { return first.taskCounter >= 1; }));
    EXPECT_GE(Clock::now() - start, 1s) << "the first job comes after one full pause";
    first.stop();

    // Changing the pause blocks the caller for the new pause, unless the value is the same;
    // the worker finishes its current pause with the old value; kill ends both waits at once.
    Worker worker(30);
    start = Clock::now();
    worker.setSleepTime(30);
    EXPECT_LT(Clock::now() - start, 500ms);
    worker.setSleepTime(1);
    EXPECT_GE(Clock::now() - start, 1s);
    EXPECT_EQ(worker.sleepTime.load(), 1);
    std::thread stopper([&] {
        std::this_thread::sleep_for(50ms);
        worker.stop();
    });
    start = Clock::now();
    worker.restart(30);
    stopper.join();
    EXPECT_LT(Clock::now() - start, 5s);
    EXPECT_EQ(worker.taskCounter.load(), 0) << "stopped in its first pause: no job";
    EXPECT_THROW(worker.stop(), std::system_error) << "a second stop fails in the join";

    // No pause: jobs run back to back. Set after construction, since the worker's first job
    // must wait until the derived object is complete.
    Worker busy(1, 300ms);
    busy.setSleepTime(0);
    ASSERT_TRUE(eventually([&] { return busy.inJob.load(); }));
    const int before = busy.taskCounter;
    start = Clock::now();
    busy.stop();
    EXPECT_GE(Clock::now() - start, 50ms) << "stop blocks in the join while the job runs";
    EXPECT_EQ(busy.taskCounter.load(), before + 1) << "the job under way completes and is counted";
}

TEST(ThreadController, KillWakesEveryWaiterAtOnceUntilStartClearsIt) {
    ThreadController controller;
    std::atomic<int> stopped{0};
    std::vector<std::thread> waiters;
    const auto start = Clock::now();
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            if (!controller.wait_for(30s)) {
                ++stopped;
            }
        });
    }
    std::this_thread::sleep_for(50ms);
    controller.kill();
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(stopped.load(), 3);
    EXPECT_LT(Clock::now() - start, 5s);
    EXPECT_FALSE(controller.wait_for(30s)) << "the flag stays set for later waiters";
    EXPECT_TRUE(controller.start(1s)) << "start clears the flag, so the time runs out";
}
