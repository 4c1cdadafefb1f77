#include <gtest/gtest.h>
#include <plist/plist.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"
#include "platform/linux/AsioRunLoop.h"
#include "platform/linux/UnixMessagePorts.h"
#include "platform/linux/UnixNotificationCenter.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using tw::NotificationUserInfo;
using tw::RunLoop;
using tw::linuxp::abstractSocketName;
using tw::linuxp::AsioRunLoop;
using tw::linuxp::UnixNotificationCenter;

namespace {

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = 3s) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

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

struct Received {
    std::string name;
    NotificationUserInfo userInfo;
    std::thread::id thread;
};

// Collects what an observer is given; safe to read from any thread.
class Inbox {
public:
    tw::DistributedNotificationCenter::Observer observer() {
        return [this](const std::string& name, const NotificationUserInfo& userInfo) {
            std::lock_guard lock(mutex_);
            items_.push_back({name, userInfo, std::this_thread::get_id()});
        };
    }
    size_t size() {
        std::lock_guard lock(mutex_);
        return items_.size();
    }
    std::vector<Received> items() {
        std::lock_guard lock(mutex_);
        return items_;
    }
    bool waitFor(size_t count, std::chrono::milliseconds limit = 3s) {
        return eventually([&] { return size() >= count; }, limit);
    }

private:
    std::mutex mutex_;
    std::vector<Received> items_;
};

class ForeignLoop : public RunLoop {
public:
    void post(Task) override {}
    void postAndWait(Task task) override { task(); }
    std::shared_ptr<Timer> scheduleTimer(Clock::time_point, std::chrono::duration<double>, TimerCallback) override {
        return nullptr;
    }
    bool isCurrent() const override { return true; }
    void run() override {}
    bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds) override { return done(); }
    void stop() override {}
};

std::vector<std::string> markersIn(const fs::path& folder) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error))
        names.push_back(it->path().filename().string());
    return names;
}

// --- Raw datagrams, built and read without the center ------------------------------------------

struct PlistFree {
    void operator()(void* node) const { plist_free(node); }
};
using Plist = std::unique_ptr<void, PlistFree>;

std::string toBinary(plist_t node) {
    char* data = nullptr;
    uint32_t length = 0;
    plist_to_bin(node, &data, &length);
    std::string bytes(data, length);
    plist_to_bin_free(data);
    return bytes;
}

// A datagram as another process would write it: {"name": ..., "userInfo": {...}}.
std::string wireNotification(const std::string& name, const NotificationUserInfo& userInfo) {
    Plist root(plist_new_dict());
    plist_dict_set_item(root.get(), "name", plist_new_string(name.c_str()));
    plist_t info = plist_new_dict();
    for (const auto& [key, value] : userInfo) plist_dict_set_item(info, key.c_str(), plist_new_string(value.c_str()));
    plist_dict_set_item(root.get(), "userInfo", info);
    return toBinary(root.get());
}

sockaddr_un addressFor(const std::string& marker, socklen_t& length) {
    const std::string name = abstractSocketName(marker);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return address;
}

// Sends datagrams straight to a marker's address, waiting (boundedly) while the reader is behind.
class RawSender {
public:
    explicit RawSender(const std::string& marker) : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        address_ = addressFor(marker, length_);
        const timeval patience{3, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        const int room = 1 << 20;
        ::setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    }
    ~RawSender() { ::close(fd_); }
    bool send(const std::string& bytes) {
        return ::sendto(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address_),
                        length_) == static_cast<ssize_t>(bytes.size());
    }

private:
    int fd_;
    sockaddr_un address_;
    socklen_t length_ = 0;
};

