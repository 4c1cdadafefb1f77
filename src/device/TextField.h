#pragma once
// The focused text field of a virtual app: what its keyboard types goes in here.
#include <functional>
#include <string>

#include "injection/TextInput.h"

namespace tw::device {

class TextField : public KeyboardTarget {
public:
    void insertText(const std::u16string& text) override { text_ += text; }
    // Deletes the last character: a surrogate pair counts as one.
    void deleteBackward() override;
    void didHandleNotification() override {
        if (onEdited_) onEdited_(text());
    }

    std::string text() const { return utf16ToUtf8(text_); }
    const std::u16string& units() const { return text_; }
    void setText(const std::string& text) { text_ = utf8ToUtf16(text); }
    // Called with the whole text after each notification's edits.
    void setOnEdited(std::function<void(const std::string&)> onEdited) { onEdited_ = std::move(onEdited); }

private:
    std::u16string text_;
    std::function<void(const std::string&)> onEdited_;
};

}  // namespace tw::device
