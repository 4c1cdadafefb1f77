#include "platform/linux/UnixMessagePorts.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "LoopThread.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using tw::Bytes;
using tw::Payload;
using tw::PortStatus;
using tw::linuxp::kMaxFrameBody;
using tw::test::eventually;

namespace {

constexpr double kPatience = 5.0;  // seconds; an upper bound, replies come much sooner

Bytes bytes(const std::string& text) { return Bytes(text.begin(), text.end()); }
std::string text(const Payload& payload) { return payload ? std::string(payload->begin(), payload->end()) : "<null>"; }
Payload tagged(int32_t msgid, const Payload& data) { return bytes(std::to_string(msgid) + ":" + text(data)); }

// u32 bodyLength | u32 sequence | (requests: i32 msgid) | u8 flags | payload, claiming any length.
Bytes frame(uint32_t bodyLength, uint32_t sequence, std::optional<int32_t> msgid, uint8_t flags, const Bytes& payload) {
    Bytes out(msgid ? 13 : 9);
    tw::putLE<uint32_t>(out, 0, bodyLength);
    tw::putLE<uint32_t>(out, 4, sequence);
    if (msgid) tw::putLE<int32_t>(out, 8, *msgid);
    out.back() = flags;
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}
Bytes request(uint32_t sequence, int32_t msgid, bool expectReply, const Payload& payload) {
    const Bytes body = payload.value_or(Bytes{});
    return frame(uint32_t(9 + body.size()), sequence, msgid, (expectReply ? 1 : 0) | (payload ? 2 : 0), body);
}
Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A raw stream socket at a port's address: a client speaking the wire format, or a stand-in owner.
struct RawSocket {
    explicit RawSocket(const std::string& path, bool listen = false) : fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address;
        const socklen_t length = tw::linuxp::abstractSocketAddress(path, address);
        const auto* raw = reinterpret_cast<const sockaddr*>(&address);
        ok = listen ? ::bind(fd, raw, length) == 0 && ::listen(fd, 4) == 0 : ::connect(fd, raw, length) == 0;
        const timeval patience{3, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    explicit RawSocket(int accepted) : fd(accepted), ok(accepted >= 0) {}
    ~RawSocket() { ::close(fd); }
    bool send(const Bytes& data) { return ::send(fd, data.data(), data.size(), MSG_NOSIGNAL) == ssize_t(data.size()); }
    Bytes read(size_t count, int flags = MSG_WAITALL) {
        Bytes out(count);
        out.resize(std::max<ssize_t>(0, ::recv(fd, out.data(), count, flags)));
        return out;
    }
    // True when the other side closes the connection; whatever it still sends first is skipped.
    bool closedByPeer() {
        for (uint8_t buffer[4096];;) {
            const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0) return n == 0 || errno == ECONNRESET;
        }
    }
    const int fd;
    bool ok = false;
};

class UnixMessagePortsTest : public testing::Test {
protected:
    std::string path(const std::string& port) const { return portsDir_ + "/" + port; }
    std::shared_ptr<tw::LocalPort> local(const std::string& name, tw::LocalPortCallback callback = tagged) {
        return service_.createLocal(name, std::move(callback), runner_.loop());
    }
    // A port that records the ids it is given, then answers like `tagged` (message 1 after `slowFirst`).
    std::shared_ptr<tw::LocalPort> recorder(const std::string& name, std::chrono::milliseconds slowFirst = 0ms) {
        return local(name, [this, slowFirst](int32_t msgid, const Payload& data) {
            seen_.push_back(msgid);
            ++started_;
            if (msgid == 1) std::this_thread::sleep_for(slowFirst);
            return msgid == 500 ? std::nullopt : tagged(msgid, data);
        });
    }
    std::vector<int32_t> seen() {  // read on the loop thread, which writes it
        std::vector<int32_t> copy;
        runner_.loop().postAndWait([&] { copy = seen_; });
        return copy;
    }
    tw::test::TempDir root_{"tw-ports"};
    // Deeper than a socket path may be, as device roots can be.
    std::string deep_ = "/" + std::string(70, 's') + "/" + std::string(70, 's') + "/" + std::string(70, 's');
    std::string portsDir_ = root_.str() + "/a" + deep_ + "/run/ports";
    tw::linuxp::UnixMessagePortService service_{portsDir_};
    std::vector<int32_t> seen_;
    std::atomic<int> started_{0};
    tw::test::LoopThread runner_;
};

}  // namespace

