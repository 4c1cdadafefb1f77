#pragma once
// The injector of the input-event role: owns the local end of the request port, keeps the
// script's live fingers, turns them into one hand event at every sync, sends keys as keyboard
// events, forwards text to the apps, and forgets the script's fingers when a real touch arrives.
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "platform/Bytes.h"
#include "platform/HidEvent.h"

namespace tw {

class DeviceInfo;
class DistributedNotificationCenter;
class HidEventSystem;
class LocalPort;
class RunLoop;
class MessagePortService;

inline constexpr const char* kInputTextNotification = "me.tapwright.twtweak.inputtext";
inline constexpr uint64_t kDigitizerSenderID = 0x0000000100000236ULL;
inline constexpr uint64_t kKeyboardSenderID = 0xDEFACEDBEEFFECE5ULL;

// One simulated finger: its last phase (1 down, 0 move, 2 up) and position as the client sent it.
struct STTouch {
    int32_t type = 0;
    double x = 0;
    double y = 0;
};

class HidInjector {
public:
    HidInjector(HidEventSystem& events, const DeviceInfo& device, DistributedNotificationCenter* notifications);

    // The port callback: handles ids 1 to 6 and never replies with data.
    Payload myCallBack(int32_t msgid, const Payload& data);
    // Watches what the system hands to its connections: a real digitizer event for the system's
    // display connection (type 3) empties the finger table.
    void onConnectionDispatch(uint32_t connectionType, const hid::HidEvent& event);

    // The finger table, keyed by the decimal text of the finger id.
    const std::map<std::string, STTouch>& touches() const { return STTouches_; }
    bool scaleScreen() const { return scale_screen_; }

    // Start-up of the input-event role: the finger table, the watch on the event system and the
    // port "me.tapwright.twtweak.backboardd" on `loop`. Returns the process's injector; its port is
    // null when the name could not be taken (clients then see -1).
    static std::shared_ptr<HidInjector> initialize(MessagePortService& ports, RunLoop& loop, HidEventSystem& events,
                                                   const DeviceInfo& device,
                                                   DistributedNotificationCenter* notifications);
    const std::shared_ptr<LocalPort>& port() const { return port_; }

private:
    void handleSync();
    void handleTouch(const Payload& data);
    void handleKey(const Payload& data);
    void handleText(const Payload& data);
    void fillScreenMetrics();

    HidEventSystem& events_;
    const DeviceInfo& device_;
    DistributedNotificationCenter* notifications_;
    std::map<std::string, STTouch> STTouches_;
    float screen_width_ = 0;
    float screen_height_ = 0;
    float screen_scale_ = 0;
    bool scale_screen_ = false;
    std::shared_ptr<LocalPort> port_;
};

}  // namespace tw
