#include "platform/linux/UnixMessagePorts.h"
#include "core/Diagnostics.h"

#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string_view>
#include <unordered_set>

#include "platform/linux/AsioRunLoop.h"
#include "platform/linux/OutgoingQueue.h"

namespace tw::linuxp {

namespace {

// The abstract name follows the leading NUL of sun_path.
constexpr size_t kMaxAbstractName = sizeof(sockaddr_un::sun_path) - 1;
constexpr std::string_view kNamePrefix = "tapwright:";
constexpr std::string_view kHashedNamePrefix = "tapwright#";

constexpr uint8_t kFlagExpectsReply = 1u << 0;
constexpr uint8_t kFlagHasPayload = 1u << 1;
constexpr size_t kLengthField = 4;
constexpr size_t kRequestHeader = 9;  // sequence, msgid, flags
constexpr size_t kReplyHeader = 5;    // sequence, flags

// How long createRemote() waits for an owner whose listen backlog is full.
constexpr time_t kConnectTimeoutSeconds = 5;

uint64_t fnv1a64(std::string_view text) {
    uint64_t hash = 14695981039346656037ull;
    for (unsigned char c : text) {
        hash ^= c;
        hash *= 1099511628211ull;
    }
    return hash;
}

socklen_t makeAddress(const std::string& name, sockaddr_un& address) {
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());  // sun_path[0] stays NUL
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
}

}  // namespace

socklen_t abstractSocketAddress(const std::string& path, sockaddr_un& address) {
    return makeAddress(abstractSocketName(path), address);
}

namespace {

std::string socketNameFor(const std::string& portsDir, const std::string& name) {
    return abstractSocketName(portsDir + "/" + name);
}

Bytes encodeRequest(uint32_t sequence, int32_t msgid, bool expectReply, const Payload& data) {
    const size_t payloadSize = data ? data->size() : 0;
    Bytes frame(kLengthField + kRequestHeader + payloadSize);
    putLE<uint32_t>(frame, 0, static_cast<uint32_t>(kRequestHeader + payloadSize));
    putLE<uint32_t>(frame, 4, sequence);
    putLE<int32_t>(frame, 8, msgid);
    frame[12] = static_cast<uint8_t>((expectReply ? kFlagExpectsReply : 0) | (data ? kFlagHasPayload : 0));
    if (payloadSize) std::memcpy(frame.data() + kLengthField + kRequestHeader, data->data(), payloadSize);
    return frame;
}

Bytes encodeReply(uint32_t sequence, const Payload& data) {
    const size_t payloadSize = data ? data->size() : 0;
    Bytes frame(kLengthField + kReplyHeader + payloadSize);
    putLE<uint32_t>(frame, 0, static_cast<uint32_t>(kReplyHeader + payloadSize));
    putLE<uint32_t>(frame, 4, sequence);
    frame[8] = data ? kFlagHasPayload : 0;
    if (payloadSize) std::memcpy(frame.data() + kLengthField + kReplyHeader, data->data(), payloadSize);
    return frame;
}

void reportPortProblem(const std::string& port, const char* what) {
    diagnostic("message port '%s': %s", port.c_str(), what);
}

// ---------------------------------------------------------------------------------------------
// Local side.
//
// Everything runs on the loop thread except invalidate(), which may come from any thread. Socket
// operations are started and the sockets closed only under ioMutex_, so a cross-thread
// invalidate() never races the loop thread on an Asio object. The callback runs under
// dispatchMutex_ (recursive, so the callback may invalidate its own port), which makes
// invalidate() wait for a running callback and keeps any later one from starting.
// Every pending Asio operation holds the core and its connection by shared_ptr.

class LocalPortCore : public std::enable_shared_from_this<LocalPortCore> {
public:
    LocalPortCore(asio::io_context& context, std::string name, LocalPortCallback callback)
        : context_(context), name_(std::move(name)), callback_(std::move(callback)), acceptor_(context),
          retryTimer_(context) {}

    // Takes over a bound, listening socket and starts accepting.
    bool start(int listeningFd) {
        std::lock_guard lock(ioMutex_);
        asio::error_code error;
        acceptor_.assign(asio::local::stream_protocol(), listeningFd, error);
        if (error) {
            ::close(listeningFd);
            valid_ = false;
            return false;
        }
        startAcceptLocked();
        return true;
    }

