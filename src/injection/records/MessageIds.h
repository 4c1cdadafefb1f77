#pragma once
// Message ids of the injector port "me.tapwright.twtweak.backboardd" and the one numbering they
// share with the home-screen commands port (7 to 25).
#include <cstdint>

namespace tw {

inline constexpr const char* kInjectorPortName = "me.tapwright.twtweak.backboardd";
inline constexpr const char* kCommandsPortName = "me.tapwright.twtweak.springboard";

enum InjectorMessageId : int32_t {
    kMsgSync = 1,         // no data, reply expected
    kMsgTouch = 2,        // TouchRecord, reply expected
    kMsgKey = 3,          // KeyRecord, reply expected
    kMsgText = 4,         // UTF-8 bytes without terminator, reply expected
    kMsgScaleScreen = 5,  // OptionRecord, one-way
    kMsgOrientation = 6,  // OptionRecord, one-way
};

// Port timeouts, in seconds, for every request.
inline constexpr double kPortSendTimeout = 1.0;
inline constexpr double kPortReceiveTimeout = 1.0;

}  // namespace tw
