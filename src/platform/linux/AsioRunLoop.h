#pragma once
// RunLoop on a standalone Asio io_context, run by the thread that calls run()/runUntil().
#include <asio/io_context.hpp>
#include <atomic>
#include <memory>
#include <optional>
#include <thread>

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
    asio::io_context context_;
    std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work_;
    std::atomic<std::thread::id> runner_{};
};

}  // namespace tw::linuxp
