#include "platform/linux/AsioRunLoop.h"
#include "core/Diagnostics.h"

#include <asio/post.hpp>
#include <asio/system_timer.hpp>
#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <exception>

namespace tw::linuxp {

namespace {

void reportHandlerFailure(const char* what) {
    diagnostic("run loop handler failed: %s", what);
}

// Runs one handler; a failure is reported and the loop carries on.
template <typename F>
void runGuarded(F&& handler) {
    try {
        handler();
    } catch (const std::exception& e) {
        reportHandlerFailure(e.what());
    } catch (...) {
        reportHandlerFailure("unknown exception");
    }
}

RunLoop::Clock::duration toClockInterval(std::chrono::duration<double> interval) {
    const double seconds = interval.count();
    if (!(seconds > 0)) return RunLoop::Clock::duration::zero();  // also NaN: fires once
    // About three centuries: "effectively never again" without overflowing the clock.
    constexpr double kLongest = 1e10;
    const auto ticks = std::chrono::duration_cast<RunLoop::Clock::duration>(
        std::chrono::duration<double>(std::min(seconds, kLongest)));
    return std::max(ticks, RunLoop::Clock::duration(1));
}

}  // namespace

struct AsioRunLoop::WaitSync {
    std::mutex mutex;
    std::condition_variable changed;
    // Set by stop() and the destructor, cleared when the loop runs again.
    bool closed = false;
};

class AsioRunLoop::TimerImpl final : public RunLoop::Timer, public std::enable_shared_from_this<TimerImpl> {
public:
    TimerImpl(asio::io_context& context, Clock::time_point fireDate, Clock::duration interval,
              TimerCallback callback)
        : timer_(std::in_place, context), fireDate_(fireDate), interval_(interval), callback_(std::move(callback)) {}

    void start() {
        std::lock_guard lock(mutex_);
        armLocked();
    }

    // Safe from any thread. Waits for a callback running on the loop thread to return, so no
    // callback starts after this returns.
    void invalidate() override {
        std::lock_guard lock(mutex_);
        valid_ = false;
        if (timer_) timer_->cancel();
    }

    bool isValid() const override { return valid_; }

    Clock::time_point fireDate() const override {
        std::lock_guard lock(mutex_);
        return fireDate_;
    }

    // The loop is going away: drop the Asio timer while its io_context still exists.
    void detach() {
        std::lock_guard lock(mutex_);
        valid_ = false;
        timer_.reset();
    }

private:
    void armLocked() {
        timer_->expires_at(fireDate_);
        timer_->async_wait([self = shared_from_this()](const asio::error_code& error) { self->fired(error); });
    }

    void fired(const asio::error_code& error) {
        // Held across the callback so invalidate() from another thread cannot race it; recursive
        // so the callback may invalidate its own timer.
        std::lock_guard lock(mutex_);
        if (error == asio::error::operation_aborted || !valid_ || !timer_) return;
        if (callback_) runGuarded([&] { callback_(*this); });
        if (!valid_ || !timer_) return;
        if (interval_ <= Clock::duration::zero()) {
            valid_ = false;
            return;
        }
        // Fires that were missed while the loop was busy are skipped, not queued up.
        const auto now = Clock::now();
        auto next = fireDate_ + interval_;
        if (next <= now) next = fireDate_ + ((now - fireDate_) / interval_ + 1) * interval_;
        fireDate_ = next;
        armLocked();
    }