// Stands in for an observer in another process: a marker plus a socket bound at its address.
class RawObserver {
public:
    RawObserver(const fs::path& folder, const std::string& markerName)
        : marker_((folder / markerName).string()), fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        socklen_t length;
        const sockaddr_un address = addressFor(marker_, length);
        bound_ = ::bind(fd_, reinterpret_cast<const sockaddr*>(&address), length) == 0;
        tw::test::writeFile(marker_, "");
    }
    ~RawObserver() { ::close(fd_); }
    bool bound() const { return bound_; }
    // The next datagram, or empty after the timeout.
    std::string receive(int timeoutMs = 3000) {
        pollfd entry{fd_, POLLIN, 0};
        if (::poll(&entry, 1, timeoutMs) != 1) return {};
        std::string buffer(128 * 1024, '\0');
        const ssize_t count = ::recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
        buffer.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return buffer;
    }

private:
    std::string marker_;
    int fd_;
    bool bound_ = false;
};

class NotificationCenterTest : public ::testing::Test {
protected:
    fs::path notifyDir() const { return root_.path() / "run" / "notify"; }
    // The marker of the only observer of `name`.
    std::string onlyMarker(const std::string& name) {
        auto markers = markersIn(notifyDir() / name);
        EXPECT_EQ(markers.size(), 1u);
        return markers.empty() ? std::string() : (notifyDir() / name / markers.front()).string();
    }

    tw::test::TempDir root_{"tw-notify"};
    AsioRunLoop loop_;
    UnixNotificationCenter center_{notifyDir().string()};
};

bool runUntilCount(AsioRunLoop& loop, Inbox& inbox, size_t count) {
    return loop.runUntil([&] { return inbox.size() >= count; }, 3s);
}

// --- Delivery ------------------------------------------------------------------------------------

TEST_F(NotificationCenterTest, EveryObserverOfTheNameGetsItOnItsOwnLoopAndOthersDoNot) {
    // Shared loops: the center keeps them alive for as long as it still reads on them, which here
    // is longer than this test body.
    auto loopA = std::make_shared<AsioRunLoop>(), loopB = std::make_shared<AsioRunLoop>();
    Inbox first, second, other;
    const uint64_t firstId = center_.addObserver("com.tw.ready", first.observer(), *loopA);
    const uint64_t secondId = center_.addObserver("com.tw.ready", second.observer(), *loopB);
    const uint64_t otherId = center_.addObserver("com.tw.other", other.observer(), *loopA);
    ASSERT_NE(firstId, 0u);
    ASSERT_NE(secondId, 0u);
    ASSERT_NE(otherId, 0u);
    EXPECT_EQ(std::set<uint64_t>({firstId, secondId, otherId}).size(), 3u);
    EXPECT_EQ(markersIn(notifyDir() / "com.tw.ready").size(), 2u);

    LoopThread threadA(*loopA), threadB(*loopB);
    const NotificationUserInfo info{{"text", "hello"}, {"empty", ""}, {"count", "3"}};
    center_.postNotification("com.tw.ready", info);
    ASSERT_TRUE(first.waitFor(1));
    ASSERT_TRUE(second.waitFor(1));

    // Same socket, so first come first served: a stray "ready" would arrive before this one.
    center_.postNotification("com.tw.other", {{"marker", "barrier"}});
    ASSERT_TRUE(other.waitFor(1));

    const auto a = first.items(), b = second.items(), o = other.items();
    ASSERT_EQ(a.size(), 1u);
    ASSERT_EQ(b.size(), 1u);
    ASSERT_EQ(o.size(), 1u);
    EXPECT_EQ(a[0].name, "com.tw.ready");
    EXPECT_EQ(a[0].userInfo, info);
    EXPECT_EQ(a[0].thread, threadA.id());
    EXPECT_EQ(b[0].name, "com.tw.ready");
    EXPECT_EQ(b[0].userInfo, info);
    EXPECT_EQ(b[0].thread, threadB.id());
    EXPECT_EQ(o[0].name, "com.tw.other");
    EXPECT_EQ(o[0].userInfo, (NotificationUserInfo{{"marker", "barrier"}}));
}

