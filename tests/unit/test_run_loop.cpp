#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/RunLoop.h"
#include "platform/linux/AsioRunLoop.h"

using namespace std::chrono_literals;
using tw::RunLoop;
using tw::linuxp::AsioRunLoop;

namespace {

constexpr auto kPatience = 5s;  // upper bound only; every wait below ends as soon as it can

// Runs a loop on its own thread for the lifetime of the object.
class LoopThread {
public:
    explicit LoopThread(AsioRunLoop& loop) : loop_(loop) {
        std::promise<std::thread::id> started;
        auto startedFuture = started.get_future();
        loop_.post([&] { started.set_value(std::this_thread::get_id()); });
        thread_ = std::thread([this] { loop_.run(); });
        id_ = startedFuture.get();
    }
    ~LoopThread() {
        loop_.stop();
        thread_.join();
    }
    std::thread::id id() const { return id_; }

private:
    AsioRunLoop& loop_;
    std::thread thread_;
    std::thread::id id_;
};

}  // namespace

// --- Posting -----------------------------------------------------------------------------------

TEST(RunLoopPost, TasksRunInPostingOrderOnTheRunningThread) {
    AsioRunLoop loop;
    std::vector<int> order;
    std::vector<bool> current;
    for (int i = 0; i < 20; ++i)
        loop.post([&, i] {
            order.push_back(i);
            current.push_back(loop.isCurrent());
        });
    ASSERT_TRUE(loop.runUntil([&] { return order.size() == 20; }, kPatience));
    for (int i = 0; i < 20; ++i) EXPECT_EQ(order[i], i);
    for (bool c : current) EXPECT_TRUE(c);
}

TEST(RunLoopPost, PostsFromManyThreadsAllRunAndKeepPerThreadOrder) {
    AsioRunLoop loop;
    constexpr int kThreads = 4, kEach = 200;
    std::vector<std::vector<int>> seen(kThreads);
    std::atomic<int> total{0};
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t)
        posters.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) loop.post([&, t, i] {
                    seen[t].push_back(i);
                    ++total;
                });
        });
    for (auto& p : posters) p.join();
    ASSERT_TRUE(loop.runUntil([&] { return total == kThreads * kEach; }, kPatience));
    for (auto& list : seen) {
        ASSERT_EQ(list.size(), size_t(kEach));
        for (int i = 0; i < kEach; ++i) EXPECT_EQ(list[i], i);
    }
}

TEST(RunLoopPost, ThrowingTaskIsReportedAndTheLoopCarriesOn) {
    AsioRunLoop loop;
    bool after = false;
    testing::internal::CaptureStderr();
    loop.post([] { throw std::runtime_error("boom-in-task"); });
    loop.post([&] { after = true; });
    const bool done = loop.runUntil([&] { return after; }, kPatience);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(done);
    EXPECT_NE(err.find("boom-in-task"), std::string::npos) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
}

// --- postAndWait ---------------------------------------------------------------------------------

TEST(RunLoopPostAndWait, FromAWorkerRunsOnTheLoopThreadAndBlocksUntilDone) {
    AsioRunLoop loop;
    LoopThread runner(loop);
    std::thread::id ranOn;
    bool finished = false;
    std::thread worker([&] {
        loop.postAndWait([&] {
            std::this_thread::sleep_for(20ms);
            ranOn = std::this_thread::get_id();
            finished = true;
        });
        // Only reachable once the task has completed.
        EXPECT_TRUE(finished);
    });
    worker.join();
    EXPECT_TRUE(finished);
    EXPECT_EQ(ranOn, runner.id());
    EXPECT_FALSE(loop.isCurrent());
}

TEST(RunLoopPostAndWait, OnTheLoopThreadRunsInlineBeforeQueuedTasks) {
    AsioRunLoop loop;
    std::vector<std::string> order;
    loop.post([&] {
        loop.post([&] { order.push_back("queued"); });
        loop.postAndWait([&] { order.push_back("inline"); });
        order.push_back("after");
    });
    ASSERT_TRUE(loop.runUntil([&] { return order.size() == 3; }, kPatience));
    EXPECT_EQ(order, (std::vector<std::string>{"inline", "after", "queued"}));
}

