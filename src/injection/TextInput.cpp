#include "injection/TextInput.h"

#include "injection/HidInjector.h"
#include "platform/DeviceInfo.h"
#include "platform/NotificationCenter.h"

namespace tw {

Keyboard::Keyboard(DistributedNotificationCenter& center, RunLoop& loop, KeyboardTarget& target)
    : center_(center), target_(target) {
    observerId_ = center_.addObserver(
        kInputTextNotification,
        [this](const std::string&, const NotificationUserInfo& userInfo) {
            auto it = userInfo.find("text");
            if (it != userInfo.end()) callbackWithNotification(it->second);
        },
        loop);
}

Keyboard::~Keyboard() {
    if (observerId_) center_.removeObserver(observerId_);
}

void Keyboard::callbackWithNotification(const std::string& text) {
    if (text.empty()) return;
    const std::u16string units = utf8ToUtf16(text);
    for (size_t i = 0; i < units.size(); ++i) {
        if (units[i] == 8)
            target_.deleteBackward();
        else
            target_.insertText(std::u16string(1, units[i]));
    }
    target_.didHandleNotification();
}

bool textInputSupported(const DeviceInfo& device) { return device.coreFoundationVersionNumber() > 800.0; }

std::u16string utf8ToUtf16(const std::string& s) {
    std::u16string out;
    size_t i = 0;
    const size_t n = s.size();
    while (i < n) {
        const auto c = static_cast<unsigned char>(s[i]);
        uint32_t cp = 0xFFFD;
        size_t len = 1;
        if (c < 0x80) {
            cp = c;
        } else if ((c & 0xE0) == 0xC0 || (c & 0xF0) == 0xE0 || (c & 0xF8) == 0xF0) {
            len = (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : 4;
            uint32_t v = c & (len == 2 ? 0x1F : len == 3 ? 0x0F : 0x07);
            bool ok = i + len <= n;
            for (size_t k = 1; ok && k < len; ++k) {
                const auto cc = static_cast<unsigned char>(s[i + k]);
                ok = (cc & 0xC0) == 0x80;
                v = (v << 6) | (cc & 0x3F);
            }
            const bool overlong = (len == 2 && v < 0x80) || (len == 3 && v < 0x800) || (len == 4 && v < 0x10000);
            if (ok && !overlong && v <= 0x10FFFF && !(v >= 0xD800 && v <= 0xDFFF))
                cp = v;
            else
                len = 1;
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
        i += len;
    }
    return out;
}

std::string utf16ToUtf8(const std::u16string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        uint32_t cp = s[i];
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (s[i + 1] - 0xDC00);
            ++i;
        } else if (cp >= 0xD800 && cp <= 0xDFFF) {
            cp = 0xFFFD;
        }
        if (cp < 0x80) {
            out.push_back(static_cast<char>(cp));
        } else if (cp < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        }
    }
    return out;
}

}  // namespace tw
