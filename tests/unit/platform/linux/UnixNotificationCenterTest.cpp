#include "platform/linux/UnixNotificationCenter.h"

#include <gtest/gtest.h>

#include "LoopThread.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using tw::NotificationUserInfo;
using tw::linuxp::UnixNotificationCenter;
using Inbox = std::vector<NotificationUserInfo>;

namespace {

std::vector<std::string> filesIn(const fs::path& folder) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

class UnixNotificationCenterTest : public testing::Test {
protected:
    fs::path dir(const std::string& name) const { return notifyDir_ / name; }
    tw::DistributedNotificationCenter::Observer into(Inbox& inbox) {
        return [&inbox](const std::string&, const NotificationUserInfo& userInfo) { inbox.push_back(userInfo); };
    }
    bool runUntilCount(Inbox& inbox, size_t n) { return loop_.runUntil([&] { return inbox.size() >= n; }, 5s); }
    void drain() { loop_.runUntil([] { return false; }, 20ms); }

    tw::test::TempDir root_{"tw-notify"};
    fs::path notifyDir_ = root_.path() / std::string(120, 'd') / std::string(120, 'e') / "run" / "notify";  // a deep root
    tw::linuxp::AsioRunLoop loop_;
    UnixNotificationCenter center_{notifyDir_.string() + "/"};  // the same folder, spelled another way
};

}  // namespace

TEST_F(UnixNotificationCenterTest, ObserverThatRemovesItselfOrThrowsIsHandledAndDestroyingTheCenterRetiresEveryMarker) {
    Inbox witness;
    int selfCalls = 0, throwingCalls = 0;
    {
        UnixNotificationCenter center(notifyDir_.string());
        uint64_t selfId = 0;
        // One removes itself from inside its own call, one throws.
        selfId = center.addObserver("com.tw.topic", [&](auto&, auto&) { ++selfCalls, center.removeObserver(selfId); }, loop_);
        center.addObserver("com.tw.topic", [&](auto&, auto&) { ++throwingCalls, throw std::runtime_error("broke"); }, loop_);
        center.addObserver("com.tw.topic", into(witness), loop_);
        center_.postNotification("com.tw.topic", {{"n", "1"}});  // both queued on every socket before the loop runs
        center_.postNotification("com.tw.topic", {{"n", "2"}});
        EXPECT_TRUE(runUntilCount(witness, 2));
        drain();
        EXPECT_EQ(std::pair(selfCalls, throwingCalls), std::pair(1, 2));
    }
    EXPECT_TRUE(filesIn(dir("com.tw.topic")).empty());
    center_.postNotification("com.tw.topic", {});
    drain();
    EXPECT_EQ(witness.size(), 2u);
}

TEST_F(UnixNotificationCenterTest, RemovalFromAnotherThreadWaitsForARunningCallAndNoneStartsAfterIt) {
    std::atomic<bool> posting{true}, removed{false};
    std::atomic<int> calls{0}, late{0}, inside{0};
    tw::test::LoopThread thread;
    std::thread poster([&] { while (posting) center_.postNotification("com.tw.flood", {{"text", "again"}}); });
    for (int round = 0; round < 20; ++round) {
        calls = 0, removed = false;
        const uint64_t id = center_.addObserver("com.tw.flood", [&](auto&, auto&) {
            late += removed.load(), ++inside, std::this_thread::sleep_for(500us), --inside, ++calls;
        }, thread.loop());
        EXPECT_TRUE(tw::test::eventually([&] { return calls >= 1 + round % 5; }));
        center_.removeObserver(id);
        removed = true;
        EXPECT_EQ(inside, 0) << "removeObserver() returned during a call, round " << round;
        thread.loop().postAndWait([] {});  // whatever was already read has been handled
    }
    posting = false, poster.join();
    EXPECT_EQ(late, 0);
    EXPECT_TRUE(filesIn(dir("com.tw.flood")).empty());
}

TEST_F(UnixNotificationCenterTest, NamesThatCannotBeFolderNamesAreRefusedAndAPostSweepsMarkersOfVanishedObservers) {
    Inbox inbox;
    for (const std::string& name : std::vector<std::string>{"", ".", "..", "a/b", "../x", std::string("nul\0name", 8)})
        EXPECT_EQ(center_.addObserver(name, into(inbox), loop_), 0u) << name;
    center_.postNotification("com.tw.sweep", {{"text", "hello"}});  // no observer: no folder either
    EXPECT_FALSE(fs::exists(notifyDir_.parent_path())) << "a refused name or a post left a folder behind";
    UnixNotificationCenter plain(notifyDir_.string());  // the post comes from a center spelling the folder otherwise
    ASSERT_NE(plain.addObserver("com.tw.sweep", into(inbox), loop_), 0u);
    auto expected = filesIn(dir("com.tw.sweep"));
    expected.push_back("README");
    // No process binds these: pid_max is at most 4194304.
    for (const char* file : {"4194399.1", "4194399.2", "README"}) tw::test::writeFile(dir("com.tw.sweep") / file, "");
    const NotificationUserInfo largest{{"ключ", "✓"}, {"t", std::string(59 * 1024, 'x')}};
    center_.postNotification("com.tw.sweep", largest);
    EXPECT_EQ(filesIn(dir("com.tw.sweep")), expected);
    EXPECT_TRUE(runUntilCount(inbox, 1));
    drain();
    EXPECT_EQ(inbox, Inbox{largest}) << "the largest notification did not arrive whole, or only once";
}
