#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <limits>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "platform/MessagePort.h"
#include "platform/RunLoop.h"
#include "platform/linux/AsioRunLoop.h"
#include "platform/linux/UnixMessagePorts.h"

using namespace std::chrono_literals;
using tw::Bytes;
using tw::LocalPort;
using tw::Payload;
using tw::PortStatus;
using tw::RemotePort;
using tw::RunLoop;
using tw::linuxp::abstractSocketName;
using tw::linuxp::AsioRunLoop;
using tw::linuxp::kMaxFrameBody;
using tw::linuxp::UnixMessagePortService;

namespace {

constexpr double kReplyPatience = 5.0;  // seconds; an upper bound, replies come much sooner

Bytes bytes(const std::string& text) { return Bytes(text.begin(), text.end()); }
std::string text(const Payload& payload) { return payload ? std::string(payload->begin(), payload->end()) : "<null>"; }

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

// --- A raw client speaking the wire format directly -------------------------------------------

Bytes rawRequest(uint32_t bodyLength, uint32_t sequence, int32_t msgid, uint8_t flags, const Bytes& payload) {
    Bytes frame(13);
    tw::putLE<uint32_t>(frame, 0, bodyLength);
    tw::putLE<uint32_t>(frame, 4, sequence);
    tw::putLE<int32_t>(frame, 8, msgid);
    frame[12] = flags;
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

Bytes wellFormedRequest(uint32_t sequence, int32_t msgid, bool expectReply, const Payload& payload) {
    const Bytes body = payload.value_or(Bytes{});
    return rawRequest(static_cast<uint32_t>(9 + body.size()), sequence, msgid,
                      static_cast<uint8_t>((expectReply ? 1 : 0) | (payload ? 2 : 0)), body);
}

class RawClient {
public:
    explicit RawClient(const std::string& socketName) {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path + 1, socketName.data(), socketName.size());
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + socketName.size());
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), length) != 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    ~RawClient() {
        if (fd_ >= 0) ::close(fd_);
    }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool connected() const { return fd_ >= 0; }

    // False once the other side has hung up (or will not take the bytes within a second).
    bool send(const Bytes& data) {
        size_t sent = 0;
        while (sent < data.size()) {
            const ssize_t n = ::send(fd_, data.data() + sent, data.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n > 0) {
                sent += size_t(n);
                continue;
            }
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                pollfd entry{fd_, POLLOUT, 0};
                if (::poll(&entry, 1, 1000) <= 0) return false;
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            return false;
        }
        return true;
    }

    // Exactly `count` bytes, or nullopt on end of stream or timeout.
    std::optional<Bytes> read(size_t count, int timeoutMs = 3000) {
        Bytes out;
        while (out.size() < count) {
            pollfd entry{fd_, POLLIN, 0};
            if (::poll(&entry, 1, timeoutMs) <= 0) return std::nullopt;
            uint8_t buffer[4096];
            const ssize_t n = ::recv(fd_, buffer, std::min(sizeof buffer, count - out.size()), 0);
            if (n <= 0) return std::nullopt;
            out.insert(out.end(), buffer, buffer + n);
        }
        return out;
    }

    // Discards whatever has arrived; false when the other side has hung up.
    bool drain() {
        uint8_t buffer[4096];
        for (;;) {
            const ssize_t n = ::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
            if (n > 0) continue;
            if (n == 0) return false;
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        }
    }

    // True when the other side closes the connection within the time limit.
    bool closedByPeer(int timeoutMs = 3000) {
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (std::chrono::steady_clock::now() < until) {
            pollfd entry{fd_, POLLIN, 0};
            if (::poll(&entry, 1, 10) <= 0) continue;
            uint8_t buffer[4096];
            const ssize_t n = ::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
            if (n == 0 || (n < 0 && errno == ECONNRESET)) return true;
        }
        return false;
    }

    // True when nothing arrives within the time limit.
    bool silentFor(int timeoutMs) {
        pollfd entry{fd_, POLLIN, 0};
        return ::poll(&entry, 1, timeoutMs) == 0;
    }

private:
    int fd_ = -1;
};

