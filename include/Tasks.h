// Timers and periodic tasks.
//
// - Timer: a named stopwatch on the steady clock that records named laps and prints them as a
//   table.
// - CountdownTimer: answers whether a number of seconds has passed, on the system clock.
// - TimedTask: does a job from the caller's polling loop whenever its countdown has run out.
// - ThreadController: a stop flag guarded by a mutex, with a condition variable to wait on.
// - TimedTaskThreadBase: does a job on a thread of its own, at a fixed pause, until stop().
//
// Threading: Timer, CountdownTimer and TimedTask have no locks and belong to one thread each.
// ThreadController guards its flag with its mutex. TimedTaskThreadBase owns one worker thread,
// started in its constructor and joined by stop().
#pragma once

#include "CommonStructs.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Ombrel {

// A time point of the system clock, in nanoseconds.
using TimeStamp = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

class Timer {
public:
    struct TickEntry {
        std::string name;
        TimePoint start; // the moment of the tick
    };
    using TickEntries = std::vector<TickEntry>;

    // Starts the clock, with no ticks.
    explicit Timer(const std::string& name);

    // Records a lap named name at the current time.
    void tick(const std::string& name);
    // One line per tick: the name padded to the column width (the longest name, at least 10,
    // plus 2), " : ", the milliseconds since the previous tick (or the start), truncated, and
    // " ms\n". Empty with no ticks.
    std::string getReport() const;
    // Logs "logReport: Timer report for <name>" and then "logReport: " + each line of the
    // report (which keeps its newline) at info level through g_stemlibLogger.
    void logReport() const;
    int getNumberOfTicks() const;
    // Drops the ticks and restarts the clock.
    void reset();

private:
    std::vector<std::string> reportLines() const;

    std::string timerName;
    TimePoint startTime;
    TickEntries tickEntries;
};

class CountdownTimer {
public:
    // Counts down from now; zero or negative seconds are expired at once.
    explicit CountdownTimer(int seconds);

    // True when the system time has reached the expiry time, equality included.
    bool isExpired() const;
    TimeStamp getExpiryTime() const { return expiryTime; }
    // Counts the same number of seconds down again from now.
    void restart();
    // Counts a new number of seconds down from now.
    void reset(int seconds);

private:
    TimeStamp expiryTime;
    int seconds;
};

// A job run from the caller's loop: each call of run() after the countdown has expired runs
// doTask once and starts a new countdown from the end of the job, so the period drifts by the
// job's duration.
class TimedTask {
public:
    // Seconds above the largest int are taken as the largest int.
    explicit TimedTask(unsigned int seconds);
    virtual ~TimedTask() = default;

protected:
    virtual void run();
    virtual void doTask() = 0;

    CountdownTimer timer;
};

class ThreadController {
public:
    // Waits until kill() or until duration has passed. True if the time ran out (the caller may
    // go on), false if the flag was set.
    bool wait_for(std::chrono::seconds duration);
    // Clears the flag, then waits like wait_for, blocking the caller for up to duration.
    bool start(std::chrono::seconds duration);
    // Sets the flag and wakes every waiter at once.
    void kill();

private:
    std::condition_variable cv;
    std::mutex m;
    bool terminate = false;
};

// A job on a thread of its own. The thread starts in the constructor and waits one pause before
// the first doTask, then runs doTask after every further pause until stop(). A derived class
// must therefore finish its own construction within the first pause.
//
// stop() must be called exactly once before destruction: the destructor neither signals nor
// joins, and destroying the object with its thread still running ends the process. A second
// stop() throws std::system_error from the join. stop() during a job takes effect when the job
// returns. A pause of zero or less seconds runs doTask back to back.
class TimedTaskThreadBase {
public:
    TimedTaskThreadBase(const std::string& inThreadName, int n);
    virtual ~TimedTaskThreadBase() = default;

    TimedTaskThreadBase(const TimedTaskThreadBase&) = delete;
    TimedTaskThreadBase& operator=(const TimedTaskThreadBase&) = delete;

    // Calls restart if newSleepTime differs from the current pause; otherwise returns at once.
    virtual void setSleepTime(int newSleepTime);
    // Runs on the caller's thread and blocks it: clears the stop flag, waits up to newSleepTime
    // seconds on the controller (kill() ends the wait), then stores the new pause. The worker
    // finishes its current pause with the old value. It does not revive a stopped thread.
    virtual void restart(int newSleepTime);
    // Stops the worker (at once during a pause, after the job during one) and joins it.
    virtual void stop();

protected:
    virtual void doTask() = 0;
    // The worker loop: wait a pause; while not stopped, doTask and count it, then wait again.
    virtual void threadFunction();

    // Kept for the derived class; the thread itself stays unnamed.
    std::string threadName;
    // Seconds between runs; read afresh for every pause.
    std::atomic<int> sleepTime;
    // Completed doTask calls.
    std::atomic<int> taskCounter{0};
    ThreadController threadController;
    std::thread threadObj;
};

} // namespace Ombrel