TEST_F(UnixMessagePortsTest, RequestReplyKeepsNullApartFromEmptyCarriesLargePayloadsAndSurvivesTimeouts) {
    const std::string name = "com.tw.a.port.name.too.long.to.fit.in.a.socket.address.beside.the.hash.of.its.path.anyway";
    auto port = local(name, [](int32_t msgid, const Payload& data) -> Payload {
        if (msgid == 20) return Bytes{};
        if (msgid == 30) return std::nullopt;
        if (msgid == 40) throw std::runtime_error("callback-broke");
        if (msgid == 50) std::this_thread::sleep_for(150ms);
        return msgid == 10 ? data : tagged(msgid, data);
    });
    auto remote = service_.createRemote(name);
    ASSERT_NE(remote, nullptr);
    Bytes big(3 * 1024 * 1024 + 17);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 7 + i / 251);
    struct Case {
        const char* name;
        int32_t msgid;
        Payload request, reply;
    } cases[] = {
        {"null echoed", 10, std::nullopt, std::nullopt}, {"empty echoed", 10, Bytes{}, Bytes{}},
        {"binary echoed", 10, Bytes{0, 1, 0, 255}, Bytes{0, 1, 0, 255}}, {"3 MB echoed", 10, big, big},
        {"empty reply", 20, bytes("x"), Bytes{}}, {"null reply", 30, bytes("x"), std::nullopt},
        {"negative id", -7, bytes("neg"), bytes("-7:neg")}, {"throwing callback", 40, bytes("a"), std::nullopt},
    };
    testing::internal::CaptureStderr();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Payload reply = bytes("stale");
        EXPECT_EQ(remote->sendRequest(c.msgid, c.request, kPatience, kPatience, true, &reply), PortStatus::Success);
        EXPECT_EQ(reply, c.reply);
    }
    EXPECT_NE(testing::internal::GetCapturedStderr().find("callback-broke"), std::string::npos);
    EXPECT_EQ(remote->sendRequest(1, Bytes(kMaxFrameBody - 8), 1, 1, true, nullptr), PortStatus::TransportError);
    EXPECT_EQ(remote->sendRequest(50, bytes("slow"), 1, 0.02, true, nullptr), PortStatus::ReceiveTimeout);
    Payload reply;  // the late reply to the slow request arrives first and is skipped
    EXPECT_EQ(remote->sendRequest(2, bytes("next"), 1, kPatience, true, &reply), PortStatus::Success);
    EXPECT_EQ(text(reply), "2:next");
}

TEST_F(UnixMessagePortsTest, OnTheWireRepliesEchoTheSequenceAndOnlyRequestsThatAskGetOne) {
    auto port = recorder("com.tw.wire");
    RawSocket client(path("com.tw.wire"));
    ASSERT_TRUE(client.ok);
    ASSERT_TRUE(client.send(request(100, 0, false, std::nullopt) + request(101, 1, false, bytes("p")) +
                            request(0xDEADBEEF, 42, true, bytes("hi")) + request(7, 500, true, std::nullopt) +
                            request(102, 2, false, Bytes{})));
    EXPECT_EQ(client.read(9 + 5), frame(5 + 5, 0xDEADBEEF, std::nullopt, 2, bytes("42:hi")));
    EXPECT_EQ(client.read(9), frame(5, 7, std::nullopt, 0, {}));
    EXPECT_TRUE(eventually([&] { return seen().size() == 5; }));
    EXPECT_EQ(client.read(1, MSG_DONTWAIT), Bytes{}) << "a one-way message got a reply";
    EXPECT_EQ(seen(), (std::vector<int32_t>{0, 1, 42, 500, 2}));
}

TEST_F(UnixMessagePortsTest, MalformedRequestFrameClosesOnlyItsOwnConnection) {
    auto port = local("com.tw.strict");
    auto remote = service_.createRemote("com.tw.strict");
    ASSERT_NE(remote, nullptr);
    const std::pair<const char*, Bytes> cases[] = {
        {"shorter than a request", frame(8, 1, 1, 3, {})}, {"empty body", frame(0, 0, 0, 0, {})},
        {"over the limit", frame(uint32_t(kMaxFrameBody + 1), 1, 1, 3, bytes("x"))},
        {"absurd length", frame(0xFFFFFFFFu, 1, 1, 3, {})}, {"bytes on a null payload", frame(9 + 3, 1, 1, 1, bytes("abc"))}};
    for (const auto& [name, bad] : cases) {
        SCOPED_TRACE(name);
        RawSocket client(path("com.tw.strict"));
        EXPECT_TRUE(client.ok && client.send(bad) && client.closedByPeer());
        Payload reply;
        EXPECT_EQ(remote->sendRequest(5, bytes("still"), 1, kPatience, true, &reply), PortStatus::Success);
        EXPECT_EQ(text(reply), "5:still");
    }
}

