#include "Tasks.h"

#include "Points.h"

#include <algorithm>
#include <limits>

namespace Ombrel {

Timer::Timer(const std::string& name)
    : timerName(name), startTime(std::chrono::steady_clock::now()) {}

void Timer::tick(const std::string& name) {
    tickEntries.push_back(TickEntry{name, std::chrono::steady_clock::now()});
}

std::vector<std::string> Timer::reportLines() const {
    std::size_t width = 10;
    for (const TickEntry& entry : tickEntries) {
        width = std::max(width, entry.name.size());
    }
    width += 2;

    std::vector<std::string> lines;
    lines.reserve(tickEntries.size());
    TimePoint previous = startTime;
    for (const TickEntry& entry : tickEntries) {
        const auto lap =
            std::chrono::duration_cast<std::chrono::milliseconds>(entry.start - previous);
        std::string line = entry.name;
        line.append(width - entry.name.size(), ' ');
        line.append(" : ").append(std::to_string(lap.count())).append(" ms\n");
        lines.push_back(std::move(line));
        previous = entry.start;
    }
    return lines;
}

std::string Timer::getReport() const {
    std::string report;
    for (const std::string& line : reportLines()) {
        report += line;
    }
    return report;
}

void Timer::logReport() const {
    g_stemlibLogger.info("logReport: Timer report for " + timerName);
    for (const std::string& line : reportLines()) {
        g_stemlibLogger.info("logReport: " + line);
    }
}

int Timer::getNumberOfTicks() const {
    return static_cast<int>(tickEntries.size());
}

void Timer::reset() {
    tickEntries.clear();
    startTime = std::chrono::steady_clock::now();
}

CountdownTimer::CountdownTimer(int seconds_) : seconds(seconds_) {
    restart();
}

bool CountdownTimer::isExpired() const {
    return std::chrono::system_clock::now() >= expiryTime;
}

void CountdownTimer::restart() {
    expiryTime =
        std::chrono::time_point_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now()) +
        std::chrono::seconds(seconds);
}

void CountdownTimer::reset(int seconds_) {
    seconds = seconds_;
    restart();
}

TimedTask::TimedTask(unsigned int seconds)
    : timer(static_cast<int>(std::min<unsigned int>(
          seconds, static_cast<unsigned>(std::numeric_limits<int>::max())))) {}

void TimedTask::run() {
    if (timer.isExpired()) {
        doTask();
        timer.restart();
    }
}

bool ThreadController::wait_for(std::chrono::seconds duration) {
    std::unique_lock<std::mutex> lock(m);
    return !cv.wait_for(lock, duration, [this] { return terminate; });
}

bool ThreadController::start(std::chrono::seconds duration) {
    {
        std::lock_guard<std::mutex> lock(m);
        terminate = false;
    }
    return wait_for(duration);
}

void ThreadController::kill() {
    std::lock_guard<std::mutex> lock(m);
    terminate = true;
    cv.notify_all();
}

TimedTaskThreadBase::TimedTaskThreadBase(const std::string& inThreadName, int n)
    : threadName(inThreadName), sleepTime(n) {
    threadObj = std::thread([this] { threadFunction(); });
}

void TimedTaskThreadBase::setSleepTime(int newSleepTime) {
    if (newSleepTime != sleepTime.load()) {
        restart(newSleepTime);
    }
}

void TimedTaskThreadBase::restart(int newSleepTime) {
    threadController.start(std::chrono::seconds(newSleepTime));
    sleepTime.store(newSleepTime);
}

void TimedTaskThreadBase::stop() {
    threadController.kill();
    threadObj.join();
}

void TimedTaskThreadBase::threadFunction() {
    while (threadController.wait_for(std::chrono::seconds(sleepTime.load()))) {
        doTask();
        ++taskCounter;
    }
}

} // namespace Ombrel
