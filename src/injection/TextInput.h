#pragma once
// Text typed by scripts, received in apps: every live keyboard observes the text notification
// and types what arrives into the field it serves, one UTF-16 code unit at a time, with code
// unit 8 deleting backward.
#include <cstdint>
#include <memory>
#include <string>

namespace tw {

class DistributedNotificationCenter;
class RunLoop;
class DeviceInfo;

// What a keyboard types into.
class KeyboardTarget {
public:
    virtual ~KeyboardTarget() = default;
    virtual void insertText(const std::u16string& text) = 0;
    virtual void deleteBackward() = 0;
    // Called once all code units of one notification went in.
    virtual void didHandleNotification() {}
};

// A keyboard object: observes "me.tapwright.twtweak.inputtext" from its creation to its
// destruction.
class Keyboard {
public:
    Keyboard(DistributedNotificationCenter& center, RunLoop& loop, KeyboardTarget& target);
    ~Keyboard();
    Keyboard(const Keyboard&) = delete;
    Keyboard& operator=(const Keyboard&) = delete;

    bool observing() const { return observerId_ != 0; }
    // Types `text` (UTF-8) into the target as the notification would.
    void callbackWithNotification(const std::string& text);

private:
    DistributedNotificationCenter& center_;
    KeyboardTarget& target_;
    uint64_t observerId_ = 0;
};

// Keyboards listen for forwarded text only on systems whose Core Foundation is above 800.0.
bool textInputSupported(const DeviceInfo& device);

// UTF-8 to UTF-16 code units; invalid bytes become U+FFFD.
std::u16string utf8ToUtf16(const std::string& text);
// UTF-16 code units to UTF-8; a lone surrogate becomes U+FFFD.
std::string utf16ToUtf8(const std::u16string& text);

}  // namespace tw