TEST_F(NotificationCenterTest, UnicodeNamesKeysAndTextsSurvive) {
    const std::string name = "com.tw.入力.ünï";
    const NotificationUserInfo info{{"text", "héllo wörld ✓ 日本語 🙂"},
                                    {"ключ", "значение"},
                                    {"combining", "e\xCC\x81"},
                                    {"ascii", "plain"}};
    Inbox inbox;
    ASSERT_NE(center_.addObserver(name, inbox.observer(), loop_), 0u);
    center_.postNotification(name, info);
    ASSERT_TRUE(runUntilCount(loop_, inbox, 1));
    EXPECT_EQ(inbox.items()[0].name, name);
    EXPECT_EQ(inbox.items()[0].userInfo, info);
}

TEST_F(NotificationCenterTest, LargeUserInfoArrivesWholeAndOversizedPostIsRefused) {
    Inbox inbox;
    ASSERT_NE(center_.addObserver("com.tw.big", inbox.observer(), loop_), 0u);

    std::string large(59 * 1024, 'x');
    for (size_t i = 0; i < large.size(); i += 97) large[i] = static_cast<char>('a' + i % 26);
    center_.postNotification("com.tw.big", {{"text", large}});
    ASSERT_TRUE(runUntilCount(loop_, inbox, 1));
    EXPECT_EQ(inbox.items()[0].userInfo.at("text"), large);

    testing::internal::CaptureStderr();
    center_.postNotification("com.tw.big", {{"text", std::string(61 * 1024, 'y')}});
    const std::string complaint = testing::internal::GetCapturedStderr();
    EXPECT_NE(complaint.find("com.tw.big"), std::string::npos) << complaint;
    EXPECT_EQ(std::count(complaint.begin(), complaint.end(), '\n'), 1) << complaint;

    center_.postNotification("com.tw.big", {{"text", "after"}});
    ASSERT_TRUE(runUntilCount(loop_, inbox, 2));
    loop_.runUntil([] { return false; }, 20ms);
    const auto items = inbox.items();
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[1].userInfo.at("text"), "after");
}

TEST_F(NotificationCenterTest, PostsFromManyThreadsAllArrive) {
    Inbox inbox;
    ASSERT_NE(center_.addObserver("com.tw.many", inbox.observer(), loop_), 0u);
    LoopThread thread(loop_);
    // At most eight in flight: below the smallest queue a reader gets by default.
    std::vector<std::thread> posters;
    for (int i = 0; i < 8; ++i)
        posters.emplace_back([this, i] { center_.postNotification("com.tw.many", {{"from", std::to_string(i)}}); });
    for (auto& poster : posters) poster.join();
    ASSERT_TRUE(inbox.waitFor(8));
    std::set<std::string> senders;
    for (const auto& item : inbox.items()) {
        senders.insert(item.userInfo.at("from"));
        EXPECT_EQ(item.thread, thread.id());
    }
    EXPECT_EQ(senders.size(), 8u);
}

TEST_F(NotificationCenterTest, PostingWithoutObserversLeavesNoTrace) {
    center_.postNotification("com.tw.nobody", {{"text", "hello"}});
    EXPECT_FALSE(fs::exists(notifyDir() / "com.tw.nobody"));
}