    bool isValid() const { return valid_; }

    void invalidate() {
        std::lock_guard dispatch(dispatchMutex_);
        std::lock_guard io(ioMutex_);
        if (!valid_.exchange(false)) return;
        asio::error_code ignored;
        acceptor_.close(ignored);
        retryTimer_.cancel();
        for (auto& connection : connections_) {
            connection->closed = true;
            connection->socket.close(ignored);
        }
        connections_.clear();
    }

private:
    struct Connection {
        explicit Connection(asio::io_context& context) : socket(context) {}
        asio::local::stream_protocol::socket socket;
        std::atomic<bool> closed{false};
        // Loop thread only.
        std::array<uint8_t, 64 * 1024> chunk{};
        Bytes inbox;
        size_t inboxStart = 0;
        // Under ioMutex_: the reply frames on their way out.
        OutgoingQueue outgoing;
        // The client stopped taking replies (it may have sent its last messages and left):
        // replies are dropped, but what it sent is still read and delivered.
        bool writeBroken = false;
    };
    using ConnectionPtr = std::shared_ptr<Connection>;

    void startAcceptLocked() {
        auto connection = std::make_shared<Connection>(context_);
        acceptor_.async_accept(connection->socket,
                               [self = shared_from_this(), connection](const asio::error_code& error) {
                                   self->accepted(connection, error);
                               });
    }

    void accepted(const ConnectionPtr& connection, const asio::error_code& error) {
        std::lock_guard lock(ioMutex_);
        asio::error_code ignored;
        if (!valid_) {
            connection->socket.close(ignored);
            return;
        }
        if (error) {
            if (error == asio::error::operation_aborted) return;
            // Typically out of descriptors: back off instead of spinning on the failure.
            reportPortProblem(name_, ("accept failed: " + error.message()).c_str());
            retryTimer_.expires_after(std::chrono::milliseconds(100));
            retryTimer_.async_wait([self = shared_from_this()](const asio::error_code& timerError) {
                if (timerError) return;
                std::lock_guard relock(self->ioMutex_);
                if (self->valid_) self->startAcceptLocked();
            });
            return;
        }
        connections_.insert(connection);
        startReadLocked(connection);
        startAcceptLocked();
    }

    void startReadLocked(const ConnectionPtr& connection) {
        connection->socket.async_read_some(
            asio::buffer(connection->chunk),
            [self = shared_from_this(), connection](const asio::error_code& error, size_t count) {
                self->received(connection, error, count);
            });
    }

    void received(const ConnectionPtr& connection, const asio::error_code& error, size_t count) {
        {
            std::lock_guard lock(ioMutex_);
            if (connection->closed) return;
            if (error) {  // end of stream or a broken connection
                closeLocked(connection);
                return;
            }
        }
        connection->inbox.insert(connection->inbox.end(), connection->chunk.begin(),
                                 connection->chunk.begin() + static_cast<ptrdiff_t>(count));
        processInbox(connection);

        std::lock_guard lock(ioMutex_);
        if (connection->closed) return;
        auto& inbox = connection->inbox;
        inbox.erase(inbox.begin(), inbox.begin() + static_cast<ptrdiff_t>(connection->inboxStart));
        connection->inboxStart = 0;
        startReadLocked(connection);
    }

    // Handles every complete frame in the inbox, in order.
    void processInbox(const ConnectionPtr& connection) {
        auto& inbox = connection->inbox;
        for (;;) {
            if (connection->closed) return;
            RequestFrame frame;
            switch (parseRequestFrame(inbox.data() + connection->inboxStart, inbox.size() - connection->inboxStart,
                                      frame)) {
                case FrameParse::Incomplete:
                    return;
                case FrameParse::Malformed:
                    closeConnection(connection);
                    return;
                case FrameParse::Complete:
                    break;
            }
            connection->inboxStart += frame.size;

            Payload reply;
            if (!deliver(frame.msgid, frame.data, reply)) return;
            if (!frame.expectsReply) continue;
            if (reply && reply->size() > kMaxFrameBody - kReplyHeader) {
                reportPortProblem(name_, "reply payload too large; closing the connection");
                closeConnection(connection);
                return;
            }
            queueReply(connection, encodeReply(frame.sequence, reply));
        }
    }