// A loop that is not an Asio loop: ports cannot deliver on it.
class ForeignLoop : public RunLoop {
public:
    void post(Task task) override { queue_.push_back(std::move(task)); }
    void postAndWait(Task task) override { task(); }
    std::shared_ptr<Timer> scheduleTimer(Clock::time_point, std::chrono::duration<double>, TimerCallback) override {
        return nullptr;
    }
    bool isCurrent() const override { return true; }
    void run() override {}
    bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds) override { return done(); }
    void stop() override {}

private:
    std::vector<Task> queue_;
};

class MessagePortTest : public testing::Test {
protected:
    void SetUp() override { runner_.emplace(*loop_); }
    void TearDown() override { runner_.reset(); }

    std::string socketName(const std::string& port) const { return abstractSocketName(portsDir_ + "/" + port); }
    std::thread::id loopThread() const { return runner_->id(); }

    tw::test::TempDir root_{"tw-ports"};
    std::string portsDir_ = root_.str() + "/run/ports";
    UnixMessagePortService service_{portsDir_};
    std::shared_ptr<AsioRunLoop> loop_ = std::make_shared<AsioRunLoop>();
    std::optional<LoopThread> runner_;
};

// An echo port: replies with the request payload, prefixed with its id.
Payload tagged(int32_t msgid, const Payload& data) {
    std::string out = std::to_string(msgid) + ":" + text(data);
    return bytes(out);
}

}  // namespace

// --- Addresses -----------------------------------------------------------------------------------

TEST(MessagePortAddress, ShortPathsAreUsedAsIsAndLongOnesAreHashedToFit) {
    const std::string shortPath = "/tmp/r/run/ports/com.example.svc";
    EXPECT_EQ(abstractSocketName(shortPath), "tapwright:" + shortPath);

    // Exactly at the limit still fits; one byte more does not.
    const std::string fits = "/" + std::string(107 - 10 - 1, 'p');
    EXPECT_EQ(abstractSocketName(fits), "tapwright:" + fits);
    const std::string over = fits + "q";
    EXPECT_NE(abstractSocketName(over), "tapwright:" + over);
    EXPECT_LE(abstractSocketName(over).size(), 107u);

    const std::string deep = "/tmp/" + std::string(150, 'd') + "/run/ports/com.example.some.long.port.name";
    const std::string name = abstractSocketName(deep);
    EXPECT_LE(name.size(), 107u);
    EXPECT_EQ(name, abstractSocketName(deep));  // stable
    EXPECT_NE(name.find("com.example.some.long.port.name"), std::string::npos);

    // Two long paths that differ only far from the end still get different addresses.
    std::string twin = deep;
    twin[6] = 'e';
    EXPECT_NE(abstractSocketName(twin), name);

    // A very long port name is cut, never overflowing the address.
    const std::string longLeaf = "/tmp/x/run/ports/" + std::string(300, 'n');
    EXPECT_LE(abstractSocketName(longLeaf).size(), 107u);
}

// --- Request and reply -----------------------------------------------------------------------------

TEST_F(MessagePortTest, RequestReplyCarriesIdsAndKeepsNullApartFromEmpty) {
    std::vector<std::pair<int32_t, Payload>> received;
    auto local = service_.createLocal("com.tw.echo", [&](int32_t msgid, const Payload& data) -> Payload {
        received.emplace_back(msgid, data);
        switch (msgid) {
            case 10: return data;  // echo, null or not
            case 20: return Bytes{};
            case 30: return std::nullopt;
            default: return tagged(msgid, data);
        }
    }, *loop_);
    ASSERT_NE(local, nullptr);
    EXPECT_EQ(local->name(), "com.tw.echo");
    EXPECT_TRUE(local->isValid());
    auto remote = service_.createRemote("com.tw.echo");
    ASSERT_NE(remote, nullptr);
    EXPECT_TRUE(remote->isValid());

    Payload reply = bytes("stale");
    ASSERT_EQ(remote->sendRequest(10, std::nullopt, 1, kReplyPatience, true, &reply), PortStatus::Success);
    EXPECT_FALSE(reply.has_value());

    ASSERT_EQ(remote->sendRequest(10, Bytes{}, 1, kReplyPatience, true, &reply), PortStatus::Success);
    ASSERT_TRUE(reply.has_value());
    EXPECT_TRUE(reply->empty());

    ASSERT_EQ(remote->sendRequest(10, bytes("abc"), 1, kReplyPatience, true, &reply), PortStatus::Success);
    EXPECT_EQ(text(reply), "abc");

    const Bytes binary{0, 1, 2, 0, 255};
    ASSERT_EQ(remote->sendRequest(10, binary, 1, kReplyPatience, true, &reply), PortStatus::Success);
    EXPECT_EQ(reply, Payload(binary));

    ASSERT_EQ(remote->sendRequest(20, bytes("x"), 1, kReplyPatience, true, &reply), PortStatus::Success);
    ASSERT_TRUE(reply.has_value());
    EXPECT_TRUE(reply->empty());

    reply = bytes("stale");
    ASSERT_EQ(remote->sendRequest(30, bytes("x"), 1, kReplyPatience, true, &reply), PortStatus::Success);
    EXPECT_FALSE(reply.has_value());

    ASSERT_EQ(remote->sendRequest(-7, bytes("neg"), 1, kReplyPatience, true, &reply), PortStatus::Success);
    EXPECT_EQ(text(reply), "-7:neg");

    // The caller may ignore the reply.
    EXPECT_EQ(remote->sendRequest(-8, bytes("ignored"), 1, kReplyPatience, true, nullptr), PortStatus::Success);

    ASSERT_EQ(received.size(), 8u);
    EXPECT_FALSE(received[0].second.has_value());
    ASSERT_TRUE(received[1].second.has_value());
    EXPECT_TRUE(received[1].second->empty());
    EXPECT_EQ(received[3].second, Payload(binary));
    EXPECT_EQ(received[6].first, -7);
    EXPECT_EQ(received[7].first, -8);
}