TEST_F(NotificationCenterTest, ObserversInAnotherProcessHearAndAnswerAndTheirLeftoversAreSwept) {
    int toParent[2];
    ASSERT_EQ(::pipe(toParent), 0);
    const std::string dir = notifyDir().string();

    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(toParent[0]);
        AsioRunLoop loop;
        // Never destroyed: the child leaves like a crashed process, marker and all.
        auto* center = new UnixNotificationCenter(dir);
        std::string heard;
        const uint64_t id = center->addObserver(
            "com.tw.ping",
            [&](const std::string&, const NotificationUserInfo& info) {
                heard = info.count("text") ? info.at("text") : "<no text>";
                center->postNotification("com.tw.pong", {{"echo", heard}});
            },
            loop);
        const char ready = id ? 'R' : 'F';
        if (::write(toParent[1], &ready, 1) != 1) ::_exit(2);
        loop.runUntil([&] { return !heard.empty(); }, 3s);
        if (!heard.empty() && ::write(toParent[1], heard.data(), heard.size()) < 0) ::_exit(2);
        ::_exit(heard.empty() ? 1 : 0);
    }
    ::close(toParent[1]);

    char ready = 0;
    pollfd entry{toParent[0], POLLIN, 0};
    ASSERT_EQ(::poll(&entry, 1, 3000), 1);
    ASSERT_EQ(::read(toParent[0], &ready, 1), 1);
    ASSERT_EQ(ready, 'R');

    Inbox pong;
    ASSERT_NE(center_.addObserver("com.tw.pong", pong.observer(), loop_), 0u);
    const std::string text = "from the parent ✓";
    center_.postNotification("com.tw.ping", {{"text", text}});
    ASSERT_TRUE(runUntilCount(loop_, pong, 1));
    EXPECT_EQ(pong.items()[0].userInfo, (NotificationUserInfo{{"echo", text}}));

    std::string heard;
    char buffer[256];
    for (ssize_t count; (count = ::read(toParent[0], buffer, sizeof buffer)) > 0;) heard.append(buffer, count);
    ::close(toParent[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(heard, text);

    // The child's marker outlived it; the next post finds nobody there and removes it.
    const auto left = markersIn(notifyDir() / "com.tw.ping");
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].rfind(std::to_string(child) + ".", 0), 0u) << left[0];
    center_.postNotification("com.tw.ping", {{"text", "anyone?"}});
    EXPECT_TRUE(markersIn(notifyDir() / "com.tw.ping").empty());
}

// --- Registration and removal --------------------------------------------------------------------

TEST_F(NotificationCenterTest, RemovedObserverGetsNothingAndItsMarkerIsGone) {
    Inbox removed, kept;
    const uint64_t removedId = center_.addObserver("com.tw.topic", removed.observer(), loop_);
    ASSERT_NE(removedId, 0u);
    ASSERT_NE(center_.addObserver("com.tw.topic", kept.observer(), loop_), 0u);
    const auto before = markersIn(notifyDir() / "com.tw.topic");
    ASSERT_EQ(before.size(), 2u);

    center_.removeObserver(removedId);
    const auto after = markersIn(notifyDir() / "com.tw.topic");
    ASSERT_EQ(after.size(), 1u);
    EXPECT_NE(std::find(before.begin(), before.end(), after[0]), before.end());
    center_.removeObserver(removedId);  // twice is harmless
    center_.removeObserver(987654);     // as is an id never handed out

    center_.postNotification("com.tw.topic", {{"text", "still here?"}});
    ASSERT_TRUE(runUntilCount(loop_, kept, 1));
    loop_.runUntil([] { return false; }, 20ms);
    EXPECT_EQ(removed.size(), 0u);
    EXPECT_EQ(kept.size(), 1u);
    EXPECT_EQ(markersIn(notifyDir() / "com.tw.topic").size(), 1u);  // the live one is not swept
}

TEST_F(NotificationCenterTest, ObserverThatRemovesItselfIsNotCalledAgain) {
    int calls = 0;
    uint64_t id = 0;
    id = center_.addObserver(
        "com.tw.once",
        [&](const std::string&, const NotificationUserInfo&) {
            ++calls;
            center_.removeObserver(id);
        },
        loop_);
    ASSERT_NE(id, 0u);
    Inbox witness;
    ASSERT_NE(center_.addObserver("com.tw.once", witness.observer(), loop_), 0u);

    // Both are queued on the first observer's socket before its loop runs.
    center_.postNotification("com.tw.once", {{"n", "1"}});
    center_.postNotification("com.tw.once", {{"n", "2"}});
    ASSERT_TRUE(runUntilCount(loop_, witness, 2));
    loop_.runUntil([] { return false; }, 20ms);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(markersIn(notifyDir() / "com.tw.once").size(), 1u);
}

