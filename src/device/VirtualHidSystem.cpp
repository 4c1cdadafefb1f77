#include "device/VirtualHidSystem.h"
#include "core/Diagnostics.h"

#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "device/EventTrace.h"
#include "platform/linux/AsioRunLoop.h"
#include "platform/linux/OutgoingQueue.h"
#include "platform/linux/UnixMessagePorts.h"

namespace tw::device {

std::string hubSocketPath(const std::string& runDir) { return runDir + "/hid"; }
std::string hardwareSocketPath(const std::string& runDir) { return runDir + "/hardware"; }

namespace {

using Socket = asio::local::stream_protocol::socket;
using Acceptor = asio::local::stream_protocol::acceptor;

// Deeper JSON than this is refused before parsing: nothing legitimate nests that far, and writing
// a value back out recurses once per level.
constexpr int kMaxJsonDepth = 64;

void report(const std::string& what) {
    diagnostic("hid: %s", what.c_str());
}

bool nestingWithin(std::string_view text, int limit) {
    int depth = 0;
    bool inString = false, escaped = false;
    for (char c : text) {
        if (inString) {
            if (escaped) escaped = false;
            else if (c == '\\') escaped = true;
            else if (c == '"') inString = false;
            continue;
        }
        if (c == '"') inString = true;
        else if (c == '[' || c == '{') {
            if (++depth > limit) return false;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return true;
}

// Binds a listening stream socket at the abstract address for `path`; -1 and errno on failure.
int listenAt(const std::string& path) {
    sockaddr_un address;
    const socklen_t length = linuxp::abstractSocketAddress(path, address);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0 || ::listen(fd, SOMAXCONN) != 0) {
        const int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

std::optional<uint32_t> unsignedField(const nlohmann::json& object, const char* key, uint64_t max) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_number_integer()) return std::nullopt;
    if (it->is_number_unsigned()) {
        const auto value = it->get<uint64_t>();
        if (value > max) return std::nullopt;
        return static_cast<uint32_t>(value);
    }
    const auto value = it->get<int64_t>();
    if (value < 0 || static_cast<uint64_t>(value) > max) return std::nullopt;
    return static_cast<uint32_t>(value);
}

std::optional<double> finiteField(const nlohmann::json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_number()) return std::nullopt;
    const auto value = it->get<double>();
    if (!std::isfinite(value)) return std::nullopt;
    return value;
}

const std::string* stringField(const nlohmann::json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_string()) return nullptr;
    return it->get_ptr<const std::string*>();
}

enum class Phase { Down, Move, Up };

struct HardwareFinger {
    Phase phase = Phase::Down;
    double x = 0;  // pixels
    double y = 0;
};

}  // namespace

HubRequest parseHubLine(std::string_view line) {
    constexpr std::string_view kPublish = "publish ";
    if (line == "subscribe") return {HubRequest::Subscribe, {}};
    if (line.substr(0, kPublish.size()) == kPublish) {
        const std::string_view body = line.substr(kPublish.size());
        if (nestingWithin(body, kMaxJsonDepth)) {
            auto value = nlohmann::ordered_json::parse(body.begin(), body.end(), nullptr, false);
            if (!value.is_discarded() && value.is_object())
                return {HubRequest::Publish, value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace)};
        }
    }
    return {};
}

// Everything below runs on the loop thread. Pending socket operations hold the core (and their
// connection) by shared_ptr; once stopped, their handlers return without touching anything else.
class VirtualHidSystem::Core : public std::enable_shared_from_this<Core> {
public:
    Core(linuxp::AsioRunLoop& loop, std::string runDir, ScreenPixels screen, std::optional<std::string> traceFile)
        : loop_(loop),
          runDir_(std::move(runDir)),
          screen_(screen),
          hub_(loop.context()),
          hardware_(loop.context()),
          hubRetry_(loop.context()),
          hardwareRetry_(loop.context()) {
        if (traceFile) trace_.emplace(*traceFile);
    }

    enum class Kind { Hub, Hardware };

