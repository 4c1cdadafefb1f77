// A datagram on a notification socket, decoded as the receiver does; the text notification's text
// is then typed into an app's field as its keyboard would.
#include "FuzzSupport.h"
#include "FuzzTarget.h"
#include "device/TextField.h"
#include "injection/TextInput.h"
#include "platform/linux/UnixNotificationCenter.h"

TW_FUZZ_TARGET(notification_payloads) {
    using namespace tw;
    const auto note = linuxp::decodeNotification(data, size);
    if (!note) return 0;
    auto it = note->userInfo.find("text");
    if (it == note->userInfo.end()) return 0;
    fuzz::PostedNotifications center;
    linuxp::AsioRunLoop loop;
    device::TextField field;
    Keyboard keyboard(center, loop, field);
    keyboard.callbackWithNotification(it->second);
    return 0;
}
