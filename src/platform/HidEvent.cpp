#include "platform/HidEvent.h"

#include <chrono>

namespace tw::hid {

int64_t HidEvent::integerValue(uint32_t field) const {
    if (auto it = integerFields.find(field); it != integerFields.end()) return it->second;
    // The system reads a float field as an integer by truncation.
    if (auto it = floatFields.find(field); it != floatFields.end()) return static_cast<int64_t>(it->second);
    return 0;
}

double HidEvent::floatValue(uint32_t field) const {
    if (auto it = floatFields.find(field); it != floatFields.end()) return it->second;
    if (auto it = integerFields.find(field); it != integerFields.end()) return static_cast<double>(it->second);
    return 0;
}

namespace {

HidEvent digitizer(uint64_t timestamp, uint32_t transducerType, uint32_t index, uint32_t identity,
                   uint32_t eventMask, uint32_t buttonMask, double x, double y, double z, double pressure,
                   bool range, bool touch) {
    HidEvent e;
    e.type = kEventTypeDigitizer;
    e.timestamp = timestamp;
    e.setIntegerValue(kFieldDigitizerType, transducerType);
    e.setIntegerValue(kFieldDigitizerIndex, index);
    e.setIntegerValue(kFieldDigitizerIdentity, identity);
    e.setIntegerValue(kFieldDigitizerEventMask, eventMask);
    e.setIntegerValue(kFieldDigitizerButtonMask, buttonMask);
    e.setFloatValue(kFieldDigitizerX, x);
    e.setFloatValue(kFieldDigitizerY, y);
    e.setFloatValue(kFieldDigitizerZ, z);
    e.setFloatValue(kFieldDigitizerPressure, pressure);
    e.setIntegerValue(kFieldDigitizerRange, range ? 1 : 0);
    e.setIntegerValue(kFieldDigitizerTouch, touch ? 1 : 0);
    return e;
}

}  // namespace

HidEvent createDigitizerEvent(uint64_t timestamp, uint32_t transducerType, uint32_t index, uint32_t identity,
                              uint32_t eventMask, uint32_t buttonMask, double x, double y, double z,
                              double tipPressure, double barrelPressure, bool range, bool touch, uint32_t) {
    HidEvent e = digitizer(timestamp, transducerType, index, identity, eventMask, buttonMask, x, y, z, tipPressure,
                           range, touch);
    e.setFloatValue(kFieldDigitizerBarrelPressure, barrelPressure);
    return e;
}

HidEvent createDigitizerFingerEvent(uint64_t timestamp, uint32_t index, uint32_t identity, uint32_t eventMask,
                                    double x, double y, double z, double tipPressure, double twist, bool range,
                                    bool touch, uint32_t) {
    HidEvent e = digitizer(timestamp, kTransducerTypeFinger, index, identity, eventMask, 0, x, y, z, tipPressure,
                           range, touch);
    e.setFloatValue(kFieldDigitizerTwist, twist);
    return e;
}

HidEvent createDisplayHandEvent(uint64_t timestamp, uint64_t senderId) {
    HidEvent hand =
        createDigitizerEvent(timestamp, kTransducerTypeHand, 0, 1, 0, 0, 0, 0, 0, 0, 0, false, false, 0);
    hand.setIntegerValue(kFieldDigitizerIsDisplayIntegrated, 1);
    hand.setIntegerValue(kFieldIsBuiltIn, 1);
    hand.setSenderID(senderId);
    return hand;
}

HidEvent createKeyboardEvent(uint64_t timestamp, uint32_t usagePage, uint32_t usage, bool down, uint32_t) {
    HidEvent e;
    e.type = kEventTypeKeyboard;
    e.timestamp = timestamp;
    e.setIntegerValue(kFieldKeyboardUsagePage, usagePage);
    e.setIntegerValue(kFieldKeyboardUsage, usage);
    e.setIntegerValue(kFieldKeyboardDown, down ? 1 : 0);
    return e;
}

uint64_t nanosecondsFromTicks(uint64_t ticks) {
    // 1000 / 24 = 125 / 3 nanoseconds a tick.
    return (ticks * 125 + 1) / 3;
}

uint64_t ticksFromNanoseconds(uint64_t nanoseconds) { return (nanoseconds * 3 + 62) / 125; }

uint64_t absoluteTime() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return ticksFromNanoseconds(static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()));
}

}  // namespace tw::hid