TEST_F(NotificationCenterTest, RemovalFromAnotherThreadWaitsForARunningObserver) {
    std::atomic<bool> inside{false}, finished{false};
    std::atomic<int> calls{0};
    const uint64_t id = center_.addObserver(
        "com.tw.slow",
        [&](const std::string&, const NotificationUserInfo&) {
            ++calls;
            inside = true;
            std::this_thread::sleep_for(50ms);
            finished = true;
        },
        loop_);
    ASSERT_NE(id, 0u);
    LoopThread thread(loop_);

    center_.postNotification("com.tw.slow", {});
    center_.postNotification("com.tw.slow", {});  // queued behind the slow call
    ASSERT_TRUE(eventually([&] { return inside.load(); }));
    center_.removeObserver(id);
    EXPECT_TRUE(finished);

    center_.postNotification("com.tw.slow", {});
    std::this_thread::sleep_for(30ms);
    loop_.postAndWait([] {});
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(markersIn(notifyDir() / "com.tw.slow").empty());
}

TEST_F(NotificationCenterTest, NoCallAfterRemovalReturnsWhilePostsKeepComing) {
    LoopThread thread(loop_);
    std::atomic<bool> posting{true};
    std::thread poster([&] {
        while (posting) center_.postNotification("com.tw.flood", {{"text", "again"}});
    });
    for (int round = 0; round < 40; ++round) {
        std::atomic<bool> removed{false};
        std::atomic<int> calls{0}, late{0};
        const uint64_t id = center_.addObserver(
            "com.tw.flood",
            [&](const std::string&, const NotificationUserInfo&) {
                if (removed) ++late;
                ++calls;
            },
            loop_);
        ASSERT_NE(id, 0u);
        ASSERT_TRUE(eventually([&] { return calls >= 1 + round % 5; }));
        center_.removeObserver(id);
        removed = true;
        loop_.postAndWait([] {});  // whatever was already read has been handled
        EXPECT_EQ(late, 0) << "round " << round;
    }
    posting = false;
    poster.join();
    EXPECT_TRUE(markersIn(notifyDir() / "com.tw.flood").empty());
}

TEST_F(NotificationCenterTest, ThrowingObserverKeepsListening) {
    Inbox inbox;
    int calls = 0;
    ASSERT_NE(center_.addObserver(
                  "com.tw.throws",
                  [&](const std::string&, const NotificationUserInfo&) {
                      if (++calls == 1) throw std::runtime_error("first call fails");
                  },
                  loop_),
              0u);
    ASSERT_NE(center_.addObserver("com.tw.throws", inbox.observer(), loop_), 0u);
    testing::internal::CaptureStderr();
    center_.postNotification("com.tw.throws", {});
    center_.postNotification("com.tw.throws", {});
    const bool arrived = runUntilCount(loop_, inbox, 2) &&
                         loop_.runUntil([&] { return calls == 2; }, 3s);
    const std::string complaint = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(arrived);
    EXPECT_EQ(calls, 2);
    EXPECT_NE(complaint.find("first call fails"), std::string::npos) << complaint;
}

TEST(NotificationCenterLifetime, DestroyingTheCenterRemovesEveryMarker) {
    tw::test::TempDir root("tw-notify");
    const fs::path dir = root.path() / "notify";
    AsioRunLoop loop;
    Inbox inbox;
    {
        UnixNotificationCenter center(dir.string());
        ASSERT_NE(center.addObserver("com.tw.a", inbox.observer(), loop), 0u);
        ASSERT_NE(center.addObserver("com.tw.a", inbox.observer(), loop), 0u);
        ASSERT_NE(center.addObserver("com.tw.b", inbox.observer(), loop), 0u);
        EXPECT_EQ(markersIn(dir / "com.tw.a").size(), 2u);
    }
    EXPECT_TRUE(markersIn(dir / "com.tw.a").empty());
    EXPECT_TRUE(markersIn(dir / "com.tw.b").empty());

    // Nothing is left listening either.
    UnixNotificationCenter poster(dir.string());
    poster.postNotification("com.tw.a", {});
    loop.runUntil([] { return false; }, 20ms);
    EXPECT_EQ(inbox.size(), 0u);
}

