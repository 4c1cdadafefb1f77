#pragma once
// The main run loop of a process: the main queue, timers with a fire date, and running until done.
// Port callbacks, timers, notifications and every user-interface call run on it; a play runs on a
// worker thread and hops here with post() or postAndWait().
#include <chrono>
#include <functional>
#include <memory>

namespace tw {

class RunLoop {
public:
    using Task = std::function<void()>;
    using Clock = std::chrono::system_clock;

    class Timer {
    public:
        virtual ~Timer() = default;
        virtual void invalidate() = 0;
        virtual bool isValid() const = 0;
        virtual Clock::time_point fireDate() const = 0;
    };
    using TimerCallback = std::function<void(Timer&)>;

    virtual ~RunLoop() = default;

    // Queues a task; it runs on the loop's thread after the tasks queued before it.
    virtual void post(Task task) = 0;
    // Queues a task and blocks until it has run. Runs it at once when called on the loop's thread.
    virtual void postAndWait(Task task) = 0;
    // A timer that fires at `fireDate`, then every `interval` while the interval is positive.
    virtual std::shared_ptr<Timer> scheduleTimer(Clock::time_point fireDate,
                                                 std::chrono::duration<double> interval,
                                                 TimerCallback callback) = 0;
    // True on the thread that runs the loop.
    virtual bool isCurrent() const = 0;
    // Runs until stop().
    virtual void run() = 0;
    // Runs until `done` returns true (checked after every handler) or the timeout passes;
    // returns whether `done` became true.
    virtual bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) = 0;
    virtual void stop() = 0;

    // The process's main run loop, installed at start-up.
    static RunLoop& main();
    static void setMain(std::shared_ptr<RunLoop> loop);
    static bool hasMain();
};

}  // namespace tw
