#include "device/HubEventClient.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <asio/local/stream_protocol.hpp>
#include <asio/read_until.hpp>
#include <asio/steady_timer.hpp>
#include <asio/streambuf.hpp>
#include <asio/write.hpp>
#include <istream>

#include "device/EventTrace.h"
#include "device/VirtualHidSystem.h"
#include "platform/linux/AsioRunLoop.h"
#include "platform/linux/UnixMessagePorts.h"

namespace tw::device {

namespace {

constexpr auto kResubscribeDelay = std::chrono::milliseconds(100);

class HubEventClient final : public HidEventClient, public std::enable_shared_from_this<HubEventClient> {
public:
    HubEventClient(std::shared_ptr<linuxp::AsioRunLoop> loop, std::string runDir)
        : loop_(std::move(loop)), runDir_(std::move(runDir)), socket_(loop_->context()), retry_(loop_->context()) {}

    void registerEventCallback(EventCallback callback) override {
        callback_ = std::move(callback);
        ++generation_;
        subscribe();
    }

    bool isListening() const override { return listening_; }

    void unregisterEventCallback() override {
        listening_ = false;
        callback_ = nullptr;
        ++generation_;  // handlers still queued see they are stale
        std::error_code ignored;
        socket_.close(ignored);
        retry_.cancel();
    }

private:
    void subscribe() {
        std::error_code ignored;
        socket_.close(ignored);
        input_.consume(input_.size());
        sockaddr_un address{};
        const socklen_t length = linuxp::abstractSocketAddress(hubSocketPath(runDir_), address);
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
            if (fd >= 0) ::close(fd);
            retryLater();
            return;
        }
        std::error_code code;
        socket_.assign(asio::local::stream_protocol(), fd, code);
        static const std::string request = "subscribe\n";
        if (code || asio::write(socket_, asio::buffer(request), code) != request.size()) {
            retryLater();
            return;
        }
        listening_ = true;
        readNext();
    }

    void retryLater() {
        listening_ = false;
        if (!callback_) return;
        retry_.expires_after(kResubscribeDelay);
        retry_.async_wait([self = shared_from_this(), generation = generation_](const std::error_code& code) {
            if (!code && generation == self->generation_) self->subscribe();
        });
    }

    void readNext() {
        asio::async_read_until(
            socket_, input_, '\n',
            [self = shared_from_this(), generation = generation_](const std::error_code& code, size_t) {
                if (generation != self->generation_) return;
                if (code) {
                    self->retryLater();  // the hub went away
                    return;
                }
                std::istream in(&self->input_);
                std::string line;
                std::getline(in, line);
                if (const auto event = eventFromTraceLine(line); event && self->callback_) {
                    auto callback = self->callback_;  // it may unregister itself
                    callback(*event);
                }
                if (generation == self->generation_) self->readNext();
            });
    }

    std::shared_ptr<linuxp::AsioRunLoop> loop_;
    std::string runDir_;
    asio::local::stream_protocol::socket socket_;
    asio::steady_timer retry_;
    asio::streambuf input_{kMaxHidLine + 1};
    EventCallback callback_;
    uint64_t generation_ = 0;
    bool listening_ = false;
};

}  // namespace

std::shared_ptr<HidEventClient> HubEventClients::createClient() { return std::make_shared<HubEventClient>(loop_, runDir_); }

}  // namespace tw::device