TEST_F(MessagePortTest, LargePayloadsSurviveTheTripBothWays) {
    auto local = service_.createLocal("com.tw.big", [](int32_t, const Payload& data) -> Payload {
        Bytes reversed(data->rbegin(), data->rend());
        return reversed;
    }, *loop_);
    ASSERT_NE(local, nullptr);
    auto remote = service_.createRemote("com.tw.big");
    ASSERT_NE(remote, nullptr);

    Bytes big(3 * 1024 * 1024 + 17);
    std::mt19937 rng(7);
    for (auto& b : big) b = static_cast<uint8_t>(rng());
    Payload reply;
    ASSERT_EQ(remote->sendRequest(1, big, kReplyPatience, kReplyPatience, true, &reply), PortStatus::Success);
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(*reply, Bytes(big.rbegin(), big.rend()));
}

TEST_F(MessagePortTest, OversizedRequestIsRefusedWithoutBreakingTheConnection) {
    std::atomic<int> calls{0};
    auto local = service_.createLocal("com.tw.limit", [&](int32_t, const Payload&) -> Payload {
        ++calls;
        return bytes("ok");
    }, *loop_);
    auto remote = service_.createRemote("com.tw.limit");
    ASSERT_NE(remote, nullptr);
    const Bytes tooBig(kMaxFrameBody - 8);  // one byte over what a request frame can carry
    EXPECT_EQ(remote->sendRequest(1, tooBig, 1, 1, true, nullptr), PortStatus::TransportError);
    EXPECT_TRUE(remote->isValid());
    Payload reply;
    EXPECT_EQ(remote->sendRequest(2, bytes("small"), 1, kReplyPatience, true, &reply), PortStatus::Success);
    EXPECT_EQ(text(reply), "ok");
    EXPECT_EQ(calls, 1);
}

TEST_F(MessagePortTest, ThrowingCallbackAnswersWithoutDataAndKeepsServing) {
    auto local = service_.createLocal("com.tw.throws", [](int32_t msgid, const Payload& data) -> Payload {
        if (msgid == 1) throw std::runtime_error("callback-broke");
        return tagged(msgid, data);
    }, *loop_);
    auto remote = service_.createRemote("com.tw.throws");
    ASSERT_NE(remote, nullptr);
    testing::internal::CaptureStderr();
    Payload reply = bytes("stale");
    const auto status = remote->sendRequest(1, bytes("a"), 1, kReplyPatience, true, &reply);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(status, PortStatus::Success);
    EXPECT_FALSE(reply.has_value());
    EXPECT_NE(err.find("callback-broke"), std::string::npos) << err;
    ASSERT_EQ(remote->sendRequest(2, bytes("b"), 1, kReplyPatience, true, &reply), PortStatus::Success);
    EXPECT_EQ(text(reply), "2:b");
}

