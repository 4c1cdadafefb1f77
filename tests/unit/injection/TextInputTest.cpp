// Keyboards in apps: posted text typed unit by unit, code unit 8 deleting backward, while they live.
#include <gtest/gtest.h>

#include "InjectionSupport.h"
#include "device/TextField.h"
#include "injection/HidInjector.h"
#include "injection/TextInput.h"
#include "platform/linux/AsioRunLoop.h"

namespace tw {
namespace {

TEST(TextInputTest, AKeyboardTypesThePostedTextIntoItsFieldFromItsCreationToItsDestruction) {
    test::RecordingNotifications center;
    linuxp::AsioRunLoop loop;
    device::TextField field;
    std::vector<std::string> edits;
    field.setOnEdited([&](const std::string& text) { edits.push_back(text); });
    {
        Keyboard keyboard(center, loop, field);
        center.postNotification(kInputTextNotification, {{"text", "ab\xF0\x9F\x98\x80\b\b"}});  // whole characters
        center.postNotification(kInputTextNotification, {{"other", "x"}});
        keyboard.callbackWithNotification("");
        center.postNotification(kInputTextNotification, {{"text", "\xFF\b\b\bz\xF0\x9F\x98\x80"}});  // from the start
    }
    center.postNotification(kInputTextNotification, {{"text", "late"}});
    EXPECT_EQ(edits, (std::vector<std::string>{"a", "z\xF0\x9F\x98\x80"}));
    // Overlong forms of two and four bytes, a surrogate: a replacement for every byte.
    EXPECT_EQ(utf8ToUtf16("\xC0\xAF" "\xF0\x8F\xBF\xBF" "\xED\xA0\x80"), std::u16string(9, u'\uFFFD'));
    EXPECT_EQ(utf16ToUtf8(u"\xD83D" "a"), "\xEF\xBF\xBD" "a");
}

}  // namespace
}  // namespace tw
