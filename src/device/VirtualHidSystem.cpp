#include "device/VirtualHidSystem.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <filesystem>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "core/Diagnostics.h"
#include "device/EventTrace.h"
#include "platform/linux/AsioRunLoop.h"
#include "platform/linux/LineServer.h"
#include "platform/linux/UnixMessagePorts.h"

namespace tw::device {

std::string hubSocketPath(const std::string& runDir) { return runDir + "/hid"; }
std::string hardwareSocketPath(const std::string& runDir) { return runDir + "/hardware"; }

namespace {


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
        : loop_(loop), runDir_(std::move(runDir)), screen_(screen) {
        if (traceFile) trace_.emplace(*traceFile);
    }

    using ConnectionPtr = linuxp::LineServer::ConnectionPtr;

    bool start(std::string* error) {
        if (running_) return true;
        std::error_code ignored;
        std::filesystem::create_directories(runDir_, ignored);
        stopped_ = false;
        // The servers call back into the core through a weak pointer: they may outlive it.
        std::weak_ptr<Core> weak = shared_from_this();
        hub_ = linuxp::LineServer::create(
            loop_.context(), "hid hub", kMaxHidLine, kMaxSubscriberBacklog,
            [weak](const ConnectionPtr& connection, std::string_view line) {
                if (auto self = weak.lock()) self->hubLine(connection, line);
            },
            [weak](const ConnectionPtr&) {
                if (auto self = weak.lock()) self->pruneSubscribers();
            });
        hardware_ = linuxp::LineServer::create(loop_.context(), "hid hardware input", kMaxHidLine, kMaxHidLine,
                                               [weak](const ConnectionPtr&, std::string_view line) {
                                                   if (auto self = weak.lock()) self->hardwareLine(line);
                                               });
        if (!hub_->listen(hubSocketPath(runDir_), error) || !hardware_->listen(hardwareSocketPath(runDir_), error)) {
            closeAll();
            return false;
        }
        running_ = true;
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
            for (const auto& subscriber : subscribers) hub_->send(subscriber, line);
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

    void pruneSubscribers() {
        std::erase_if(subscribers_, [](const ConnectionPtr& c) { return linuxp::LineServer::isClosed(c); });
        subscriberCount_ = subscribers_.size();
    }

    void closeAll() {
        stopped_ = true;
        running_ = false;
        if (hub_) hub_->stop();
        if (hardware_) hardware_->stop();
        subscribers_.clear();
        subscriberCount_ = 0;
    }

    // --- Hub -------------------------------------------------------------------------------------

    void hubLine(const ConnectionPtr& connection, std::string_view line) {
        HubRequest request = parseHubLine(line);
        switch (request.kind) {
            case HubRequest::Subscribe:
                if (std::find(subscribers_.begin(), subscribers_.end(), connection) == subscribers_.end()) {
                    subscribers_.push_back(connection);
                    subscriberCount_ = subscribers_.size();
                }
                return;
            case HubRequest::Publish:
                ++published_;
                deliver(request.traceLine, nullptr);
                return;
            case HubRequest::Invalid:
                hub_->close(connection);
                return;
        }
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
    std::shared_ptr<linuxp::LineServer> hub_;
    std::shared_ptr<linuxp::LineServer> hardware_;
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