// --- One-way messages and delivery ------------------------------------------------------------

TEST_F(MessagePortTest, OneWayMessagesArriveInOrder) {
    std::vector<int32_t> seen;
    auto local = service_.createLocal("com.tw.oneway", [&](int32_t msgid, const Payload&) -> Payload {
        if (msgid == -1) return bytes(std::to_string(seen.size()));
        seen.push_back(msgid);
        return bytes("unused");
    }, *loop_);
    auto remote = service_.createRemote("com.tw.oneway");
    ASSERT_NE(remote, nullptr);
    for (int32_t i = 0; i < 100; ++i)
        ASSERT_EQ(remote->sendRequest(i, bytes("m"), 1, 0, false, nullptr), PortStatus::Success);
    Payload reply;
    ASSERT_EQ(remote->sendRequest(-1, std::nullopt, 1, kReplyPatience, true, &reply), PortStatus::Success);
    EXPECT_EQ(text(reply), "100");
    ASSERT_EQ(seen.size(), 100u);
    for (int32_t i = 0; i < 100; ++i) EXPECT_EQ(seen[i], i);
}

TEST_F(MessagePortTest, WireRepliesEchoTheSequenceAndOnlyRequestsThatAskGetOne) {
    std::vector<int32_t> seen;
    auto local = service_.createLocal("com.tw.wire", [&](int32_t msgid, const Payload& data) -> Payload {
        seen.push_back(msgid);
        if (msgid == 500) return std::nullopt;
        return tagged(msgid, data);
    }, *loop_);
    RawClient client(socketName("com.tw.wire"));
    ASSERT_TRUE(client.connected());

    // Several one-way frames and two requests in a single write.
    Bytes burst;
    for (int32_t i = 0; i < 10; ++i) {
        const Bytes frame = wellFormedRequest(100 + i, i, false, i % 2 ? Payload(bytes("p")) : std::nullopt);
        burst.insert(burst.end(), frame.begin(), frame.end());
    }
    const Bytes asking = wellFormedRequest(0xDEADBEEF, 42, true, bytes("hi"));
    const Bytes askingNull = wellFormedRequest(7, 500, true, std::nullopt);
    burst.insert(burst.end(), asking.begin(), asking.end());
    burst.insert(burst.end(), askingNull.begin(), askingNull.end());
    ASSERT_TRUE(client.send(burst));

    // reply: u32 bodyLength | u32 sequence | u8 flags | payload
    auto header = client.read(9);
    ASSERT_TRUE(header.has_value());
    EXPECT_EQ(tw::getLE<uint32_t>(header->data(), 0), 5u + 5u);  // "42:hi"
    EXPECT_EQ(tw::getLE<uint32_t>(header->data(), 4), 0xDEADBEEFu);
    EXPECT_EQ((*header)[8], 2);
    auto payload = client.read(5);
    ASSERT_TRUE(payload.has_value());
    EXPECT_EQ(std::string(payload->begin(), payload->end()), "42:hi");

    auto nullReply = client.read(9);
    ASSERT_TRUE(nullReply.has_value());
    EXPECT_EQ(tw::getLE<uint32_t>(nullReply->data(), 0), 5u);
    EXPECT_EQ(tw::getLE<uint32_t>(nullReply->data(), 4), 7u);
    EXPECT_EQ((*nullReply)[8], 0);

    EXPECT_TRUE(client.silentFor(50));  // nothing for the one-way frames
    std::vector<int32_t> expected{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 42, 500};
    EXPECT_EQ(seen, expected);
}

TEST_F(MessagePortTest, CallbacksRunOnTheLoopThreadOneAtATime) {
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    std::atomic<int> offLoop{0};
    const auto loopId = loopThread();
    auto local = service_.createLocal("com.tw.serial", [&](int32_t msgid, const Payload& data) -> Payload {
        if (std::this_thread::get_id() != loopId || !loop_->isCurrent()) ++offLoop;
        if (++inside != 1) ++overlaps;
        std::this_thread::sleep_for(200us);
        --inside;
        return tagged(msgid, data);
    }, *loop_);
    ASSERT_NE(local, nullptr);

    constexpr int kClients = 4, kEach = 25;
    std::atomic<int> good{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c)
        clients.emplace_back([&, c] {
            auto remote = service_.createRemote("com.tw.serial");
            if (!remote) return;
            for (int i = 0; i < kEach; ++i) {
                const int32_t id = c * 1000 + i;
                const std::string body = "c" + std::to_string(c);
                Payload reply;
                if (remote->sendRequest(id, bytes(body), 1, kReplyPatience, true, &reply) == PortStatus::Success &&
                    text(reply) == std::to_string(id) + ":" + body)
                    ++good;
            }
        });
    for (auto& t : clients) t.join();
    EXPECT_EQ(good, kClients * kEach);
    EXPECT_EQ(overlaps, 0);
    EXPECT_EQ(offLoop, 0);
}