TEST_F(UnixMessagePortsTest, MalformedReplyFailsTheSendAndInvalidatesTheRemote) {
    const std::pair<const char*, Bytes> cases[] = {
        {"shorter than a reply", Bytes{4, 0, 0, 0, 1, 0, 0, 0}},  // a sequence, no flags
        {"over the limit", frame(uint32_t(kMaxFrameBody + 1), 1, std::nullopt, 2, bytes("x"))},
        {"answers a request never sent", frame(5, 2, std::nullopt, 0, {})}};
    for (const auto& [name, bad] : cases) {
        SCOPED_TRACE(name);
        RawSocket owner(path(name), true);
        auto remote = service_.createRemote(name);
        ASSERT_TRUE(owner.ok && remote);
        RawSocket server(::accept4(owner.fd, nullptr, nullptr, SOCK_CLOEXEC));
        ASSERT_TRUE(server.send(bad));  // the connection stays open: only the frame is wrong
        EXPECT_EQ(remote->sendRequest(1, bytes("q"), 1, 0.3, true, nullptr), PortStatus::TransportError);
        EXPECT_EQ(remote->sendRequest(2, bytes("q"), 1, 0.3, true, nullptr), PortStatus::IsInvalid);
    }
}

TEST_F(UnixMessagePortsTest, RemotesFailWhenTheOwnerGoesAwayAndItsNameIsReleased) {
    auto port = local("com.tw.life");
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(local("com.tw.life"), nullptr) << "a live port's name was given out twice";
    tw::linuxp::UnixMessagePortService twin(root_.str() + "/b" + deep_ + "/run/ports");  // differs far from the end
    EXPECT_NE(twin.createLocal("com.tw.life", tagged, runner_.loop()), nullptr) << "two roots share a port name";
    auto polled = service_.createRemote("com.tw.life"), sending = service_.createRemote("com.tw.life");
    ASSERT_TRUE(polled && sending && polled->isValid());
    EXPECT_EQ(sending->sendRequest(1, std::nullopt, 1, kPatience, true, nullptr), PortStatus::Success);
    port->invalidate();
    EXPECT_FALSE(port->isValid());
    // Not asked isValid() first: the send itself finds the owner gone.
    EXPECT_EQ(sending->sendRequest(2, bytes("y"), 1, kPatience, true, nullptr), PortStatus::TransportError);
    EXPECT_EQ(sending->sendRequest(3, bytes("z"), 1, kPatience, false, nullptr), PortStatus::IsInvalid);
    EXPECT_TRUE(eventually([&] { return !polled->isValid(); }));
    EXPECT_EQ(service_.createRemote("com.tw.life"), nullptr);
    EXPECT_NE(local("com.tw.life"), nullptr);
}

TEST_F(UnixMessagePortsTest, DestroyingThePortFromAnotherThreadWaitsForARunningCallbackAndEndsDelivery) {
    std::atomic<int> calls{0}, inside{0};
    std::atomic<bool> stop{false};
    auto port = local("com.tw.load", [&](int32_t, const Payload&) -> Payload {
        ++inside;
        std::this_thread::sleep_for(100us);
        ++calls;
        --inside;
        return std::nullopt;
    });
    std::vector<std::thread> senders;
    for (int s = 0; s < 3; ++s)
        senders.emplace_back([&, remote = service_.createRemote("com.tw.load")] {
            while (remote && !stop && remote->sendRequest(1, bytes("x"), 1, 0, false, nullptr) == PortStatus::Success)
                std::this_thread::yield();
        });
    EXPECT_TRUE(eventually([&] { return calls > 50; }));
    port.reset();  // from this thread, while the loop thread is busy delivering
    EXPECT_EQ(inside, 0) << "a callback was still running";
    const int atDestroy = calls;
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(calls, atDestroy);
    stop = true;
    for (auto& t : senders) t.join();
}

TEST_F(UnixMessagePortsTest, CallbackThatInvalidatesItsPortGetsNothingMore) {
    std::shared_ptr<tw::LocalPort> port;
    std::atomic<int> calls{0};
    port = local("com.tw.self", [&](int32_t, const Payload&) -> Payload {
        ++calls;
        port->invalidate();  // from inside its own callback
        return std::nullopt;
    });
    RawSocket client(path("com.tw.self"));
    EXPECT_TRUE(client.ok && client.send(request(1, 1, false, {}) + request(2, 2, false, {}) + request(3, 3, true, {})));
    EXPECT_TRUE(client.closedByPeer());
    EXPECT_FALSE(port->isValid());
    EXPECT_EQ(calls, 1);
}

TEST_F(UnixMessagePortsTest, MessagesSentBeforeAClientLeavesAreStillDelivered) {
    auto port = recorder("com.tw.leaver", 50ms);  // the client is gone before the first reply is written
    {
        RawSocket client(path("com.tw.leaver"));
        EXPECT_TRUE(client.ok && client.send(request(1, 1, true, bytes("wants a reply"))));
        EXPECT_TRUE(eventually([&] { return started_ > 0; }));
        EXPECT_TRUE(client.send(request(2, 2, false, bytes("last words"))));
    }
    EXPECT_TRUE(eventually([&] { return seen() == std::vector<int32_t>{1, 2}; }));
}
