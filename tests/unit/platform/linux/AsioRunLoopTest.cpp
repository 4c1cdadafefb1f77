#include "platform/linux/AsioRunLoop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "LoopThread.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using tw::RunLoop;
using tw::linuxp::AsioRunLoop;

static constexpr auto kPatience = 5s;  // an upper bound for a slow machine; waits end as soon as they can

TEST(AsioRunLoop, PostedTasksRunInOrderPostAndWaitOnTheLoopRunsInlineAndAThrowIsReported) {
    AsioRunLoop loop;
    std::vector<std::string> order;
    loop.post([&] {
        order.push_back("first");
        loop.post([&] { order.push_back("queued"); });
        loop.postAndWait([&] { order.push_back(loop.isCurrent() ? "inline" : "elsewhere"); });
    });
    loop.post([] { throw std::runtime_error("boom-in-task"); });
    loop.post([&] { order.push_back("second"); });
    testing::internal::CaptureStderr();
    EXPECT_TRUE(loop.runUntil([&] { return order.size() == 4; }, kPatience));
    EXPECT_NE(testing::internal::GetCapturedStderr().find("boom-in-task"), std::string::npos);
    EXPECT_EQ(order, (std::vector<std::string>{"first", "inline", "second", "queued"}));
}

TEST(AsioRunLoop, PostAndWaitFromAnotherThreadWaitsForTheLoopAndStopReleasesItWithoutRunningTheTask) {
    AsioRunLoop loop;
    std::atomic<bool> dropped{false}, onLoop{false};
    std::vector<std::thread> workers;
    for (int i = 0; i < 3; ++i) workers.emplace_back([&] { loop.postAndWait([&] { dropped = true; }); });
    std::this_thread::sleep_for(30ms);  // lets the workers queue their tasks; the outcome is the same if not
    loop.stop();
    for (auto& w : workers) w.join();
    std::thread([&] { loop.postAndWait([&] { dropped = true; }); }).join();  // on a stopped loop: no wait
    // The loop runs again; a caller started from inside that run (one arriving while the loop is still
    // stopped would not wait) gets its task run there, and what it throws.
    std::thread late;
    loop.post([&] {
        late = std::thread([&] {
            EXPECT_THROW(loop.postAndWait([&] {
                onLoop = loop.isCurrent();
                throw std::runtime_error("nope");
            }), std::runtime_error);
        });
    });
    EXPECT_TRUE(loop.runUntil([&] { return onLoop.load(); }, kPatience));
    late.join();
    EXPECT_FALSE(dropped);
}

TEST(AsioRunLoop, RunUntilChecksDoneFirstAndAfterEveryHandlerAndEndsOnStop) {
    AsioRunLoop loop;
    std::vector<int> ran;
    for (int i = 1; i <= 3; ++i) loop.post([&, i] { ran.push_back(i); });
    EXPECT_TRUE(loop.runUntil([] { return true; }, kPatience));
    EXPECT_TRUE(ran.empty());
    EXPECT_TRUE(loop.runUntil([&] { return ran.size() == 1; }, kPatience));
    EXPECT_TRUE(loop.runUntil([&] { return ran.size() == 3; }, kPatience));
    EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
    loop.post([&] { loop.stop(); });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(loop.runUntil([] { return false; }, kPatience));
    EXPECT_LT(std::chrono::steady_clock::now() - start, kPatience) << "stop() did not end the run";
}

TEST(AsioRunLoopTimer, FiresNotBeforeItsDateRepeatsOnlyWithAPositiveIntervalAndDiesWithItsLoop) {
    const struct {
        const char* name;
        double interval;
        bool repeats;
    } cases[] = {{"zero", 0, false}, {"negative", -1, false}, {"NaN", std::nan(""), false}, {"decades", 1e9, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto fireDate = RunLoop::Clock::now() + 20ms;
        std::vector<RunLoop::Clock::time_point> fired;
        std::shared_ptr<RunLoop::Timer> timer;
        {
            AsioRunLoop loop;
            timer = loop.scheduleTimer(fireDate, std::chrono::duration<double>(c.interval),
                                       [&](RunLoop::Timer&) { fired.push_back(RunLoop::Clock::now()); });
            EXPECT_TRUE(loop.runUntil([&] { return !fired.empty(); }, kPatience));
            loop.runUntil([] { return false; }, 30ms);
            EXPECT_EQ(timer->isValid(), c.repeats);
            EXPECT_TRUE(!c.repeats || timer->fireDate() > RunLoop::Clock::now() + std::chrono::hours(24 * 365 * 30));
        }
        ASSERT_EQ(fired.size(), 1u);
        EXPECT_GE(fired[0], fireDate);
        EXPECT_FALSE(timer->isValid());  // a timer outliving its loop is harmless
        timer->invalidate();
    }
}

TEST(AsioRunLoopTimer, RepeatingTimerSkipsMissedFiresSurvivesThrowsAndInvalidateWaitsForItsRunningCallback) {
    std::atomic<int> fired{0};
    std::atomic<bool> inside{false}, finished{false};
    std::atomic<RunLoop::Clock::time_point> secondDate{};
    tw::test::LoopThread runner;  // stops before the state above goes away
    testing::internal::CaptureStderr();
    auto timer = runner.loop().scheduleTimer(RunLoop::Clock::now() - 1h, 2ms, [&](RunLoop::Timer& t) {
        if (++fired == 2) secondDate = t.fireDate();
        if (fired < 3) throw std::runtime_error("timer-boom");
        inside = true;
        std::this_thread::sleep_for(30ms);
        finished = true;
    });
    EXPECT_TRUE(tw::test::eventually([&] { return inside.load(); }));
    timer->invalidate();  // from this thread, while the callback runs on the loop's
    EXPECT_TRUE(finished) << "invalidate() returned while the callback was still running";
    EXPECT_NE(testing::internal::GetCapturedStderr().find("timer-boom"), std::string::npos);
    EXPECT_GT(secondDate.load(), RunLoop::Clock::now() - 1s) << "missed fires were replayed";
    const int atInvalidate = fired;
    std::this_thread::sleep_for(20ms);
    runner.loop().postAndWait([] {});
    EXPECT_EQ(fired, atInvalidate);
    EXPECT_FALSE(timer->isValid());
}