// --- Names and lifetimes --------------------------------------------------------------------------

TEST_F(MessagePortTest, TakenNameIsRefusedUntilReleasedAndRootsDoNotCollide) {
    auto echo = [](int32_t msgid, const Payload& data) { return tagged(msgid, data); };
    auto first = service_.createLocal("com.tw.name", echo, *loop_);
    ASSERT_NE(first, nullptr);
    EXPECT_TRUE(std::filesystem::is_directory(portsDir_));
    EXPECT_EQ(service_.createLocal("com.tw.name", echo, *loop_), nullptr);

    // The same name on another device root is another port.
    tw::test::TempDir otherRoot("tw-ports-other");
    UnixMessagePortService other(otherRoot.str() + "/run/ports");
    auto elsewhere = other.createLocal("com.tw.name", [](int32_t, const Payload&) -> Payload { return bytes("other"); },
                                       *loop_);
    ASSERT_NE(elsewhere, nullptr);
    Payload reply;
    auto otherRemote = other.createRemote("com.tw.name");
    ASSERT_NE(otherRemote, nullptr);
    ASSERT_EQ(otherRemote->sendRequest(1, std::nullopt, 1, kReplyPatience, true, &reply), PortStatus::Success);
    EXPECT_EQ(text(reply), "other");

    first.reset();
    auto second = service_.createLocal("com.tw.name", echo, *loop_);
    EXPECT_NE(second, nullptr);
}

TEST_F(MessagePortTest, RemoteToAMissingPortIsNull) {
    EXPECT_EQ(service_.createRemote("com.tw.nobody"), nullptr);
}

TEST_F(MessagePortTest, LoopThatCannotCarrySocketsIsRefused) {
    ForeignLoop foreign;
    EXPECT_EQ(service_.createLocal("com.tw.foreign", [](int32_t, const Payload&) -> Payload { return std::nullopt; },
                                   foreign),
              nullptr);
    // The name was not left taken.
    EXPECT_NE(service_.createLocal("com.tw.foreign", [](int32_t, const Payload&) -> Payload { return std::nullopt; },
                                   *loop_),
              nullptr);
}

TEST_F(MessagePortTest, RemoteGoesInvalidWithItsOwnerAndANewRemoteReachesTheRecreatedPort) {
    std::atomic<int> calls{0};
    auto callback = [&](int32_t msgid, const Payload& data) -> Payload {
        ++calls;
        return tagged(msgid, data);
    };
    auto local = service_.createLocal("com.tw.life", callback, *loop_);
    auto remote = service_.createRemote("com.tw.life");
    ASSERT_NE(remote, nullptr);
    Payload reply;
    ASSERT_EQ(remote->sendRequest(1, bytes("a"), 1, kReplyPatience, true, &reply), PortStatus::Success);

    local->invalidate();
    EXPECT_FALSE(local->isValid());
    EXPECT_TRUE(eventually([&] { return !remote->isValid(); }));
    EXPECT_EQ(remote->sendRequest(2, bytes("b"), 1, kReplyPatience, true, &reply), PortStatus::IsInvalid);
    EXPECT_EQ(service_.createRemote("com.tw.life"), nullptr);  // the name was released
    EXPECT_EQ(calls, 1);

    auto recreated = service_.createLocal("com.tw.life", callback, *loop_);
    ASSERT_NE(recreated, nullptr);
    EXPECT_FALSE(remote->isValid());  // an old remote stays dead
    auto fresh = service_.createRemote("com.tw.life");
    ASSERT_NE(fresh, nullptr);
    ASSERT_EQ(fresh->sendRequest(3, bytes("c"), 1, kReplyPatience, true, &reply), PortStatus::Success);
    EXPECT_EQ(text(reply), "3:c");

    recreated.reset();  // destroying the port has the same effect as invalidating it
    EXPECT_TRUE(eventually([&] { return !fresh->isValid(); }));
}

