#include "injection/HidInjector.h"

#include <algorithm>

#include "core/LogToFile.h"
#include "injection/records/KeyRecord.h"
#include "injection/records/MessageIds.h"
#include "injection/records/OptionRecord.h"
#include "injection/records/TouchRecord.h"
#include "platform/DeviceInfo.h"
#include "platform/HidEventSystem.h"
#include "platform/MessagePort.h"
#include "platform/NotificationCenter.h"

namespace tw {

using namespace hid;

HidInjector::HidInjector(HidEventSystem& events, const DeviceInfo& device, DistributedNotificationCenter* notifications)
    : events_(events), device_(device), notifications_(notifications) {}

std::shared_ptr<HidInjector> HidInjector::initialize(MessagePortService& ports, RunLoop& loop, HidEventSystem& events,
                                                     const DeviceInfo& device,
                                                     DistributedNotificationCenter* notifications) {
    auto injector = std::make_shared<HidInjector>(events, device, notifications);
    std::weak_ptr<HidInjector> weak = injector;
    events.setConnectionDispatchObserver([weak](uint32_t type, const HidEvent& event) {
        if (auto self = weak.lock()) self->onConnectionDispatch(type, event);
    });
    injector->port_ = ports.createLocal(
        kInjectorPortName,
        [weak](int32_t msgid, const Payload& data) -> Payload {
            if (auto self = weak.lock()) return self->myCallBack(msgid, data);
            return std::nullopt;
        },
        loop);
    return injector;
}

Payload HidInjector::myCallBack(int32_t msgid, const Payload& data) {
    switch (msgid) {
        case kMsgSync: handleSync(); break;
        case kMsgTouch: handleTouch(data); break;
        case kMsgKey: handleKey(data); break;
        case kMsgText: handleText(data); break;
        case kMsgScaleScreen:
            if (auto flag = OptionRecord::decode(data)) scale_screen_ = flag->value != 0;
            break;
        case kMsgOrientation:
            // Read and ignored: coordinates are not rotated here.
            (void)OptionRecord::decode(data);
            break;
        default: break;
    }
    return std::nullopt;
}

void HidInjector::handleTouch(const Payload& data) {
    auto record = TouchRecord::decode(data);
    if (!record) return;
    STTouch& touch = STTouches_[std::to_string(record->finger)];
    touch.type = record->type;
    touch.x = record->x;
    touch.y = record->y;
}

void HidInjector::fillScreenMetrics() {
    if (screen_width_ != 0 && screen_height_ != 0 && screen_scale_ != 0) return;
    screen_scale_ = static_cast<float>(device_.screenScale());
    const double w = device_.screenWidthPoints(), h = device_.screenHeightPoints();
    screen_width_ = static_cast<float>(screen_scale_ * std::min(w, h));
    screen_height_ = static_cast<float>(screen_scale_ * std::max(w, h));
}

void HidInjector::handleSync() {
    if (STTouches_.empty()) return;
    fillScreenMetrics();
    const uint64_t t = absoluteTime();

    HidEvent hand = createDisplayHandEvent(t, kDigitizerSenderID);

    uint32_t parentMask = 0;
    bool parentRange = false;
    double sumX = 0, sumY = 0;
    int n = 0;
    for (auto it = STTouches_.begin(); it != STTouches_.end();) {
        const STTouch& s = it->second;
        double nx, ny;
        if (scale_screen_) {
            nx = s.x * screen_scale_ / screen_width_;
            ny = s.y * screen_scale_ / screen_height_;
        } else {
            nx = s.x / screen_width_;
            ny = s.y / screen_height_;
        }
        const uint32_t fingerMask = s.type == kTouchMove ? kEventMaskPosition : (kEventMaskRange | kEventMaskTouch);
        const bool active = s.type != kTouchUp;
        const auto index = static_cast<uint32_t>(std::stol(it->first));
        hand.appendEvent(createDigitizerFingerEvent(t, index, 2, fingerMask, nx, ny, 0, 0, 0, active, active, 0));

        parentRange = parentRange || active;
        parentMask |= s.type != kTouchMove ? (kEventMaskRange | kEventMaskTouch | kEventMaskIdentity) : kEventMaskPosition;
        sumX += nx;
        sumY += ny;
        ++n;
        if (s.type == kTouchUp) {
            // An up is sent once, then forgotten.
            parentMask |= kEventMaskPosition;
            it = STTouches_.erase(it);
        } else {
            ++it;
        }
    }

    hand.setFloatValue(kFieldDigitizerX, sumX / n);
    hand.setFloatValue(kFieldDigitizerY, sumY / n);
    hand.setIntegerValue(kFieldDigitizerEventMask, parentMask);
    hand.setIntegerValue(kFieldDigitizerRange, parentRange ? 1 : 0);
    hand.setIntegerValue(kFieldDigitizerTouch, parentRange ? 1 : 0);
    events_.userEventOccurred();
    events_.dispatchEvent(std::move(hand));
}

void HidInjector::handleKey(const Payload& data) {
    auto record = KeyRecord::decode(data);
    if (!record) return;
    const auto usage = static_cast<uint16_t>(record->usage);
    const auto usagePage = static_cast<uint16_t>(record->usagePage);
    const auto down = static_cast<uint8_t>(record->down);
    HidEvent key = createKeyboardEvent(absoluteTime(), usagePage, usage, down != 0, 0);
    key.setSenderID(kKeyboardSenderID);
    events_.dispatchEvent(std::move(key));
}

void HidInjector::handleText(const Payload& data) {
    if (!data || data->empty()) return;
    // The bytes up to the first NUL, as text; bytes that are not UTF-8 make no text.
    auto end = std::find(data->begin(), data->end(), uint8_t{0});
    std::string text(data->begin(), end);
    if (!isValidUtf8(text)) return;
    // Apps take forwarded text from 7.0 on; older systems drop it.
    if (compareVersions(device_.systemVersion(), "7.0") < 0) return;
    if (notifications_) notifications_->postNotification(kInputTextNotification, {{"text", text}});
}

void HidInjector::onConnectionDispatch(uint32_t connectionType, const HidEvent& event) {
    if (connectionType == kConnectionTypeSystem && event.type == kEventTypeDigitizer) STTouches_.clear();
}

}  // namespace tw