TEST_F(NotificationCenterTest, StaleMarkerIsSweptByTheNextPostAndOtherFilesAreLeftAlone) {
    Inbox inbox;
    ASSERT_NE(center_.addObserver("com.tw.sweep", inbox.observer(), loop_), 0u);
    const std::string live = markersIn(notifyDir() / "com.tw.sweep").at(0);
    // No process binds these: pid_max is at most 4194304.
    tw::test::writeFile(notifyDir() / "com.tw.sweep" / "4194399.1", "");
    tw::test::writeFile(notifyDir() / "com.tw.sweep" / "4194399.2", "");
    tw::test::writeFile(notifyDir() / "com.tw.sweep" / "README", "not a marker");

    center_.postNotification("com.tw.sweep", {{"text", "sweep"}});
    EXPECT_EQ(markersIn(notifyDir() / "com.tw.sweep").size(), 2u);
    EXPECT_TRUE(fs::exists(notifyDir() / "com.tw.sweep" / live));
    EXPECT_TRUE(fs::exists(notifyDir() / "com.tw.sweep" / "README"));
    ASSERT_TRUE(runUntilCount(loop_, inbox, 1));
    EXPECT_EQ(inbox.items()[0].userInfo.at("text"), "sweep");
}

TEST_F(NotificationCenterTest, UnusableNamesAndForeignLoopsAreRefused) {
    Inbox inbox;
    for (const std::string& name :
         std::vector<std::string>{"", ".", "..", "a/b", "/abs", "../escape", std::string("nul\0name", 8)}) {
        EXPECT_EQ(center_.addObserver(name, inbox.observer(), loop_), 0u) << name;
        center_.postNotification(name, {{"text", "x"}});  // dropped, never a path outside the folder
    }
    EXPECT_FALSE(fs::exists(notifyDir() / "a"));
    EXPECT_FALSE(fs::exists(notifyDir().parent_path() / "escape"));

    ForeignLoop foreign;
    EXPECT_EQ(center_.addObserver("com.tw.foreign", inbox.observer(), foreign), 0u);
    EXPECT_TRUE(markersIn(notifyDir() / "com.tw.foreign").empty());

    // Dots inside a name are fine.
    EXPECT_NE(center_.addObserver("...", inbox.observer(), loop_), 0u);
    center_.postNotification("...", {});
    EXPECT_TRUE(runUntilCount(loop_, inbox, 1));
}

TEST(NotificationCenterDeepRoot, RootsBeyondTheSocketPathLimitWork) {
    tw::test::TempDir root("tw-notify");
    const fs::path dir = root.path() / std::string(120, 'd') / std::string(120, 'e') / "run" / "notify";
    ASSERT_GT(dir.string().size(), 200u);
    AsioRunLoop loop;
    UnixNotificationCenter center(dir.string() + "/");  // a trailing slash names the same folder
    UnixNotificationCenter other(dir.string());
    Inbox first, second;
    ASSERT_NE(center.addObserver("com.tw.deep", first.observer(), loop), 0u);
    ASSERT_NE(other.addObserver("com.tw.deep", second.observer(), loop), 0u);
    other.postNotification("com.tw.deep", {{"text", "down here"}});
    ASSERT_TRUE(loop.runUntil([&] { return first.size() == 1 && second.size() == 1; }, 3s));
    EXPECT_EQ(first.items()[0].userInfo.at("text"), "down here");
    EXPECT_EQ(second.items()[0].userInfo.at("text"), "down here");
    EXPECT_EQ(markersIn(dir / "com.tw.deep").size(), 2u);  // both still reachable, none swept
}

// --- Wire format ---------------------------------------------------------------------------------

