#include "platform/linux/UnixNotificationCenter.h"

#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "LoopThread.h"
#include "TestSupport.h"
#include "platform/linux/UnixMessagePorts.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using tw::NotificationUserInfo;
using tw::linuxp::UnixNotificationCenter;
using tw::test::eventually;

namespace {

// Collects the user info an observer is given, on the test thread's loop.
struct Inbox {
    tw::DistributedNotificationCenter::Observer observer() {
        return [this](const std::string&, const NotificationUserInfo& userInfo) { items.push_back(userInfo); };
    }
    std::vector<NotificationUserInfo> items;
};

std::vector<std::string> filesIn(const fs::path& folder) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error))
        names.push_back(it->path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// A datagram as any process could send it: the binary form of a property list given as XML.
std::string datagram(const std::string& xml) {
    const std::string document = "<?xml version=\"1.0\"?><plist version=\"1.0\">" + xml + "</plist>";
    plist_t root = nullptr;
    plist_from_xml(document.data(), static_cast<uint32_t>(document.size()), &root);
    char* data = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &data, &length);
    std::string bytes(data, length);
    plist_to_bin_free(data);
    plist_free(root);
    return bytes;
}

// Sends one datagram straight to a marker's address, waiting (boundedly) while the reader is behind.
bool sendTo(const std::string& marker, const std::string& bytes) {
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const timeval patience{3, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    sockaddr_un address;
    const socklen_t length = tw::linuxp::abstractSocketAddress(marker, address);
    const ssize_t sent = ::sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&address), length);
    ::close(fd);
    return sent == static_cast<ssize_t>(bytes.size());
}

class UnixNotificationCenterTest : public testing::Test {
protected:
    fs::path dir(const std::string& name) const { return notifyDir_ / name; }
    bool runUntilCount(Inbox& inbox, size_t n) { return loop_.runUntil([&] { return inbox.items.size() >= n; }, 5s); }
    void drain() { loop_.runUntil([] { return false; }, 20ms); }

    tw::test::TempDir root_{"tw-notify"};
    // Deeper than a socket path may be, as device roots can be.
    fs::path notifyDir_ = root_.path() / std::string(120, 'd') / std::string(120, 'e') / "run" / "notify";
    tw::linuxp::AsioRunLoop loop_;
    UnixNotificationCenter center_{notifyDir_.string() + "/"};  // the same folder, spelled another way
};

}  // namespace

TEST_F(UnixNotificationCenterTest, ObserverThatRemovesItselfIsNotCalledAgainAndAThrowingOneKeepsListening) {
    int selfCalls = 0, throwingCalls = 0;
    uint64_t selfId = 0;
    selfId = center_.addObserver("com.tw.topic", [&](const std::string&, const NotificationUserInfo&) {
        ++selfCalls;
        center_.removeObserver(selfId);  // from inside its own call
    }, loop_);
    center_.addObserver("com.tw.topic", [&](const std::string&, const NotificationUserInfo&) {
        ++throwingCalls;
        throw std::runtime_error("observer-broke");
    }, loop_);
    Inbox witness;
    center_.addObserver("com.tw.topic", witness.observer(), loop_);
    center_.removeObserver(987654);  // an id never handed out is harmless
    center_.postNotification("com.tw.topic", {{"n", "1"}});  // both queued on every socket before the loop runs
    center_.postNotification("com.tw.topic", {{"n", "2"}});
    testing::internal::CaptureStderr();
    EXPECT_TRUE(runUntilCount(witness, 2));
    drain();
    EXPECT_NE(testing::internal::GetCapturedStderr().find("observer-broke"), std::string::npos);
    EXPECT_EQ(selfCalls, 1);
    EXPECT_EQ(throwingCalls, 2);
    EXPECT_EQ(filesIn(dir("com.tw.topic")).size(), 2u);  // the live ones are not swept
}

TEST_F(UnixNotificationCenterTest, RemovalFromAnotherThreadWaitsForARunningCallAndNoneStartsAfterIt) {
    std::atomic<bool> posting{true}, removed{false};
    std::atomic<int> calls{0}, late{0}, inside{0};
    tw::test::LoopThread thread;
    std::thread poster([&] {
        while (posting) center_.postNotification("com.tw.flood", {{"text", "again"}});
    });
    for (int round = 0; round < 20; ++round) {
        calls = 0;
        removed = false;
        const uint64_t id = center_.addObserver("com.tw.flood", [&](const std::string&, const NotificationUserInfo&) {
            late += removed.load();
            ++inside;
            std::this_thread::sleep_for(500us);
            --inside;
            ++calls;
        }, thread.loop());
        EXPECT_TRUE(eventually([&] { return calls >= 1 + round % 5; }));
        center_.removeObserver(id);
        removed = true;
        EXPECT_EQ(inside, 0) << "removeObserver() returned during a call, round " << round;
        thread.loop().postAndWait([] {});  // whatever was already read has been handled
    }
    posting = false;
    poster.join();
    EXPECT_EQ(late, 0);
    EXPECT_TRUE(filesIn(dir("com.tw.flood")).empty());
}