    struct Connection {
        Connection(asio::io_context& context, Kind kind) : socket(context), kind(kind) {}
        Socket socket;
        const Kind kind;
        bool closed = false;
        std::array<char, 16 * 1024> chunk{};
        std::string inbox;
        size_t scanned = 0;  // inbox bytes already known to hold no newline
        bool subscriber = false;
        // Outgoing trace lines of a subscriber: the buffer being written and the lines behind it.
        linuxp::OutgoingQueue outgoing;
    };
    using ConnectionPtr = std::shared_ptr<Connection>;

    bool start(std::string* error) {
        if (running_) return true;
        std::error_code ignored;
        std::filesystem::create_directories(runDir_, ignored);
        auto fail = [&](const std::string& message) {
            if (error) *error = message;
            closeAll();
            return false;
        };
        auto bindError = [&](const std::string& path) {
            const int code = errno;
            if (code == EADDRINUSE)
                return "cannot listen at " + path + ": another device is already running on " + runDir_;
            return "cannot listen at " + path + ": " + std::strerror(code);
        };

        stopped_ = false;
        const std::string hubPath = hubSocketPath(runDir_);
        const int hubFd = listenAt(hubPath);
        if (hubFd < 0) return fail(bindError(hubPath));
        asio::error_code code;
        hub_.assign(asio::local::stream_protocol(), hubFd, code);
        if (code) {
            ::close(hubFd);
            return fail("cannot listen at " + hubPath + ": " + code.message());
        }
        const std::string hardwarePath = hardwareSocketPath(runDir_);
        const int hardwareFd = listenAt(hardwarePath);
        if (hardwareFd < 0) return fail(bindError(hardwarePath));
        hardware_.assign(asio::local::stream_protocol(), hardwareFd, code);
        if (code) {
            ::close(hardwareFd);
            return fail("cannot listen at " + hardwarePath + ": " + code.message());
        }
        running_ = true;
        startAccept(Kind::Hub);
        startAccept(Kind::Hardware);
        return true;
    }

    void stop() { closeAll(); }

    // The owner is going away: nothing it handed in may be called any more.
    void release() {
        closeAll();
        observer_ = nullptr;
        listeners_.clear();
    }

    // --- Delivery ------------------------------------------------------------------------------

    void dispatch(hid::HidEvent event) {
        callObserver(hid::kConnectionTypeClient, event);
        deliverEvent(event);
    }

    void dispatchHardware(hid::HidEvent event) {
        event.hardware = true;
        callObserver(hid::kConnectionTypeSystem, event);
        callObserver(hid::kConnectionTypeClient, event);
        ++hardwareEvents_;
        deliverEvent(event);
    }

    void deliverEvent(const hid::HidEvent& event) {
        ++dispatched_;
        deliver(traceLine(event), &event);
    }

    void deliver(const std::string& line, const hid::HidEvent* event) {
        if (trace_) trace_->append(line);
        if (!subscribers_.empty()) {
            // A copy: a subscriber that fell behind is closed, and so leaves subscribers_, on the way.
            const std::vector<ConnectionPtr> subscribers = subscribers_;
            for (const auto& subscriber : subscribers) queueLine(subscriber, line);
        }
        // By index and by copy: a listener may add listeners.
        for (size_t i = 0; i < listeners_.size(); ++i) {
            Listener listener = listeners_[i];
            try {
                listener(line, event);
            } catch (const std::exception& e) {
                report(std::string("trace listener failed: ") + e.what());
            } catch (...) {
                report("trace listener failed");
            }
        }
    }

    void callObserver(uint32_t connectionType, const hid::HidEvent& event) {
        if (!observer_) return;
        ConnectionDispatchObserver observer = observer_;  // it may replace itself
        observer(connectionType, event);
    }

    // --- Connections ---------------------------------------------------------------------------

    void startAccept(Kind kind) {
        Acceptor& acceptor = kind == Kind::Hub ? hub_ : hardware_;
        auto connection = std::make_shared<Connection>(loop_.context(), kind);
        acceptor.async_accept(connection->socket, [self = shared_from_this(), connection](const asio::error_code& error) {
            self->accepted(connection, error);
        });
    }

