#pragma once
// The input system of the virtual device, owned by the input-event role.
//
// It has two connections: a client connection (type 1) and the system's own display connection
// (type 3). The injector's synthetic events reach the client connection only; real input, which
// arrives on the hardware socket, reaches the display connection and then the client one. Every
// delivered event becomes a trace line (see EventTrace.h) that goes to the trace file, to the
// hub's subscribers and to in-process listeners.
//
// Two stream sockets, both line-based ('\n'-terminated, at most kMaxHidLine bytes a line):
//
//   hub (<runDir>/hid)
//     "subscribe"       from then on the client receives every delivered trace line + '\n'. A
//                       subscriber that falls kMaxSubscriberBacklog bytes behind is dropped.
//     "publish <json>"  <json> must be a JSON object; it is delivered as a trace line like an event
//                       (app roles put their "text" lines into the trace this way).
//     Any other line, invalid JSON after "publish", or an over-long line closes that connection.
//
//   hardware (<runDir>/hardware), one JSON object a line, for a person's input:
//     {"kind":"touch","phase":"down"|"move"|"up","finger":N,"x":PX,"y":PY}  portrait pixels
//     {"kind":"button","usage":U,"usagePage":P,"down":true|false}          usagePage defaults to 12
//     A line that is not one of these (or a move/up of a finger that is not down, or a down beyond
//     kMaxHardwareFingers fingers) is counted in badInputCount() and ignored; only an over-long
//     line closes the connection.
//
// Threading: the sockets run on the loop. dispatchEvent(), dispatchHardwareEvent(), start(), stop(),
// addListener(), setConnectionDispatchObserver() and the destructor must run on the loop's thread,
// or while no other thread runs the loop; observers and listeners are called there. The counters
// may be read from any thread.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/HidEvent.h"
#include "platform/HidEventSystem.h"

namespace tw::linuxp {
class AsioRunLoop;
}

namespace tw::device {

inline constexpr size_t kMaxHidLine = 64 * 1024;
inline constexpr size_t kMaxSubscriberBacklog = 4 * 1024 * 1024;
inline constexpr size_t kMaxHardwareFingers = 32;

inline constexpr uint64_t kHardwareDigitizerSenderID = 0x000000010000027FULL;
inline constexpr uint64_t kHardwareButtonSenderID = 0x000000010000027EULL;
inline constexpr uint32_t kConsumerUsagePage = 12;

// Socket paths (mapped to abstract addresses by linuxp::abstractSocketName).
std::string hubSocketPath(const std::string& runDir);
std::string hardwareSocketPath(const std::string& runDir);

// The screen in portrait pixels; hardware touches are normalised by it.
struct ScreenPixels {
    double width = 0;
    double height = 0;
};

// What one line of the hub asks for: to subscribe, to publish `traceLine` (the line's JSON object
// as the trace writes it), or nothing the hub knows, which closes the connection.
struct HubRequest {
    enum Kind { Subscribe, Publish, Invalid } kind = Invalid;
    std::string traceLine;
};
HubRequest parseHubLine(std::string_view line);

class VirtualHidSystem final : public HidEventSystem {
public:
    // Called with every delivered trace line, and the event it was made from (null for a line
    // published through the hub).
    using Listener = std::function<void(const std::string& line, const hid::HidEvent* event)>;

    VirtualHidSystem(linuxp::AsioRunLoop& loop, std::string runDir, ScreenPixels screen,
                     std::optional<std::string> traceFile);
    ~VirtualHidSystem() override;
    VirtualHidSystem(const VirtualHidSystem&) = delete;
    VirtualHidSystem& operator=(const VirtualHidSystem&) = delete;

    // Binds the hub and the hardware socket. False, with the reason in `error`, when either cannot
    // be bound (typically: another device already runs on this root).
    bool start(std::string* error);
    // Closes both sockets and every connection. Safe to call more than once.
    void stop();

    // HidEventSystem. Loop thread only.
    void dispatchEvent(hid::HidEvent event) override;
    void setConnectionDispatchObserver(ConnectionDispatchObserver observer) override;
    void userEventOccurred() override;

    // Delivers `event` as real input: marked as hardware, seen by the display connection (3) and
    // then the client connection (1). This is what a line on the hardware socket turns into.
    void dispatchHardwareEvent(hid::HidEvent event);

    void addListener(Listener listener);

    // One line of the hardware socket, without its '\n', handled as if it had arrived there: true
    // when it became an event, false when it counts as bad input. Loop thread only.
    bool hardwareLine(std::string_view line);

    uint64_t userEventCount() const;
    // Events delivered, synthetic and real (published lines are not events).
    uint64_t dispatchedCount() const;
    uint64_t hardwareEventCount() const;
    uint64_t publishedCount() const;
    uint64_t badInputCount() const;
    size_t subscriberCount() const;

    const std::string& runDir() const { return runDir_; }

private:
    class Core;
    std::string runDir_;
    std::shared_ptr<Core> core_;
};

}  // namespace tw::device