TEST_F(MessagePortTest, SendingToAVanishedOwnerFailsThenReportsInvalid) {
    auto local = service_.createLocal("com.tw.gone", [](int32_t, const Payload&) -> Payload { return bytes("x"); },
                                      *loop_);
    auto remote = service_.createRemote("com.tw.gone");
    ASSERT_NE(remote, nullptr);
    ASSERT_EQ(remote->sendRequest(1, std::nullopt, 1, kReplyPatience, true, nullptr), PortStatus::Success);
    local.reset();
    // Not asked isValid() first: the failure is discovered by the send itself.
    EXPECT_EQ(remote->sendRequest(2, bytes("y"), 1, kReplyPatience, true, nullptr), PortStatus::TransportError);
    EXPECT_FALSE(remote->isValid());
    EXPECT_EQ(remote->sendRequest(3, bytes("z"), 1, kReplyPatience, false, nullptr), PortStatus::IsInvalid);
}

TEST_F(MessagePortTest, NoCallbackAfterThePortIsDestroyedUnderLoad) {
    std::atomic<int> calls{0};
    auto local = service_.createLocal("com.tw.load", [&](int32_t, const Payload&) -> Payload {
        ++calls;
        return std::nullopt;
    }, *loop_);
    std::atomic<bool> stop{false};
    std::vector<std::thread> senders;
    for (int s = 0; s < 3; ++s)
        senders.emplace_back([&] {
            auto remote = service_.createRemote("com.tw.load");
            if (!remote) return;
            while (!stop && remote->sendRequest(1, bytes("load"), 1, 0, false, nullptr) == PortStatus::Success) {
            }
        });
    ASSERT_TRUE(eventually([&] { return calls > 50; }));
    local.reset();  // from this thread, while the loop thread is busy delivering
    const int atDestroy = calls;
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(calls, atDestroy);
    stop = true;
    for (auto& t : senders) t.join();
}

TEST_F(MessagePortTest, CallbackThatInvalidatesItsPortGetsNothingMore) {
    std::shared_ptr<LocalPort> local;
    std::atomic<int> calls{0};
    local = service_.createLocal("com.tw.self", [&](int32_t, const Payload&) -> Payload {
        ++calls;
        local->invalidate();
        return std::nullopt;
    }, *loop_);
    RawClient client(socketName("com.tw.self"));
    ASSERT_TRUE(client.connected());
    Bytes burst;
    for (int i = 0; i < 3; ++i) {
        const Bytes frame = wellFormedRequest(i + 1, i, false, bytes("x"));
        burst.insert(burst.end(), frame.begin(), frame.end());
    }
    ASSERT_TRUE(client.send(burst));
    EXPECT_TRUE(client.closedByPeer());
    EXPECT_FALSE(local->isValid());
    EXPECT_EQ(calls, 1);
}

TEST_F(MessagePortTest, MessagesSentBeforeAClientLeavesAreStillDelivered) {
    std::atomic<bool> firstStarted{false};
    std::mutex seenMutex;
    std::vector<int32_t> seen;
    auto local = service_.createLocal("com.tw.leaver", [&](int32_t msgid, const Payload&) -> Payload {
        {
            std::lock_guard lock(seenMutex);
            seen.push_back(msgid);
        }
        if (msgid == 1) {
            firstStarted = true;
            std::this_thread::sleep_for(50ms);  // the client is gone before this reply is written
        }
        return bytes("reply");
    }, *loop_);
    {
        RawClient client(socketName("com.tw.leaver"));
        ASSERT_TRUE(client.connected());
        ASSERT_TRUE(client.send(wellFormedRequest(1, 1, true, bytes("wants a reply"))));
        ASSERT_TRUE(eventually([&] { return firstStarted.load(); }));
        ASSERT_TRUE(client.send(wellFormedRequest(2, 2, false, bytes("last words"))));
    }
    EXPECT_TRUE(eventually([&] {
        std::lock_guard lock(seenMutex);
        return seen.size() == 2;
    }));
    std::lock_guard lock(seenMutex);
    EXPECT_EQ(seen, (std::vector<int32_t>{1, 2}));
}

// --- Timeouts ----------------------------------------------------------------------------------------