    void accepted(const ConnectionPtr& connection, const asio::error_code& error) {
        asio::error_code ignored;
        if (stopped_) {
            connection->socket.close(ignored);
            return;
        }
        if (error) {
            if (error == asio::error::operation_aborted) return;
            // Typically out of descriptors: back off instead of spinning on the failure.
            report("accept failed: " + error.message());
            asio::steady_timer& retry = connection->kind == Kind::Hub ? hubRetry_ : hardwareRetry_;
            retry.expires_after(std::chrono::milliseconds(100));
            retry.async_wait([self = shared_from_this(), kind = connection->kind](const asio::error_code& timerError) {
                if (!timerError && !self->stopped_) self->startAccept(kind);
            });
            return;
        }
        connections_.push_back(connection);
        startRead(connection);
        startAccept(connection->kind);
    }

    void startRead(const ConnectionPtr& connection) {
        connection->socket.async_read_some(
            asio::buffer(connection->chunk),
            [self = shared_from_this(), connection](const asio::error_code& error, size_t count) {
                self->received(connection, error, count);
            });
    }

    void received(const ConnectionPtr& connection, const asio::error_code& error, size_t count) {
        if (stopped_ || connection->closed) return;
        if (error) {  // end of stream or a broken connection
            close(connection);
            return;
        }
        auto& inbox = connection->inbox;
        inbox.append(connection->chunk.data(), count);
        size_t start = 0;
        for (;;) {
            const size_t newline = inbox.find('\n', std::max(start, connection->scanned));
            if (newline == std::string::npos) break;
            if (newline - start > kMaxHidLine) {
                close(connection);
                return;
            }
            const std::string_view line(inbox.data() + start, newline - start);
            start = newline + 1;
            if (connection->kind == Kind::Hub) hubLine(connection, line);
            else hardwareLine(line);
            if (stopped_ || connection->closed) return;
        }
        inbox.erase(0, start);
        connection->scanned = inbox.size();
        if (inbox.size() > kMaxHidLine) {  // a line that can no longer end in time
            close(connection);
            return;
        }
        startRead(connection);
    }

    void close(const ConnectionPtr& connection) {
        if (connection->closed) return;
        connection->closed = true;
        asio::error_code ignored;
        connection->socket.close(ignored);
        std::erase(connections_, connection);
        if (connection->subscriber) pruneSubscribers();
    }

    void pruneSubscribers() {
        std::erase_if(subscribers_, [](const ConnectionPtr& c) { return c->closed; });
        subscriberCount_ = subscribers_.size();
    }

    void closeAll() {
        stopped_ = true;
        running_ = false;
        asio::error_code ignored;
        hub_.close(ignored);
        hardware_.close(ignored);
        hubRetry_.cancel();
        hardwareRetry_.cancel();
        for (auto& connection : connections_) {
            connection->closed = true;
            connection->socket.close(ignored);
        }
        connections_.clear();
        subscribers_.clear();
        subscriberCount_ = 0;
    }

    // --- Hub -------------------------------------------------------------------------------------

    void hubLine(const ConnectionPtr& connection, std::string_view line) {
        HubRequest request = parseHubLine(line);
        switch (request.kind) {
            case HubRequest::Subscribe:
                if (!connection->subscriber) {
                    connection->subscriber = true;
                    subscribers_.push_back(connection);
                    subscriberCount_ = subscribers_.size();
                }
                return;
            case HubRequest::Publish:
                ++published_;
                deliver(request.traceLine, nullptr);
                return;
            case HubRequest::Invalid:
                close(connection);
                return;
        }
    }

    // Queues a line for a subscriber; false when the subscriber fell too far behind and was closed.
    bool queueLine(const ConnectionPtr& connection, const std::string& line) {
        if (connection->closed) return false;
        if (connection->outgoing.backlog() + line.size() + 1 > kMaxSubscriberBacklog) {
            report("dropping a hub subscriber that stopped reading");
            close(connection);
            return false;
        }
        if (connection->outgoing.push(line, "\n")) startWrite(connection);
        return true;
    }