TEST(RunLoopPostAndWait, WorkerWaitsWhileTheTestThreadRunsTheLoopWithRunUntil) {
    AsioRunLoop loop;
    bool ran = false;
    std::thread::id ranOn;
    std::thread worker([&] {
        loop.postAndWait([&] {
            ranOn = std::this_thread::get_id();
            ran = true;
        });
    });
    ASSERT_TRUE(loop.runUntil([&] { return ran; }, kPatience));
    worker.join();  // returns because the task has run
    EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(RunLoopPostAndWait, ExceptionReachesTheCallerAndTheLoopKeepsRunning) {
    AsioRunLoop loop;
    LoopThread runner(loop);
    std::thread worker([&] {
        EXPECT_THROW(loop.postAndWait([] { throw std::runtime_error("nope"); }), std::runtime_error);
        int value = 0;
        loop.postAndWait([&] { value = 7; });
        EXPECT_EQ(value, 7);
    });
    worker.join();
}

TEST(RunLoopPostAndWait, StopReleasesWaitingCallersWithoutRunningTheirTasks) {
    auto loop = std::make_shared<AsioRunLoop>();
    std::atomic<bool> ran{false};
    std::atomic<int> returned{0};
    std::vector<std::thread> workers;
    for (int i = 0; i < 3; ++i)
        workers.emplace_back([&] {
            loop->postAndWait([&] { ran = true; });
            ++returned;
        });
    std::this_thread::sleep_for(30ms);  // let the workers queue their tasks; the outcome is the same if not
    loop->stop();
    for (auto& w : workers) w.join();
    EXPECT_EQ(returned, 3);

    // A caller arriving on the stopped loop does not wait either.
    std::thread late([&] { loop->postAndWait([&] { ran = true; }); });
    late.join();

    // The dropped tasks stay dropped when the loop runs again.
    loop->runUntil([] { return false; }, 30ms);
    EXPECT_FALSE(ran);
}

// --- Timers ---------------------------------------------------------------------------------------

TEST(RunLoopTimer, OneShotFiresOnceNotBeforeItsFireDateThenIsInvalid) {
    AsioRunLoop loop;
    const auto fireDate = RunLoop::Clock::now() + 40ms;
    int fired = 0;
    RunLoop::Clock::time_point firedAt;
    auto timer = loop.scheduleTimer(fireDate, 0s, [&](RunLoop::Timer& t) {
        ++fired;
        firedAt = RunLoop::Clock::now();
        EXPECT_EQ(t.fireDate(), fireDate);
    });
    EXPECT_TRUE(timer->isValid());
    EXPECT_EQ(timer->fireDate(), fireDate);
    ASSERT_TRUE(loop.runUntil([&] { return fired > 0; }, kPatience));
    EXPECT_GE(firedAt, fireDate);
    loop.runUntil([] { return false; }, 60ms);
    EXPECT_EQ(fired, 1);
    EXPECT_FALSE(timer->isValid());
}

TEST(RunLoopTimer, RepeatingFiresUntilInvalidatedFromItsCallback) {
    AsioRunLoop loop;
    const auto start = RunLoop::Clock::now();
    std::vector<RunLoop::Clock::time_point> dates;
    auto timer = loop.scheduleTimer(start + 5ms, 10ms, [&](RunLoop::Timer& t) {
        dates.push_back(t.fireDate());
        if (dates.size() == 3) t.invalidate();
    });
    ASSERT_TRUE(loop.runUntil([&] { return dates.size() == 3; }, kPatience));
    EXPECT_FALSE(timer->isValid());
    loop.runUntil([] { return false; }, 50ms);
    EXPECT_EQ(dates.size(), 3u);
    // Each fire moved the fire date forward by at least one interval.
    EXPECT_EQ(dates[0], start + 5ms);
    EXPECT_GE(dates[1] - dates[0], 10ms);
    EXPECT_GE(dates[2] - dates[1], 10ms);
}

TEST(RunLoopTimer, InvalidatedBeforeItsFireDateNeverFires) {
    AsioRunLoop loop;
    int fired = 0;
    auto timer = loop.scheduleTimer(RunLoop::Clock::now() + 10ms, 5ms, [&](RunLoop::Timer&) { ++fired; });
    timer->invalidate();
    EXPECT_FALSE(timer->isValid());
    loop.runUntil([] { return false; }, 40ms);
    EXPECT_EQ(fired, 0);
}

TEST(RunLoopTimer, InvalidateFromAnotherThreadStopsARepeatingTimer) {
    AsioRunLoop loop;
    std::atomic<int> fired{0};
    std::shared_ptr<RunLoop::Timer> timer;
    {
        LoopThread runner(loop);
        timer = loop.scheduleTimer(RunLoop::Clock::now(), 2ms, [&](RunLoop::Timer&) { ++fired; });
        const auto until = std::chrono::steady_clock::now() + kPatience;
        while (fired < 3 && std::chrono::steady_clock::now() < until) std::this_thread::sleep_for(1ms);
        ASSERT_GE(fired, 3);
        timer->invalidate();
        const int atInvalidate = fired;
        std::this_thread::sleep_for(30ms);
        EXPECT_EQ(fired, atInvalidate);
    }
    EXPECT_FALSE(timer->isValid());
}

TEST(RunLoopTimer, PastFireDateFiresPromptlyAndThrowingCallbackKeepsRepeating) {
    AsioRunLoop loop;
    int fired = 0;
    testing::internal::CaptureStderr();
    auto timer = loop.scheduleTimer(RunLoop::Clock::now() - 1h, 1ms, [&](RunLoop::Timer&) {
        ++fired;
        throw std::runtime_error("timer-boom");
    });
    const bool done = loop.runUntil([&] { return fired >= 3; }, kPatience);
    timer->invalidate();
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(done);
    EXPECT_NE(err.find("timer-boom"), std::string::npos);
    // Missed fires are skipped, not replayed: the next date is in the future, not an hour back.
    EXPECT_GT(timer->fireDate(), RunLoop::Clock::now() - 1s);
}

TEST(RunLoopTimer, TimerOutlivingItsLoopIsHarmless) {
    std::shared_ptr<RunLoop::Timer> timer;
    {
        AsioRunLoop loop;
        timer = loop.scheduleTimer(RunLoop::Clock::now() + 1h, 1s, [](RunLoop::Timer&) {});
        EXPECT_TRUE(timer->isValid());
    }
    EXPECT_FALSE(timer->isValid());
    timer->invalidate();
}

// --- Running ----------------------------------------------------------------------------------------

TEST(RunLoopRunUntil, TimeoutReturnsFalseAfterTheTimeout) {
    AsioRunLoop loop;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(loop.runUntil([] { return false; }, 30ms));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
}

TEST(RunLoopRunUntil, ChecksDoneFirstAndAfterEveryHandlerAndCanBeResumed) {
    AsioRunLoop loop;
    std::vector<int> ran;
    loop.post([&] { ran.push_back(1); });
    loop.post([&] { ran.push_back(2); });
    loop.post([&] { ran.push_back(3); });

    // Already done: nothing runs.
    EXPECT_TRUE(loop.runUntil([] { return true; }, kPatience));
    EXPECT_TRUE(ran.empty());

    // Stops right after the handler that makes it done.
    EXPECT_TRUE(loop.runUntil([&] { return ran.size() == 1; }, kPatience));
    EXPECT_EQ(ran, std::vector<int>{1});

    // The next call picks up where the last one left off.
    EXPECT_TRUE(loop.runUntil([&] { return ran.size() == 3; }, kPatience));
    EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
}

TEST(RunLoopRunUntil, StopEndsItAndTheLoopRunsAgainAfterwards) {
    AsioRunLoop loop;
    loop.post([&] { loop.stop(); });
    EXPECT_FALSE(loop.runUntil([] { return false; }, kPatience));

    bool ran = false;
    loop.post([&] { ran = true; });
    EXPECT_TRUE(loop.runUntil([&] { return ran; }, kPatience));
}

TEST(RunLoopRun, RunsUntilStoppedFromAnotherThreadAndCanRunAgain) {
    AsioRunLoop loop;
    for (int round = 0; round < 2; ++round) {
        std::atomic<int> ran{0};
        std::thread stopper;
        // Started from inside the run: a caller arriving while the loop is stopped would not wait.
        loop.post([&] {
            stopper = std::thread([&] {
                loop.postAndWait([&] { ++ran; });
                loop.stop();
            });
        });
        loop.run();
        stopper.join();
        EXPECT_EQ(ran, 1) << "round " << round;
    }
}

TEST(RunLoopRun, IsCurrentFollowsTheThreadThatRunsIt) {
    AsioRunLoop loop;
    EXPECT_TRUE(loop.isCurrent());  // the creating thread owns it until another thread runs it
    std::atomic<bool> currentInside{false};
    {
        LoopThread runner(loop);
        loop.postAndWait([&] { currentInside = loop.isCurrent(); });
        EXPECT_FALSE(loop.isCurrent());
        std::thread other([&] { EXPECT_FALSE(loop.isCurrent()); });
        other.join();
    }
    EXPECT_TRUE(currentInside);
}

// --- The process's main loop ----------------------------------------------------------------------

TEST(RunLoopMain, InstalledLoopIsReturnedAndAMissingOneThrows) {
    RunLoop::setMain(nullptr);
    EXPECT_FALSE(RunLoop::hasMain());
    EXPECT_THROW(RunLoop::main(), std::logic_error);

    auto loop = std::make_shared<AsioRunLoop>();
    RunLoop::setMain(loop);
    EXPECT_TRUE(RunLoop::hasMain());
    EXPECT_EQ(&RunLoop::main(), loop.get());

    RunLoop::setMain(nullptr);
    EXPECT_FALSE(RunLoop::hasMain());
    EXPECT_EQ(loop.use_count(), 1);  // released by the slot
}