TEST_F(MessagePortTest, SlowReplyTimesOutAndTheNextRequestStillGetsItsOwnReply) {
    auto local = service_.createLocal("com.tw.slow", [](int32_t msgid, const Payload& data) -> Payload {
        if (msgid == 1) std::this_thread::sleep_for(150ms);
        return tagged(msgid, data);
    }, *loop_);
    auto remote = service_.createRemote("com.tw.slow");
    ASSERT_NE(remote, nullptr);
    Payload reply;
    EXPECT_EQ(remote->sendRequest(1, bytes("slow"), 1, 0.02, true, &reply), PortStatus::ReceiveTimeout);
    EXPECT_TRUE(remote->isValid());
    // The late reply to request 1 arrives first and must be skipped.
    ASSERT_EQ(remote->sendRequest(2, bytes("fast"), 1, kReplyPatience, true, &reply), PortStatus::Success);
    EXPECT_EQ(text(reply), "2:fast");
    ASSERT_EQ(remote->sendRequest(3, bytes("next"), 1, kReplyPatience, true, &reply), PortStatus::Success);
    EXPECT_EQ(text(reply), "3:next");
}

// --- Deep roots --------------------------------------------------------------------------------------

TEST(MessagePortDeepRoot, RootsBeyondTheSocketPathLimitWork) {
    AsioRunLoop loop;
    LoopThread runner(loop);
    tw::test::TempDir base("tw-deep");
    const std::string segment(70, 's');
    const std::string rootA = base.str() + "/a" + segment + "/" + segment + "/" + segment;
    const std::string rootB = base.str() + "/b" + segment + "/" + segment + "/" + segment;
    ASSERT_GT(rootA.size() + std::string("/run/ports").size(), 200u);
    UnixMessagePortService a(rootA + "/run/ports");
    UnixMessagePortService b(rootB + "/run/ports");

    auto localA = a.createLocal("com.tw.deep", [](int32_t, const Payload&) -> Payload { return bytes("A"); }, loop);
    auto localB = b.createLocal("com.tw.deep", [](int32_t, const Payload&) -> Payload { return bytes("B"); }, loop);
    ASSERT_NE(localA, nullptr);
    ASSERT_NE(localB, nullptr);  // same port name, different root: no clash
    EXPECT_TRUE(std::filesystem::is_directory(rootA + "/run/ports"));

    Payload reply;
    auto remoteA = a.createRemote("com.tw.deep");
    auto remoteB = b.createRemote("com.tw.deep");
    ASSERT_NE(remoteA, nullptr);
    ASSERT_NE(remoteB, nullptr);
    ASSERT_EQ(remoteA->sendRequest(1, std::nullopt, 1, kReplyPatience, true, &reply), PortStatus::Success);
    EXPECT_EQ(text(reply), "A");
    ASSERT_EQ(remoteB->sendRequest(1, std::nullopt, 1, kReplyPatience, true, &reply), PortStatus::Success);
    EXPECT_EQ(text(reply), "B");
}

// --- Hostile clients -------------------------------------------------------------------------------

TEST_F(MessagePortTest, MalformedFrameClosesOnlyItsOwnConnection) {
    auto local = service_.createLocal("com.tw.strict", [](int32_t msgid, const Payload& data) -> Payload {
        return tagged(msgid, data);
    }, *loop_);
    auto remote = service_.createRemote("com.tw.strict");
    ASSERT_NE(remote, nullptr);

    const std::vector<Bytes> offenders{
        rawRequest(8, 1, 1, 3, {}),                                                   // shorter than a request
        rawRequest(0, 0, 0, 0, {}),                                                   // empty body
        rawRequest(static_cast<uint32_t>(kMaxFrameBody + 1), 1, 1, 3, bytes("x")),    // over the limit
        rawRequest(std::numeric_limits<uint32_t>::max(), 1, 1, 3, {}),                // absurd
        rawRequest(9 + 3, 1, 1, 1, bytes("abc")),                                     // bytes on a null payload
    };
    for (const auto& frame : offenders) {
        RawClient client(socketName("com.tw.strict"));
        ASSERT_TRUE(client.connected());
        ASSERT_TRUE(client.send(frame));
        EXPECT_TRUE(client.closedByPeer());
        Payload reply;
        ASSERT_EQ(remote->sendRequest(5, bytes("still"), 1, kReplyPatience, true, &reply), PortStatus::Success);
        EXPECT_EQ(text(reply), "5:still");
    }
    EXPECT_TRUE(local->isValid());
}