    void startWrite(const ConnectionPtr& connection) {
        connection->socket.async_write_some(
            asio::buffer(connection->outgoing.data(), connection->outgoing.size()),
            [self = shared_from_this(), connection](const asio::error_code& error, size_t count) {
                self->wrote(connection, error, count);
            });
    }

    void wrote(const ConnectionPtr& connection, const asio::error_code& error, size_t count) {
        if (stopped_ || connection->closed) return;
        if (error) {
            close(connection);
            return;
        }
        if (connection->outgoing.wrote(count)) startWrite(connection);
    }

    // --- Hardware input ----------------------------------------------------------------------

    bool hardwareLine(std::string_view line) {
        if (hardwareInput(line)) return true;
        ++badInput_;
        return false;
    }

    bool hardwareInput(std::string_view line) {
        if (!nestingWithin(line, kMaxJsonDepth)) return false;
        const auto input = nlohmann::json::parse(line.begin(), line.end(), nullptr, false);
        if (input.is_discarded() || !input.is_object()) return false;
        const std::string* kind = stringField(input, "kind");
        if (!kind) return false;
        if (*kind == "touch") return hardwareTouch(input);
        if (*kind == "button") return hardwareButton(input);
        return false;
    }

    bool hardwareTouch(const nlohmann::json& input) {
        const std::string* phaseName = stringField(input, "phase");
        const auto finger = unsignedField(input, "finger", std::numeric_limits<uint32_t>::max());
        const auto x = finiteField(input, "x");
        const auto y = finiteField(input, "y");
        if (!phaseName || !finger || !x || !y) return false;
        if (!(screen_.width > 0 && screen_.height > 0)) return false;
        Phase phase;
        if (*phaseName == "down") phase = Phase::Down;
        else if (*phaseName == "move") phase = Phase::Move;
        else if (*phaseName == "up") phase = Phase::Up;
        else return false;

        const auto known = fingers_.find(*finger);
        if (known == fingers_.end()) {
            // A screen reports moves and lifts only for fingers it saw land.
            if (phase != Phase::Down || fingers_.size() >= kMaxHardwareFingers) return false;
        }
        fingers_[*finger] = HardwareFinger{phase, *x, *y};
        dispatchHardware(handEvent());
        return true;
    }

    // One hand event for the finger table; lifted fingers are forgotten afterwards.
    hid::HidEvent handEvent() {
        using namespace hid;
        const uint64_t t = absoluteTime();
        HidEvent hand = createDisplayHandEvent(t, kHardwareDigitizerSenderID);

        uint32_t mask = 0;
        bool anyActive = false;
        double sumX = 0, sumY = 0;
        for (auto it = fingers_.begin(); it != fingers_.end();) {
            const HardwareFinger& finger = it->second;
            const double nx = finger.x / screen_.width;
            const double ny = finger.y / screen_.height;
            const bool moved = finger.phase == Phase::Move;
            const bool active = finger.phase != Phase::Up;
            const uint32_t fingerMask = moved ? kEventMaskPosition : (kEventMaskRange | kEventMaskTouch);
            hand.appendEvent(createDigitizerFingerEvent(t, it->first, 2, fingerMask, nx, ny, 0, 0, 0, active, active, 0));
            mask |= moved ? kEventMaskPosition : (kEventMaskRange | kEventMaskTouch | kEventMaskIdentity);
            anyActive = anyActive || active;
            sumX += nx;
            sumY += ny;
            if (finger.phase == Phase::Up) {
                mask |= kEventMaskPosition;
                it = fingers_.erase(it);
            } else {
                ++it;
            }
        }
        const auto count = static_cast<double>(hand.children.size());
        hand.setFloatValue(kFieldDigitizerX, sumX / count);
        hand.setFloatValue(kFieldDigitizerY, sumY / count);
        hand.setIntegerValue(kFieldDigitizerEventMask, mask);
        hand.setIntegerValue(kFieldDigitizerRange, anyActive ? 1 : 0);
        hand.setIntegerValue(kFieldDigitizerTouch, anyActive ? 1 : 0);
        return hand;
    }

