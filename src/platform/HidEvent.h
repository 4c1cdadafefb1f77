#pragma once
// HID events as small values: a type, a timestamp, a sender id, integer and float fields by field
// id, and child events (a hand event carries one child per finger). The creation functions take
// the same arguments, in the same order, as the input system's own.
#include <cstdint>
#include <map>
#include <vector>

namespace tw::hid {

// Event types.
inline constexpr uint32_t kEventTypeKeyboard = 3;
inline constexpr uint32_t kEventTypeDigitizer = 11;

// Field ids: the event type in the high 16 bits, the field's number in the low ones.
inline constexpr uint32_t kFieldIsBuiltIn = 4;
inline constexpr uint32_t kFieldKeyboardUsagePage = 0x30000;
inline constexpr uint32_t kFieldKeyboardUsage = 0x30001;
inline constexpr uint32_t kFieldKeyboardDown = 0x30002;
inline constexpr uint32_t kFieldDigitizerX = 0xB0000;
inline constexpr uint32_t kFieldDigitizerY = 0xB0001;
inline constexpr uint32_t kFieldDigitizerZ = 0xB0002;
inline constexpr uint32_t kFieldDigitizerButtonMask = 0xB0003;
inline constexpr uint32_t kFieldDigitizerType = 0xB0004;
inline constexpr uint32_t kFieldDigitizerIndex = 0xB0005;
inline constexpr uint32_t kFieldDigitizerIdentity = 0xB0006;
inline constexpr uint32_t kFieldDigitizerEventMask = 0xB0007;
inline constexpr uint32_t kFieldDigitizerRange = 0xB0008;
inline constexpr uint32_t kFieldDigitizerTouch = 0xB0009;
inline constexpr uint32_t kFieldDigitizerPressure = 0xB000A;
inline constexpr uint32_t kFieldDigitizerBarrelPressure = 0xB000B;
inline constexpr uint32_t kFieldDigitizerTwist = 0xB000C;
inline constexpr uint32_t kFieldDigitizerIsDisplayIntegrated = 0xB0019;

// Digitizer transducer types and event-mask bits.
inline constexpr uint32_t kTransducerTypeFinger = 2;
inline constexpr uint32_t kTransducerTypeHand = 3;
inline constexpr uint32_t kEventMaskRange = 0x1;
inline constexpr uint32_t kEventMaskTouch = 0x2;
inline constexpr uint32_t kEventMaskPosition = 0x4;
inline constexpr uint32_t kEventMaskIdentity = 0x20;

// Connection types of the event system; the system's own display client is type 3.
inline constexpr uint32_t kConnectionTypeClient = 1;
inline constexpr uint32_t kConnectionTypeSystem = 3;

struct HidEvent {
    uint32_t type = 0;
    uint64_t timestamp = 0;  // ticks of the absolute clock (kAbsoluteTicksPerMicrosecond)
    uint64_t senderId = 0;
    std::map<uint32_t, int64_t> integerFields;
    std::map<uint32_t, double> floatFields;
    std::vector<HidEvent> children;
    bool hardware = false;  // came from a person through the hardware input, not from a script

    int64_t integerValue(uint32_t field) const;
    double floatValue(uint32_t field) const;
    void setIntegerValue(uint32_t field, int64_t value) { integerFields[field] = value; }
    void setFloatValue(uint32_t field, double value) { floatFields[field] = value; }
    void setSenderID(uint64_t sender) { senderId = sender; }
    void appendEvent(HidEvent child) { children.push_back(std::move(child)); }
};

HidEvent createDigitizerEvent(uint64_t timestamp, uint32_t transducerType, uint32_t index, uint32_t identity,
                              uint32_t eventMask, uint32_t buttonMask, double x, double y, double z,
                              double tipPressure, double barrelPressure, bool range, bool touch, uint32_t options);

HidEvent createDigitizerFingerEvent(uint64_t timestamp, uint32_t index, uint32_t identity, uint32_t eventMask,
                                    double x, double y, double z, double tipPressure, double twist, bool range,
                                    bool touch, uint32_t options);

// The hand event of the built-in display's digitizer that carries one child per finger, from
// `senderId`; its mask, range, touch and position are the caller's to fill in.
HidEvent createDisplayHandEvent(uint64_t timestamp, uint64_t senderId);

HidEvent createKeyboardEvent(uint64_t timestamp, uint32_t usagePage, uint32_t usage, bool down, uint32_t options);

// The absolute clock of event timestamps counts 24 ticks per microsecond, as the phone's does.
inline constexpr uint64_t kAbsoluteTicksPerMicrosecond = 24;

// Monotonic time in ticks of the absolute clock, the timestamp of every event made now.
uint64_t absoluteTime();
// Ticks and nanoseconds of the same monotonic clock, each rounded to the nearest, so that a tick
// count survives the trip through nanoseconds and back.
uint64_t nanosecondsFromTicks(uint64_t ticks);
uint64_t ticksFromNanoseconds(uint64_t nanoseconds);

}  // namespace tw::hid