    // Calls the callback unless the port has been invalidated; returns whether it was called.
    bool deliver(int32_t msgid, const Payload& data, Payload& reply) {
        std::lock_guard lock(dispatchMutex_);
        if (!valid_) return false;
        try {
            reply = callback_(msgid, data);
        } catch (const std::exception& e) {
            reportPortProblem(name_, (std::string("callback failed: ") + e.what()).c_str());
            reply.reset();
        } catch (...) {
            reportPortProblem(name_, "callback failed with an unknown exception");
            reply.reset();
        }
        return true;
    }

    void queueReply(const ConnectionPtr& connection, Bytes frame) {
        std::lock_guard lock(ioMutex_);
        if (connection->closed || connection->writeBroken) return;
        if (connection->outgoing.push(std::string_view(reinterpret_cast<const char*>(frame.data()), frame.size())))
            startWriteLocked(connection);
    }

    void startWriteLocked(const ConnectionPtr& connection) {
        connection->socket.async_write_some(
            asio::buffer(connection->outgoing.data(), connection->outgoing.size()),
            [self = shared_from_this(), connection](const asio::error_code& error, size_t count) {
                self->wrote(connection, error, count);
            });
    }

    void wrote(const ConnectionPtr& connection, const asio::error_code& error, size_t count) {
        std::lock_guard lock(ioMutex_);
        if (connection->closed) return;
        if (error) {
            connection->writeBroken = true;
            connection->outgoing.clear();
            return;
        }
        if (connection->outgoing.wrote(count)) startWriteLocked(connection);
    }

    void closeConnection(const ConnectionPtr& connection) {
        std::lock_guard lock(ioMutex_);
        closeLocked(connection);
    }

    void closeLocked(const ConnectionPtr& connection) {
        if (connection->closed.exchange(true)) return;
        asio::error_code ignored;
        connection->socket.close(ignored);
        connections_.erase(connection);
    }

    asio::io_context& context_;
    const std::string name_;
    const LocalPortCallback callback_;
    std::atomic<bool> valid_{true};
    std::recursive_mutex dispatchMutex_;
    std::mutex ioMutex_;
    asio::local::stream_protocol::acceptor acceptor_;
    asio::steady_timer retryTimer_;
    std::unordered_set<ConnectionPtr> connections_;
};

class UnixLocalPort final : public LocalPort {
public:
    UnixLocalPort(std::shared_ptr<RunLoop> loop, std::shared_ptr<LocalPortCore> core, std::string name)
        : loop_(std::move(loop)), core_(std::move(core)), name_(std::move(name)) {}
    ~UnixLocalPort() override { core_->invalidate(); }

    const std::string& name() const override { return name_; }
    bool isValid() const override { return core_->isValid(); }
    void invalidate() override { core_->invalidate(); }

private:
    // Keeps a shared loop alive as long as the port's sockets; declared first, released last.
    std::shared_ptr<RunLoop> loop_;
    std::shared_ptr<LocalPortCore> core_;
    std::string name_;
};

// ---------------------------------------------------------------------------------------------
// Remote side: a blocking client on a non-blocking socket, every wait bounded by poll().

class Deadline {
public:
    explicit Deadline(double seconds) {
        if (std::isnan(seconds) || seconds <= 0) {
            at_ = std::chrono::steady_clock::now();
        } else if (seconds < 1e9) {
            at_ = std::chrono::steady_clock::now() +
                  std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                      std::chrono::duration<double>(seconds));
        }  // else: no deadline
    }

    // Milliseconds left for poll(): -1 without a deadline, rounded up so a wait never ends early.
    int pollTimeout() const {
        if (!at_) return -1;
        const auto left = *at_ - std::chrono::steady_clock::now();
        if (left <= std::chrono::steady_clock::duration::zero()) return 0;
        const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
        return static_cast<int>(std::min<int64_t>(ms, 1 << 30));
    }

private:
    std::optional<std::chrono::steady_clock::time_point> at_;
};

class UnixRemotePort final : public RemotePort {
public:
    explicit UnixRemotePort(int fd) : fd_(fd) {}
    ~UnixRemotePort() override { ::close(fd_); }