    mutable std::recursive_mutex mutex_;
    std::optional<asio::system_timer> timer_;
    Clock::time_point fireDate_;
    const Clock::duration interval_;
    TimerCallback callback_;
    std::atomic<bool> valid_{true};
};

AsioRunLoop::AsioRunLoop()
    : work_(std::in_place, context_.get_executor()),
      runner_(std::this_thread::get_id()),
      sync_(std::make_shared<WaitSync>()) {}

AsioRunLoop::~AsioRunLoop() {
    {
        std::lock_guard lock(sync_->mutex);
        sync_->closed = true;
    }
    sync_->changed.notify_all();

    std::vector<std::shared_ptr<TimerImpl>> live;
    {
        std::lock_guard lock(timersMutex_);
        for (auto& weak : timers_)
            if (auto timer = weak.lock()) live.push_back(std::move(timer));
        timers_.clear();
    }
    for (auto& timer : live) timer->detach();
    live.clear();

    work_.reset();
    context_.stop();
    // Handlers still queued are destroyed, without running, with context_.
}

void AsioRunLoop::post(Task task) {
    asio::post(context_, [task = std::move(task)] { runGuarded(task); });
}

void AsioRunLoop::postAndWait(Task task) {
    if (isCurrent()) {
        task();
        return;
    }

    enum class State { Pending, Running, Done, Abandoned };
    struct Call {
        State state = State::Pending;
        std::exception_ptr error;
    };
    auto call = std::make_shared<Call>();
    auto sync = sync_;
    {
        std::lock_guard lock(sync->mutex);
        if (sync->closed) return;
    }

    asio::post(context_, [sync, call, task = std::move(task)] {
        {
            std::lock_guard lock(sync->mutex);
            if (call->state == State::Abandoned) return;
            call->state = State::Running;
        }
        std::exception_ptr error;
        try {
            task();
        } catch (...) {
            error = std::current_exception();
        }
        {
            std::lock_guard lock(sync->mutex);
            call->state = State::Done;
            call->error = error;
        }
        sync->changed.notify_all();
    });

    std::unique_lock lock(sync->mutex);
    sync->changed.wait(lock, [&] {
        return call->state == State::Done || (sync->closed && call->state == State::Pending);
    });
    if (call->state != State::Done) {
        call->state = State::Abandoned;
        return;
    }
    if (call->error) std::rethrow_exception(call->error);
}

std::shared_ptr<RunLoop::Timer> AsioRunLoop::scheduleTimer(Clock::time_point fireDate,
                                                           std::chrono::duration<double> interval,
                                                           TimerCallback callback) {
    auto timer = std::make_shared<TimerImpl>(context_, fireDate, toClockInterval(interval), std::move(callback));
    {
        std::lock_guard lock(timersMutex_);
        std::erase_if(timers_, [](const std::weak_ptr<TimerImpl>& weak) { return weak.expired(); });
        timers_.push_back(timer);
    }
    timer->start();
    return timer;
}

bool AsioRunLoop::isCurrent() const { return runner_.load() == std::this_thread::get_id(); }

void AsioRunLoop::beginRun() {
    runner_ = std::this_thread::get_id();
    {
        std::lock_guard lock(sync_->mutex);
        sync_->closed = false;
    }
    // A stop() that ended an earlier run must not end this one.
    if (context_.stopped()) context_.restart();
}

void AsioRunLoop::run() {
    beginRun();
    for (;;) {
        // Asio lets an exception from a handler escape run(); run() may be resumed afterwards.
        try {
            context_.run();
            return;
        } catch (const std::exception& e) {
            reportHandlerFailure(e.what());
        } catch (...) {
            reportHandlerFailure("unknown exception");
        }
    }
}

bool AsioRunLoop::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    beginRun();
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (done()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::size_t ran = 0;
        try {
            ran = context_.run_one_until(deadline);
        } catch (const std::exception& e) {
            reportHandlerFailure(e.what());
            ran = 1;
        } catch (...) {
            reportHandlerFailure("unknown exception");
            ran = 1;
        }
        if (ran == 0 && context_.stopped()) return done();
    }
}

void AsioRunLoop::stop() {
    {
        std::lock_guard lock(sync_->mutex);
        sync_->closed = true;
    }
    sync_->changed.notify_all();
    context_.stop();
}

}  // namespace tw::linuxp
