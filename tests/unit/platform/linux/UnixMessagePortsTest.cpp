#include "platform/linux/UnixMessagePorts.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "LoopThread.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using namespace tw;
using linuxp::kMaxFrameBody;
using test::eventually;

namespace {

constexpr double kPatience = 5.0;  // seconds; an upper bound, replies come much sooner

Bytes bytes(const std::string& text) { return Bytes(text.begin(), text.end()); }
std::string text(const Payload& payload) { return payload ? std::string(payload->begin(), payload->end()) : "<null>"; }
Payload tagged(int32_t msgid, const Payload& data) { return bytes(std::to_string(msgid) + ":" + text(data)); }

// u32 bodyLength | u32 sequence | (requests: i32 msgid) | u8 flags | payload, claiming any length.
Bytes frame(uint32_t bodyLength, uint32_t sequence, std::optional<int32_t> msgid, uint8_t flags, const Bytes& payload) {
    Bytes out(msgid ? 13 : 9);
    putLE<uint32_t>(out, 0, bodyLength);
    putLE<uint32_t>(out, 4, sequence);
    if (msgid) putLE<int32_t>(out, 8, *msgid);
    out.back() = flags;
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}
Bytes request(uint32_t sequence, int32_t msgid, bool expectReply, const Payload& payload = std::nullopt) {
    const Bytes body = payload.value_or(Bytes{});
    return frame(uint32_t(9 + body.size()), sequence, msgid, (expectReply ? 1 : 0) | (payload ? 2 : 0), body);
}

// A client speaking the wire format over a raw stream socket.
struct RawSocket {
    explicit RawSocket(const std::string& path) : fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address;
        const socklen_t length = linuxp::abstractSocketAddress(path, address);
        ok = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0;
        const timeval patience{3, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    ~RawSocket() { ::close(fd); }
    bool send(const std::vector<Bytes>& frames) {
        Bytes all;
        for (const auto& f : frames) all.insert(all.end(), f.begin(), f.end());
        return ::send(fd, all.data(), all.size(), MSG_NOSIGNAL) == ssize_t(all.size());
    }
    Bytes read(size_t count) {
        Bytes out(count);
        out.resize(std::max<ssize_t>(0, ::recv(fd, out.data(), count, MSG_WAITALL)));
        return out;
    }
    // True when the other side closes the connection; whatever it still sends first is skipped.
    bool closedByPeer() {
        for (uint8_t buffer[4096];;)
            if (const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0); n <= 0) return n == 0 || errno == ECONNRESET;
    }
    const int fd;
    bool ok = false;
};

class UnixMessagePortsTest : public testing::Test {
protected:
    std::string path(const std::string& port) const { return portsDir_ + "/" + port; }
    std::shared_ptr<LocalPort> local(const std::string& name, LocalPortCallback callback = tagged) {
        return service_.createLocal(name, std::move(callback), runner_.loop());
    }
    test::TempDir root_{"tw-ports"};
    std::string deep_ = "/" + std::string(70, 's') + "/" + std::string(70, 's') + "/" + std::string(70, 's');
    std::string portsDir_ = root_.str() + "/a" + deep_ + "/run/ports";  // deeper than a socket path may be
    linuxp::UnixMessagePortService service_{portsDir_};
    test::LoopThread runner_;
};

}  // namespace

TEST_F(UnixMessagePortsTest, RequestReplyKeepsNullApartFromEmptyCarriesLargePayloadsAndSurvivesTimeouts) {
    const std::string name = "com.tw.a.port.name.too.long.to.fit.in.a.socket.address.beside.the.hash.of.its.path.anyway";
    auto port = local(name, [](int32_t msgid, const Payload& data) -> Payload {
        if (msgid == 30) return std::nullopt;
        if (msgid == 40) throw std::runtime_error("callback-broke");
        if (msgid == 50) std::this_thread::sleep_for(150ms);
        return msgid == 10 ? data : tagged(msgid, data);
    });
    auto remote = service_.createRemote(name);
    ASSERT_NE(remote, nullptr);
    Bytes big(3 * 1024 * 1024 + 17);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 7 + i / 251);
    const struct { const char* name; int32_t msgid; Payload request, reply; } cases[] = {
        {"null echoed", 10, std::nullopt, std::nullopt}, {"empty echoed", 10, Bytes{}, Bytes{}}, {"3 MB echoed", 10, big, big},
        {"null reply", 30, bytes("x"), std::nullopt}, {"negative id", -7, bytes("neg"), bytes("-7:neg")}, {"throwing callback", 40, bytes("a"), std::nullopt}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Payload reply = bytes("stale");
        EXPECT_EQ(remote->sendRequest(c.msgid, c.request, kPatience, kPatience, true, &reply), PortStatus::Success);
        EXPECT_EQ(reply, c.reply);
    }
    EXPECT_EQ(remote->sendRequest(1, Bytes(kMaxFrameBody - 8), 1, 1, true, nullptr), PortStatus::TransportError);
    EXPECT_EQ(remote->sendRequest(50, bytes("slow"), 1, 0.02, true, nullptr), PortStatus::ReceiveTimeout);
    Payload reply;  // the late reply to the slow request arrives first and is skipped
    EXPECT_EQ(remote->sendRequest(2, bytes("next"), 1, kPatience, true, &reply), PortStatus::Success);
    EXPECT_EQ(text(reply), "2:next");
}