    bool isValid() override {
        if (invalid_) return false;
        pollfd entry{fd_, POLLIN, 0};
        if (::poll(&entry, 1, 0) <= 0) return true;
        bool gone = entry.revents & (POLLHUP | POLLERR | POLLNVAL);
        if (!gone && (entry.revents & POLLIN)) {
            uint8_t byte;
            gone = ::recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
        }
        if (gone) invalid_ = true;
        return !gone;
    }

    PortStatus sendRequest(int32_t msgid, const Payload& data, double sendTimeout, double receiveTimeout,
                           bool expectReply, Payload* reply) override {
        std::lock_guard lock(mutex_);
        if (invalid_) return PortStatus::IsInvalid;
        if (data && data->size() > kMaxFrameBody - kRequestHeader) return PortStatus::TransportError;

        const uint32_t sequence = nextSequence_++;
        const Bytes frame = encodeRequest(sequence, msgid, expectReply, data);
        size_t sent = 0;
        switch (sendAll(frame, Deadline(sendTimeout), sent)) {
            case Io::Ok:
                break;
            case Io::Timeout:
                // Half a frame on the wire leaves the stream unusable.
                if (sent > 0) markInvalid();
                return PortStatus::SendTimeout;
            case Io::Closed:
                markInvalid();
                return PortStatus::TransportError;
        }
        if (!expectReply) return PortStatus::Success;

        const Deadline deadline(receiveTimeout);
        for (;;) {
            while (rx_.size() >= kLengthField) {
                const uint32_t bodyLength = getLE<uint32_t>(rx_.data(), 0);
                if (bodyLength < kReplyHeader || bodyLength > kMaxFrameBody) {
                    markInvalid();
                    return PortStatus::TransportError;
                }
                if (rx_.size() - kLengthField < bodyLength) break;
                const uint32_t replySequence = getLE<uint32_t>(rx_.data(), 4);
                const uint8_t flags = rx_[8];
                const auto frameEnd = rx_.begin() + static_cast<ptrdiff_t>(kLengthField + bodyLength);
                if (replySequence == sequence) {
                    if (reply) {
                        if (flags & kFlagHasPayload)
                            reply->emplace(rx_.begin() + kLengthField + kReplyHeader, frameEnd);
                        else
                            reply->reset();
                    }
                    rx_.erase(rx_.begin(), frameEnd);
                    return PortStatus::Success;
                }
                if (static_cast<int32_t>(replySequence - sequence) > 0) {  // answers nothing we sent
                    markInvalid();
                    return PortStatus::TransportError;
                }
                rx_.erase(rx_.begin(), frameEnd);  // late reply to a request that timed out
            }
            switch (receiveMore(deadline)) {
                case Io::Ok:
                    break;
                case Io::Timeout:
                    return PortStatus::ReceiveTimeout;
                case Io::Closed:
                    markInvalid();
                    return PortStatus::TransportError;
            }
        }
    }

private:
    enum class Io { Ok, Timeout, Closed };

    // Waits for `events`; false when the deadline passed first.
    bool waitFor(short events, const Deadline& deadline) {
        for (;;) {
            pollfd entry{fd_, events, 0};
            const int ready = ::poll(&entry, 1, deadline.pollTimeout());
            if (ready > 0) return true;  // readiness, hang-up or error: the next call tells which
            if (ready == 0) return false;
            if (errno != EINTR) return true;
        }
    }

    Io sendAll(const Bytes& frame, const Deadline& deadline, size_t& sent) {
        while (sent < frame.size()) {
            const ssize_t count = ::send(fd_, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (count > 0) {
                sent += static_cast<size_t>(count);
                continue;
            }
            if (count < 0 && errno == EINTR) continue;
            if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                if (!waitFor(POLLOUT, deadline)) return Io::Timeout;
                continue;
            }
            return Io::Closed;
        }
        return Io::Ok;
    }