TEST_F(NotificationCenterTest, PostsAreBinaryPlistDictionariesSentToEachMarkersAddress) {
    fs::create_directories(notifyDir() / "com.tw.wire");
    RawObserver raw(notifyDir() / "com.tw.wire", std::to_string(::getpid() + 1) + ".77");
    ASSERT_TRUE(raw.bound());

    center_.postNotification("com.tw.wire", {{"text", "über"}, {"n", "1"}});
    const std::string datagram = raw.receive();
    ASSERT_GE(datagram.size(), 8u);
    EXPECT_EQ(datagram.substr(0, 8), "bplist00");

    plist_t parsed = nullptr;
    plist_from_bin(datagram.data(), static_cast<uint32_t>(datagram.size()), &parsed);
    Plist root(parsed);
    ASSERT_TRUE(root);
    ASSERT_EQ(plist_get_node_type(root.get()), PLIST_DICT);
    EXPECT_EQ(plist_dict_get_size(root.get()), 2u);
    plist_t name = plist_dict_get_item(root.get(), "name");
    ASSERT_TRUE(name);
    ASSERT_EQ(plist_get_node_type(name), PLIST_STRING);
    uint64_t length = 0;
    EXPECT_EQ(std::string(plist_get_string_ptr(name, &length)), "com.tw.wire");
    plist_t info = plist_dict_get_item(root.get(), "userInfo");
    ASSERT_TRUE(info);
    ASSERT_EQ(plist_get_node_type(info), PLIST_DICT);
    EXPECT_EQ(plist_dict_get_size(info), 2u);
    plist_t text = plist_dict_get_item(info, "text");
    ASSERT_TRUE(text);
    EXPECT_EQ(std::string(plist_get_string_ptr(text, &length)), "über");

    // One datagram per post, nothing else.
    EXPECT_TRUE(raw.receive(20).empty());
}

TEST_F(NotificationCenterTest, DatagramsOfTheWrongShapeAreDroppedAndForeignTextsIgnored) {
    Inbox inbox;
    ASSERT_NE(center_.addObserver("com.tw.shape", inbox.observer(), loop_), 0u);
    RawSender sender(onlyMarker("com.tw.shape"));

    Plist array(plist_new_array());
    plist_array_append_item(array.get(), plist_new_string("com.tw.shape"));
    Plist noName(plist_new_dict());
    plist_dict_set_item(noName.get(), "userInfo", plist_new_dict());
    Plist numericName(plist_new_dict());
    plist_dict_set_item(numericName.get(), "name", plist_new_uint(7));
    Plist listInfo(plist_new_dict());
    plist_dict_set_item(listInfo.get(), "name", plist_new_string("com.tw.shape"));
    plist_dict_set_item(listInfo.get(), "userInfo", plist_new_array());
    const std::string wholeValid = wireNotification("com.tw.shape", {{"text", "whole"}});

    for (const std::string& bad :
         {toBinary(array.get()), toBinary(noName.get()), toBinary(numericName.get()), toBinary(listInfo.get()),
          wireNotification("com.tw.elsewhere", {{"text", "not for us"}}),  // another name
          wholeValid.substr(0, wholeValid.size() - 1),                      // cut short
          std::string(), std::string("bplist00"),
          wireNotification("com.tw.shape", {{"text", std::string(100 * 1024, 'z')}})})  // beyond the limit
        ASSERT_TRUE(sender.send(bad));

    // Non-text entries are left out, the texts still delivered.
    Plist mixed(plist_new_dict());
    plist_dict_set_item(mixed.get(), "name", plist_new_string("com.tw.shape"));
    plist_t info = plist_new_dict();
    plist_dict_set_item(info, "text", plist_new_string("kept"));
    plist_dict_set_item(info, "number", plist_new_uint(42));
    plist_dict_set_item(info, "flag", plist_new_bool(1));
    plist_dict_set_item(info, "nested", plist_new_dict());
    plist_dict_set_item(mixed.get(), "userInfo", info);
    ASSERT_TRUE(sender.send(toBinary(mixed.get())));
    // Without userInfo at all: an empty one.
    Plist bare(plist_new_dict());
    plist_dict_set_item(bare.get(), "name", plist_new_string("com.tw.shape"));
    ASSERT_TRUE(sender.send(toBinary(bare.get())));

    ASSERT_TRUE(runUntilCount(loop_, inbox, 2));
    loop_.runUntil([] { return false; }, 20ms);
    const auto items = inbox.items();
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0].userInfo, (NotificationUserInfo{{"text", "kept"}}));
    EXPECT_TRUE(items[1].userInfo.empty());
}