TEST_F(UnixMessagePortsTest, OnTheWireOnlyRequestsThatAskGetAReplyAndOnlyAMalformedFrameOrItsClientLeavingEndsAConnection) {
    std::atomic<int> slow{0}, lastWords{0};
    auto port = local("com.tw.wire", [&](int32_t msgid, const Payload& data) -> Payload {
        if (msgid == 77) ++slow, std::this_thread::sleep_for(50ms);  // its client is gone before the reply is written
        lastWords += msgid == 78;
        return msgid ? tagged(msgid, data) : std::nullopt;
    });
    RawSocket client(path("com.tw.wire"));
    ASSERT_TRUE(client.ok && client.send({request(100, 1, false, bytes("p")), request(0xDEADBEEF, 42, true, bytes("hi")),
                                          request(101, 2, false), request(7, 0, true), request(8, 3, true, Bytes{})}));
    EXPECT_EQ(client.read(9 + 5), frame(5 + 5, 0xDEADBEEF, std::nullopt, 2, bytes("42:hi")));
    EXPECT_EQ(client.read(9), frame(5, 7, std::nullopt, 0, {}));
    EXPECT_EQ(client.read(9 + 2), frame(5 + 2, 8, std::nullopt, 2, bytes("3:"))) << "a one-way message got a reply";
    const std::pair<const char*, Bytes> cases[] = {
        {"shorter than a request", frame(8, 1, 1, 3, {})},
        {"over the limit", frame(uint32_t(kMaxFrameBody + 1), 1, 1, 3, bytes("x"))},
        {"bytes on a null payload", frame(9 + 3, 1, 1, 1, bytes("abc"))}};
    for (const auto& [name, bad] : cases) {
        SCOPED_TRACE(name);
        RawSocket other(path("com.tw.wire"));
        EXPECT_TRUE(other.ok && other.send({bad}) && other.closedByPeer());
        EXPECT_TRUE(client.send({request(9, 5, true, bytes("still"))}));
        EXPECT_EQ(client.read(9 + 7), frame(5 + 7, 9, std::nullopt, 2, bytes("5:still")));
    }
    {
        RawSocket leaver(path("com.tw.wire"));
        EXPECT_TRUE(leaver.ok && leaver.send({request(1, 77, true, bytes("wants a reply"))}));
        EXPECT_TRUE(eventually([&] { return slow > 0; }));
        EXPECT_TRUE(leaver.send({request(2, 78, false, bytes("last words"))}));
    }
    EXPECT_TRUE(eventually([&] { return lastWords == 1; })) << "what a leaving client sent last was dropped";
}

TEST_F(UnixMessagePortsTest, PortInvalidatedFromItsOwnCallbackGetsNothingMoreFailsItsRemotesAndReleasesItsName) {
    std::shared_ptr<LocalPort> port;
    std::atomic<int> calls{0};
    port = local("com.tw.life", [&](int32_t msgid, const Payload& data) {
        ++calls;
        if (msgid == 99) port->invalidate();  // from inside its own callback
        return tagged(msgid, data);
    });
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(local("com.tw.life"), nullptr) << "a live port's name was given out twice";
    linuxp::UnixMessagePortService twin(root_.str() + "/b" + deep_ + "/run/ports");  // differs far from the end
    EXPECT_NE(twin.createLocal("com.tw.life", tagged, runner_.loop()), nullptr) << "two roots share a port name";
    auto polled = service_.createRemote("com.tw.life"), sending = service_.createRemote("com.tw.life");
    RawSocket client(path("com.tw.life"));
    ASSERT_TRUE(polled && sending && polled->isValid() && client.ok);
    EXPECT_TRUE(client.send({request(1, 99, false), request(2, 2, false), request(3, 3, true)}) && client.closedByPeer());
    EXPECT_FALSE(port->isValid());
    EXPECT_EQ(calls, 1);
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
        ++inside, std::this_thread::sleep_for(100us), ++calls, --inside;
        return std::nullopt;
    });
    std::thread sender([&, remote = service_.createRemote("com.tw.load")] {
        while (remote && !stop && remote->sendRequest(1, bytes("x"), 1, 0, false, nullptr) == PortStatus::Success) continue;
    });
    EXPECT_TRUE(eventually([&] { return calls > 50; }));
    port.reset();  // from this thread, while the loop thread is busy delivering
    EXPECT_EQ(inside, 0) << "a callback was still running";
    const int atDestroy = calls;
    runner_.loop().postAndWait([] {});  // whatever was already read has been handled
    EXPECT_EQ(calls, atDestroy);
    stop = true, sender.join();
}