    // Appends whatever arrives next to rx_.
    Io receiveMore(const Deadline& deadline) {
        uint8_t buffer[64 * 1024];
        for (;;) {
            const ssize_t count = ::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
            if (count > 0) {
                rx_.insert(rx_.end(), buffer, buffer + count);
                return Io::Ok;
            }
            if (count == 0) return Io::Closed;
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                if (!waitFor(POLLIN, deadline)) return Io::Timeout;
                continue;
            }
            return Io::Closed;
        }
    }

    void markInvalid() {
        invalid_ = true;
        ::shutdown(fd_, SHUT_RDWR);  // the descriptor itself stays open until destruction
    }

    const int fd_;
    std::atomic<bool> invalid_{false};
    std::mutex mutex_;  // one request at a time on the connection
    uint32_t nextSequence_ = 1;
    Bytes rx_;  // received bytes not yet consumed; may hold a partial or late reply
};

}  // namespace

FrameParse parseRequestFrame(const uint8_t* bytes, size_t size, RequestFrame& frame) {
    if (size < kLengthField) return FrameParse::Incomplete;
    const uint32_t bodyLength = getLE<uint32_t>(bytes, 0);
    if (bodyLength < kRequestHeader || bodyLength > kMaxFrameBody) return FrameParse::Malformed;
    if (size - kLengthField < bodyLength) return FrameParse::Incomplete;

    const uint8_t* body = bytes + kLengthField;
    const uint8_t flags = body[8];
    const size_t payloadSize = bodyLength - kRequestHeader;
    if (!(flags & kFlagHasPayload) && payloadSize != 0) return FrameParse::Malformed;
    frame.sequence = getLE<uint32_t>(body, 0);
    frame.msgid = getLE<int32_t>(body, 4);
    frame.expectsReply = flags & kFlagExpectsReply;
    frame.data.reset();
    if (flags & kFlagHasPayload) frame.data.emplace(body + kRequestHeader, body + kRequestHeader + payloadSize);
    frame.size = kLengthField + bodyLength;
    return FrameParse::Complete;
}

std::string abstractSocketName(const std::string& path) {
    if (kNamePrefix.size() + path.size() <= kMaxAbstractName) return std::string(kNamePrefix) + path;
    // Too long: identify the path by its hash and keep as much of the port name as fits, which
    // is only there to make the address readable in socket listings.
    char hash[17];
    std::snprintf(hash, sizeof hash, "%016llx", static_cast<unsigned long long>(fnv1a64(path)));
    std::string name = std::string(kHashedNamePrefix) + hash + ":";
    const size_t slash = path.find_last_of('/');
    const std::string_view leaf = slash == std::string::npos ? std::string_view(path)
                                                             : std::string_view(path).substr(slash + 1);
    name += leaf.substr(0, kMaxAbstractName - name.size());
    return name;
}

UnixMessagePortService::UnixMessagePortService(std::string portsDir) : portsDir_(std::move(portsDir)) {}

std::shared_ptr<LocalPort> UnixMessagePortService::createLocal(const std::string& name, LocalPortCallback callback,
                                                               RunLoop& loop) {
    auto* asioLoop = dynamic_cast<AsioRunLoop*>(&loop);
    if (!asioLoop) return nullptr;

    // The address is abstract, but the runtime folder is expected to exist alongside it.
    std::error_code ignored;
    std::filesystem::create_directories(portsDir_, ignored);

    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return nullptr;
    sockaddr_un address;
    const socklen_t length = makeAddress(socketNameFor(portsDir_, name), address);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0 || ::listen(fd, SOMAXCONN) != 0) {
        ::close(fd);  // EADDRINUSE: a live port owns the name
        return nullptr;
    }

    auto core = std::make_shared<LocalPortCore>(asioLoop->context(), name, std::move(callback));
    if (!core->start(fd)) return nullptr;
    return std::make_shared<UnixLocalPort>(asioLoop->weak_from_this().lock(), std::move(core), name);
}

std::shared_ptr<RemotePort> UnixMessagePortService::createRemote(const std::string& name) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    // Bounds the blocking connect when the owner is alive but not accepting.
    const timeval connectTimeout{kConnectTimeoutSeconds, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &connectTimeout, sizeof connectTimeout);
    sockaddr_un address;
    const socklen_t length = makeAddress(socketNameFor(portsDir_, name), address);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        ::close(fd);
        return nullptr;
    }
    return std::make_shared<UnixRemotePort>(fd);
}

}  // namespace tw::linuxp
