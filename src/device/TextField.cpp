#include "device/TextField.h"

namespace tw::device {

void TextField::deleteBackward() {
    if (text_.empty()) return;
    const char16_t last = text_.back();
    text_.pop_back();
    if (last >= 0xDC00 && last <= 0xDFFF && !text_.empty() && text_.back() >= 0xD800 && text_.back() <= 0xDBFF)
        text_.pop_back();
}

}  // namespace tw::device
