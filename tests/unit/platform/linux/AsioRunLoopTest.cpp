#include "platform/linux/AsioRunLoop.h"

#include <gtest/gtest.h>

#include <cmath>

#include "LoopThread.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using tw::RunLoop;
using tw::linuxp::AsioRunLoop;

static constexpr auto kPatience = 5s;  // an upper bound for a slow machine; waits end as soon as they can

TEST(AsioRunLoop, RunUntilRunsPostedTasksInOrderOneAtATimeUntilDoneOrStoppedPastAThrow) {
    AsioRunLoop loop;
    std::vector<std::string> order;
    loop.post([&] {  // a task it posts waits its turn, one it posts and waits for runs at once
        order.push_back("first"), loop.post([&] { order.push_back("queued"); });
        loop.postAndWait([&] { order.push_back(loop.isCurrent() ? "inline" : "elsewhere"); });
    });
    loop.post([] { throw std::runtime_error("boom-in-task"); });
    loop.post([&] { order.push_back("second"); });
    EXPECT_TRUE(loop.runUntil([] { return true; }, kPatience) && order.empty()) << "a task ran though the loop was done first";
    EXPECT_TRUE(loop.runUntil([&] { return !order.empty(); }, kPatience));
    EXPECT_EQ(order.size(), 2u) << "more than one task ran before done() was asked again";
    EXPECT_TRUE(loop.runUntil([&] { return order.size() == 4; }, kPatience));
    EXPECT_EQ(order, (std::vector<std::string>{"first", "inline", "second", "queued"}));
    loop.post([&] { loop.stop(); });
    loop.post([&] { order.push_back("after stop"); });
    EXPECT_FALSE(loop.runUntil([] { return false; }, kPatience));
    EXPECT_EQ(order.size(), 4u) << "stop() did not end the run";
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
    // The loop runs again; a caller started from inside that run gets its task run there, and what it throws.
    const auto throwOnLoop = [&] { onLoop = loop.isCurrent(), throw std::runtime_error("nope"); };
    std::thread late;
    loop.post([&] { late = std::thread([&] { EXPECT_THROW(loop.postAndWait(throwOnLoop), std::runtime_error); }); });
    EXPECT_TRUE(loop.runUntil([&] { return onLoop.load(); }, kPatience));
    late.join();
    EXPECT_FALSE(dropped);
}

TEST(AsioRunLoopTimer, RepeatsOnlyWithAPositiveIntervalSkipsMissedFiresSurvivesThrowsAndInvalidateWaitsForItsRunningCallback) {
    std::atomic<int> fired{0}, once{0}, far{0};
    std::atomic<bool> inside{false}, finished{false};
    std::atomic<RunLoop::Clock::time_point> secondDate{};
    std::optional<tw::test::LoopThread> runner(std::in_place);  // stops before the state above goes away
    auto nan = runner->loop().scheduleTimer(RunLoop::Clock::now(), std::chrono::duration<double>(std::nan("")), [&](auto&) { ++once; });
    auto decades = runner->loop().scheduleTimer(RunLoop::Clock::now(), std::chrono::duration<double>(1e9), [&](auto&) { ++far; });
    EXPECT_TRUE(tw::test::eventually([&] { return once && far; }));
    EXPECT_TRUE(!nan->isValid() && decades->isValid()) << "only a positive interval repeats, NaN included";
    EXPECT_GT(decades->fireDate(), RunLoop::Clock::now() + std::chrono::hours(24 * 365 * 30)) << "a huge interval is capped, not lost";
    auto timer = runner->loop().scheduleTimer(RunLoop::Clock::now() - 1h, 2ms, [&](RunLoop::Timer& t) {
        if (++fired == 2) secondDate = t.fireDate();
        if (fired < 3) throw std::runtime_error("timer-boom");
        inside = true, std::this_thread::sleep_for(30ms), finished = true;
    });
    EXPECT_TRUE(tw::test::eventually([&] { return inside.load(); }));
    timer->invalidate();  // from this thread, while the callback runs on the loop's
    EXPECT_TRUE(finished) << "invalidate() returned while the callback was still running";
    EXPECT_GT(secondDate.load(), RunLoop::Clock::now() - 1s) << "missed fires were replayed";
    const int atInvalidate = fired;
    std::this_thread::sleep_for(20ms);  // room for a fire that should not come
    runner->loop().postAndWait([] {});
    EXPECT_EQ(fired, atInvalidate);
    EXPECT_FALSE(timer->isValid());
    runner.reset();
    EXPECT_FALSE(decades->isValid());  // a timer outliving its loop is harmless
    decades->invalidate();
}
