// Timers and periodic tasks: the lap report, countdowns, polled tasks, the stop flag and the
// worker thread's pauses. Whole-second waits appear only where the behaviour is counted in
// seconds.
#include "RecordingLogger.h"
#include "ScopedLogger.h"
#include "Tasks.h"

#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <system_error>
#include <thread>

using namespace Ombrel;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Waits up to five seconds for condition; true if it came true.
template <typename Condition>
bool eventually(Condition condition) {
    const auto deadline = Clock::now() + 5s;
    while (!condition() && Clock::now() < deadline) {
        std::this_thread::sleep_for(2ms);
    }
    return condition();
}

class CountingTask : public TimedTask {
public:
    using TimedTask::run;
    using TimedTask::TimedTask;
    int runs = 0;

protected:
    void doTask() override { ++runs; }
};

class Worker : public TimedTaskThreadBase {
public:
    Worker(int pause, std::chrono::milliseconds jobTime = 0ms)
        : TimedTaskThreadBase("worker", pause), _jobTime(jobTime) {}

    int counter() const { return taskCounter.load(); }
    int pause() const { return sleepTime.load(); }
    bool inJob() const { return _inJob.load(); }

protected:
    void doTask() override {
        _inJob = true;
        std::this_thread::sleep_for(_jobTime);
        _inJob = false;
    }

private:
    std::chrono::milliseconds _jobTime;
    std::atomic<bool> _inJob{false};
};

} // namespace

TEST(Timer, ReportsAndLogsLapsInAPaddedColumn) {
    const auto before = Clock::now();
    Timer timer("frame");
    EXPECT_EQ(timer.getReport(), "");
    std::this_thread::sleep_for(20ms);
    timer.tick("abc");
    timer.tick("fifteen_chars__");
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - before).count();
    EXPECT_EQ(timer.getNumberOfTicks(), 2);

    const std::string report = timer.getReport();
    std::smatch laps;
    ASSERT_TRUE(std::regex_match(
        report, laps, std::regex("abc {14} : (\\d+) ms\nfifteen_chars__   : (\\d+) ms\n")))
        << report;
    EXPECT_GE(std::stoi(laps[1]), 20) << "the first lap counts from the start";
    EXPECT_LE(std::stoi(laps[1]) + std::stoi(laps[2]), elapsed) << "laps, not running totals";

    StemlibTest::RecordingLogger logger;
    StemlibTest::ScopedLogger scope(logger);
    timer.logReport();
    ASSERT_EQ(logger.lines.size(), 3u);
    EXPECT_EQ(logger.lines[0].level, "info");
    EXPECT_EQ(logger.lines[0].message, "STEMLIB::logReport: Timer report for frame");
    EXPECT_EQ(logger.lines[1].message,
              "STEMLIB::logReport: abc" + std::string(14, ' ') + " : " + laps[1].str() + " ms\n");

    timer.reset();
    EXPECT_EQ(timer.getNumberOfTicks(), 0);
    timer.tick("a");
    EXPECT_TRUE(std::regex_match(timer.getReport(), std::regex("a {11} : \\d+ ms\n")))
        << "the column is at least 10 + 2 wide";
}

TEST(CountdownTimer, ExpiresAtTheExpiryTimeOnTheSystemClock) {
    CountdownTimer zero(0);
    EXPECT_TRUE(zero.isExpired());
    zero.restart();
    EXPECT_TRUE(zero.isExpired());
    EXPECT_TRUE(CountdownTimer(-5).isExpired());

    const auto before = std::chrono::system_clock::now();
    CountdownTimer minute(60);
    EXPECT_FALSE(minute.isExpired());
    const auto remaining = minute.getExpiryTime() - before;
    EXPECT_GE(remaining, 60s);
    EXPECT_LT(remaining, 61s);
    minute.reset(0);
    EXPECT_TRUE(minute.isExpired());
    EXPECT_TRUE(CountdownTimer(2147483647).getExpiryTime() > std::chrono::system_clock::now());
}

TEST(TimedTask, RunsTheJobOnlyAfterTheCountdownAndStartsANewOne) {
    CountingTask task(1);
    task.run();
    task.run();
    EXPECT_EQ(task.runs, 0);
    std::this_thread::sleep_for(1050ms);
    task.run();
    EXPECT_EQ(task.runs, 1);
    task.run();
    EXPECT_EQ(task.runs, 1) << "a new interval started after the job";
}

TEST(TimedTaskThreadBase, TheFirstJobComesAfterOneFullPauseAndStopEndsAPauseAtOnce) {
    auto start = Clock::now();
    Worker worker(1);
    EXPECT_EQ(worker.counter(), 0);
    ASSERT_TRUE(eventually([&] { return worker.counter() >= 1; }));
    EXPECT_GE(secondsSince(start), 1.0);
    worker.stop();

    start = Clock::now();
    Worker idle(30);
    idle.stop();
    EXPECT_LT(secondsSince(start), 5.0);
    EXPECT_EQ(idle.counter(), 0) << "stopped in the first pause: no job";
    EXPECT_THROW(idle.stop(), std::system_error) << "a second stop fails in the join";

    Worker busy(0); // no pause: jobs run back to back
    ASSERT_TRUE(eventually([&] { return busy.counter() >= 3; }));
    busy.stop();
}

TEST(TimedTaskThreadBase, ChangingThePauseBlocksTheCallerForTheNewPause) {
    Worker worker(30);
    auto start = Clock::now();
    worker.setSleepTime(30);
    EXPECT_LT(secondsSince(start), 0.5) << "the same value returns at once";

    start = Clock::now();
    worker.setSleepTime(1);
    EXPECT_GE(secondsSince(start), 1.0);
    EXPECT_EQ(worker.pause(), 1);
    EXPECT_EQ(worker.counter(), 0) << "the worker is still in its old 30 s pause";

    // kill ends a restart's wait as well.
    std::thread stopper([&] {
        std::this_thread::sleep_for(50ms);
        worker.stop();
    });
    start = Clock::now();
    worker.restart(30);
    stopper.join();
    EXPECT_LT(secondsSince(start), 5.0);
    EXPECT_EQ(worker.counter(), 0);
}

TEST(TimedTaskThreadBase, StopDuringAJobWaitsForIt) {
    Worker worker(0, 300ms);
    ASSERT_TRUE(eventually([&] { return worker.inJob(); }));
    const int before = worker.counter();
    const auto start = Clock::now();
    worker.stop();
    EXPECT_GE(secondsSince(start), 0.05) << "stop blocks in the join while the job runs";
    EXPECT_EQ(worker.counter(), before + 1) << "the job under way completes and is counted";
}