TEST_F(MessagePortTest, GarbageFromRawClientsLeavesThePortAnswering) {
    std::mutex deliveredMutex;
    std::set<int32_t> delivered;
    std::atomic<int> offLoop{0};
    const auto loopId = loopThread();
    auto local = service_.createLocal("com.tw.garbage", [&](int32_t msgid, const Payload& data) -> Payload {
        if (std::this_thread::get_id() != loopId) ++offLoop;
        std::lock_guard lock(deliveredMutex);
        delivered.insert(msgid);
        return tagged(msgid, data);
    }, *loop_);
    ASSERT_NE(local, nullptr);

    std::mt19937 rng(20240611);
    auto random = [&](uint32_t below) { return static_cast<uint32_t>(rng() % below); };
    auto randomBytes = [&](size_t n) {
        Bytes out(n);
        for (auto& b : out) b = static_cast<uint8_t>(rng());
        return out;
    };

    // Well-formed frames sent on a connection before any garbage must all be delivered.
    std::set<int32_t> mustArrive;
    int connections = 0;
    bool clean = false;
    std::unique_ptr<RawClient> client;
    for (int i = 0; i < 3000; ++i) {
        if (!client || random(64) == 0) {
            client = std::make_unique<RawClient>(socketName("com.tw.garbage"));
            ASSERT_TRUE(client->connected());
            ++connections;
            clean = true;
        }
        Bytes chunk;
        bool good = false;
        switch (random(10)) {
            case 0:
            case 1:
            case 2:
            case 3:
            case 4: {  // well formed, with any of the unused flag bits set
                const bool present = random(2);
                const int32_t msgid = 1'000'000 + i;
                Bytes frame = wellFormedRequest(rng(), msgid, random(2),
                                                present ? Payload(randomBytes(random(64))) : std::nullopt);
                frame[12] |= static_cast<uint8_t>(rng() & 0xFC);
                chunk = std::move(frame);
                good = true;
                if (clean) mustArrive.insert(msgid);
                break;
            }
            case 5: {  // any flags at all, so the payload flag may contradict the length
                const Bytes payload = randomBytes(random(64));
                chunk = rawRequest(static_cast<uint32_t>(9 + payload.size()), rng(), static_cast<int32_t>(rng()),
                                   static_cast<uint8_t>(rng()), payload);
                break;
            }
            case 6:  // noise
                chunk = randomBytes(1 + random(256));
                break;
            case 7:  // too short
                chunk = rawRequest(random(9), rng(), 0, static_cast<uint8_t>(rng()), randomBytes(random(16)));
                break;
            case 8:  // too long
                chunk = rawRequest(static_cast<uint32_t>(kMaxFrameBody + 1 + random(0xF0000000u)), rng(), 0, 3,
                                   randomBytes(random(16)));
                break;
            case 9: {  // a header promising more than follows
                const uint32_t promised = 9 + random(1 << 16);
                chunk = rawRequest(promised, rng(), 0, 3, randomBytes(random(std::min<uint32_t>(promised - 9, 512))));
                break;
            }
        }
        if (!client->send(chunk) || !client->drain()) client.reset();  // the port hung up on us
        if (!good) {
            clean = false;
            if (random(3) == 0) client.reset();  // leave some garbage behind and start over
        }
    }
    client.reset();

    auto remote = service_.createRemote("com.tw.garbage");
    ASSERT_NE(remote, nullptr);
    Payload reply;
    ASSERT_EQ(remote->sendRequest(77, bytes("after"), 1, kReplyPatience, true, &reply), PortStatus::Success);
    EXPECT_EQ(text(reply), "77:after");
    EXPECT_TRUE(local->isValid());
    EXPECT_GT(connections, 10);  // the garbage did get connections closed and reopened
    EXPECT_GT(mustArrive.size(), 100u);
    const bool allArrived = eventually([&] {
        std::lock_guard lock(deliveredMutex);
        return std::includes(delivered.begin(), delivered.end(), mustArrive.begin(), mustArrive.end());
    });
    EXPECT_TRUE(allArrived);
    EXPECT_EQ(offLoop, 0);
}
