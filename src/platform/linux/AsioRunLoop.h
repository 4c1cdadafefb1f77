#pragma once
// RunLoop on a standalone Asio io_context, run by the thread that calls run()/runUntil().
//
// The loop belongs to the thread that created it until some thread runs it; from then on it
// belongs to the last thread that ran it, so code on that thread between two runUntil() calls
// still counts as "on the loop" (isCurrent(), postAndWait() runs inline).
//
// postAndWait() from another thread never outlives the loop: stop() and the destructor release
// every caller whose task has not started yet; those tasks are dropped, not run. A caller that
// arrives while the loop is stopped returns at once without running its task. Once a task has
// started, its caller waits for it to finish; an exception it throws is rethrown to the caller.
//
// Standard headers come before Asio's on purpose: Asio picks its aligned allocation functions
// from what the standard library has already declared, and every file must make the same pick.
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

#include "platform/RunLoop.h"

namespace tw::linuxp {

class AsioRunLoop : public RunLoop, public std::enable_shared_from_this<AsioRunLoop> {
public:
    AsioRunLoop();
    ~AsioRunLoop() override;

    void post(Task task) override;
    void postAndWait(Task task) override;
    std::shared_ptr<Timer> scheduleTimer(Clock::time_point fireDate, std::chrono::duration<double> interval,
                                         TimerCallback callback) override;
    bool isCurrent() const override;
    void run() override;
    bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) override;
    void stop() override;

    // The loop's io_context, for sockets that deliver their callbacks on this loop.
    asio::io_context& context() { return context_; }

private:
    struct WaitSync;
    class TimerImpl;

    void beginRun();

    asio::io_context context_;
    std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work_;
    std::atomic<std::thread::id> runner_{};
    // Shared with postAndWait() callers so they can be released even while the loop is destroyed.
    std::shared_ptr<WaitSync> sync_;
    // Live timers, so the destructor can drop their Asio timers before the io_context goes away.
    std::mutex timersMutex_;
    std::vector<std::weak_ptr<TimerImpl>> timers_;
};

}  // namespace tw::linuxp