TEST_F(NotificationCenterTest, RandomDatagramsAreDroppedAndTheObserverKeepsListening) {
    Inbox inbox;
    ASSERT_NE(center_.addObserver("com.tw.noise", inbox.observer(), loop_), 0u);
    LoopThread thread(loop_);
    RawSender sender(onlyMarker("com.tw.noise"));

    std::mt19937 random(20240611);
    const std::string valid = wireNotification("com.tw.noise", {{"text", "valid"}, {"other", "entry"}});
    size_t mutated = 0;
    for (int i = 0; i < 1000; ++i) {
        std::string bytes;
        if (i % 3 == 2) {
            // A real notification with a few bytes changed reaches deep into the parser.
            bytes = valid;
            for (int hits = 1 + static_cast<int>(random() % 4); hits > 0; --hits)
                bytes[8 + random() % (bytes.size() - 8)] = static_cast<char>(random());
            if (random() % 4 == 0) bytes.resize(8 + random() % (bytes.size() - 8));
            ++mutated;
        } else {
            bytes.resize(random() % 2048);
            for (auto& byte : bytes) byte = static_cast<char>(random());
            if (i % 3 == 1 && bytes.size() >= 8) bytes.replace(0, 8, "bplist00");
        }
        ASSERT_TRUE(sender.send(bytes)) << i;
    }
    ASSERT_TRUE(sender.send(wireNotification("com.tw.noise", {{"sentinel", "yes"}})));
    ASSERT_TRUE(eventually([&] {
        for (const auto& item : inbox.items())
            if (item.userInfo.count("sentinel")) return true;
        return false;
    }));
    // Changed bytes may still spell a notification of this name; never of any other.
    const size_t beforePost = inbox.size();
    EXPECT_LE(beforePost, mutated + 1);
    for (const auto& item : inbox.items()) EXPECT_EQ(item.name, "com.tw.noise");

    center_.postNotification("com.tw.noise", {{"text", "after the noise"}});
    ASSERT_TRUE(inbox.waitFor(beforePost + 1));
    EXPECT_EQ(inbox.items().back().userInfo, (NotificationUserInfo{{"text", "after the noise"}}));
}

TEST_F(NotificationCenterTest, RandomBytesWithoutAPlistHeaderNeverReachTheObserver) {
    Inbox inbox;
    ASSERT_NE(center_.addObserver("com.tw.garbage", inbox.observer(), loop_), 0u);
    LoopThread thread(loop_);
    RawSender sender(onlyMarker("com.tw.garbage"));
    std::mt19937 random(7);
    for (int i = 0; i < 200; ++i) {
        std::string bytes(random() % 512, '\0');
        for (auto& byte : bytes) byte = static_cast<char>(random());
        if (bytes.size() >= 8) bytes.replace(0, 8, i % 2 ? "bplist01" : "xplist00");
        ASSERT_TRUE(sender.send(bytes));
    }
    ASSERT_TRUE(sender.send(wireNotification("com.tw.garbage", {{"sentinel", "yes"}})));
    ASSERT_TRUE(inbox.waitFor(1));
    std::this_thread::sleep_for(10ms);
    const auto items = inbox.items();
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0].userInfo, (NotificationUserInfo{{"sentinel", "yes"}}));
}

}  // namespace