    bool hardwareButton(const nlohmann::json& input) {
        const auto usage = unsignedField(input, "usage", 0xFFFF);
        if (!usage) return false;
        uint32_t usagePage = kConsumerUsagePage;
        if (input.contains("usagePage")) {
            const auto page = unsignedField(input, "usagePage", 0xFFFF);
            if (!page) return false;
            usagePage = *page;
        }
        const auto down = input.find("down");
        if (down == input.end() || !down->is_boolean()) return false;
        hid::HidEvent key = hid::createKeyboardEvent(hid::absoluteTime(), usagePage, *usage, down->get<bool>(), 0);
        key.setSenderID(kHardwareButtonSenderID);
        dispatchHardware(std::move(key));
        return true;
    }

    linuxp::AsioRunLoop& loop_;
    const std::string runDir_;
    const ScreenPixels screen_;
    std::optional<TraceFile> trace_;

    bool running_ = false;
    bool stopped_ = false;
    Acceptor hub_;
    Acceptor hardware_;
    asio::steady_timer hubRetry_;
    asio::steady_timer hardwareRetry_;
    std::vector<ConnectionPtr> connections_;
    std::vector<ConnectionPtr> subscribers_;
    std::map<uint32_t, HardwareFinger> fingers_;

    ConnectionDispatchObserver observer_;
    std::vector<Listener> listeners_;

    std::atomic<uint64_t> userEvents_{0};
    std::atomic<uint64_t> dispatched_{0};
    std::atomic<uint64_t> hardwareEvents_{0};
    std::atomic<uint64_t> published_{0};
    std::atomic<uint64_t> badInput_{0};
    std::atomic<size_t> subscriberCount_{0};
};

VirtualHidSystem::VirtualHidSystem(linuxp::AsioRunLoop& loop, std::string runDir, ScreenPixels screen,
                                   std::optional<std::string> traceFile)
    : runDir_(std::move(runDir)), core_(std::make_shared<Core>(loop, runDir_, screen, std::move(traceFile))) {}

VirtualHidSystem::~VirtualHidSystem() { core_->release(); }

bool VirtualHidSystem::start(std::string* error) { return core_->start(error); }
void VirtualHidSystem::stop() { core_->stop(); }

void VirtualHidSystem::dispatchEvent(hid::HidEvent event) {
    assert(core_->loop_.isCurrent() && "dispatchEvent() belongs on the loop thread");
    core_->dispatch(std::move(event));
}

void VirtualHidSystem::dispatchHardwareEvent(hid::HidEvent event) {
    assert(core_->loop_.isCurrent() && "dispatchHardwareEvent() belongs on the loop thread");
    core_->dispatchHardware(std::move(event));
}

void VirtualHidSystem::setConnectionDispatchObserver(ConnectionDispatchObserver observer) {
    core_->observer_ = std::move(observer);
}

void VirtualHidSystem::userEventOccurred() { ++core_->userEvents_; }

void VirtualHidSystem::addListener(Listener listener) {
    if (listener) core_->listeners_.push_back(std::move(listener));
}

bool VirtualHidSystem::hardwareLine(std::string_view line) {
    assert(core_->loop_.isCurrent() && "hardwareLine() belongs on the loop thread");
    return core_->hardwareLine(line);
}

uint64_t VirtualHidSystem::userEventCount() const { return core_->userEvents_; }
uint64_t VirtualHidSystem::dispatchedCount() const { return core_->dispatched_; }
uint64_t VirtualHidSystem::hardwareEventCount() const { return core_->hardwareEvents_; }
uint64_t VirtualHidSystem::publishedCount() const { return core_->published_; }
uint64_t VirtualHidSystem::badInputCount() const { return core_->badInput_; }
size_t VirtualHidSystem::subscriberCount() const { return core_->subscriberCount_; }

}  // namespace tw::device