TEST_F(UnixNotificationCenterTest, DestroyingTheCenterRemovesEveryMarkerAndStopsListening) {
    Inbox inbox;
    {
        UnixNotificationCenter center(notifyDir_.string());
        for (const char* name : {"com.tw.a", "com.tw.a", "com.tw.b"})
            ASSERT_NE(center.addObserver(name, inbox.observer(), loop_), 0u);
    }
    EXPECT_TRUE(filesIn(dir("com.tw.a")).empty());
    EXPECT_TRUE(filesIn(dir("com.tw.b")).empty());
    center_.postNotification("com.tw.a", {});
    drain();
    EXPECT_TRUE(inbox.items.empty());
}

TEST_F(UnixNotificationCenterTest, MarkerOfAVanishedObserverIsSweptByTheNextPostAndOtherFilesAreLeftAlone) {
    Inbox inbox;
    UnixNotificationCenter plain(notifyDir_.string());  // the post comes from a center spelling the folder otherwise
    ASSERT_NE(plain.addObserver("com.tw.sweep", inbox.observer(), loop_), 0u);
    auto expected = filesIn(dir("com.tw.sweep"));
    expected.push_back("README");
    // No process binds these: pid_max is at most 4194304.
    for (const char* file : {"4194399.1", "4194399.2", "README"}) tw::test::writeFile(dir("com.tw.sweep") / file, "");
    center_.postNotification("com.tw.sweep", {{"text", "sweep"}});
    EXPECT_EQ(filesIn(dir("com.tw.sweep")), expected);
    EXPECT_TRUE(runUntilCount(inbox, 1));
}

TEST_F(UnixNotificationCenterTest, NamesThatCannotBeAFolderNameAreRefusedAndPostsCreateNoFolders) {
    Inbox inbox;
    for (const std::string& name : std::vector<std::string>{"", ".", "..", "a/b", "../x", std::string("nul\0name", 8)})
        EXPECT_EQ(center_.addObserver(name, inbox.observer(), loop_), 0u) << name;
    center_.postNotification("com.tw.nobody", {{"text", "hello"}});  // no observer: no folder either
    EXPECT_FALSE(fs::exists(notifyDir_.parent_path())) << "a refused name left a folder or marker behind";
    EXPECT_NE(center_.addObserver("...", inbox.observer(), loop_), 0u);  // dots inside a name are fine
}

TEST_F(UnixNotificationCenterTest, DatagramsOfTheWrongShapeAreDroppedNonTextEntriesLeftOutAndTheLargestArriveWhole) {
    Inbox inbox;
    ASSERT_NE(center_.addObserver("com.tw.shape", inbox.observer(), loop_), 0u);
    const auto markers = filesIn(dir("com.tw.shape"));
    ASSERT_EQ(markers.size(), 1u);
    const std::string marker = (dir("com.tw.shape") / markers[0]).string();
    const std::string name = "<key>name</key><string>com.tw.shape</string>";
    const std::string whole = datagram("<dict>" + name + "</dict>");
    const std::pair<const char*, std::string> cases[] = {
        {"array root", datagram("<array><string>com.tw.shape</string></array>")},
        {"no name", datagram("<dict><key>userInfo</key><dict/></dict>")},
        {"numeric name", datagram("<dict><key>name</key><integer>7</integer></dict>")},
        {"userInfo not a dictionary", datagram("<dict>" + name + "<key>userInfo</key><array/></dict>")},
        {"another name", datagram("<dict><key>name</key><string>com.tw.elsewhere</string></dict>")},
        {"cut short", whole.substr(0, whole.size() - 1)},
        {"header only", "bplist00"},
        {"beyond the limit", datagram("<dict>" + name + "<key>userInfo</key><dict><key>t</key><string>" +
                                      std::string(100000, 'z') + "</string></dict></dict>")},
        {"non-text entries", datagram("<dict>" + name + "<key>userInfo</key><dict><key>text</key><string>kept</string>"
                                      "<key>number</key><integer>42</integer><key>nested</key><dict/></dict></dict>")},
        {"no userInfo", whole},
        {"largest that fits", datagram("<dict>" + name + "<key>userInfo</key><dict><key>ключ</key><string>✓</string>"
                                       "<key>t</key><string>" + std::string(59 * 1024, 'x') + "</string></dict></dict>")},
    };
    for (const auto& [what, bytes] : cases) {
        EXPECT_TRUE(sendTo(marker, bytes)) << what;
        loop_.runUntil([] { return false; }, 2ms);  // keeps the socket's queue short
    }
    drain();
    EXPECT_EQ(inbox.items, (std::vector<NotificationUserInfo>{{{"text", "kept"}}, {}, {{"ключ", "✓"}, {"t", std::string(59 * 1024, 'x')}}}));
}
