#pragma once
// Text request (message 4): the UTF-8 bytes of the text, no terminator; length = byte length.
#include <string>
#include <string_view>

#include "platform/Bytes.h"

namespace tw {

struct TextRecord {
    std::string text;

    Bytes encode() const { return Bytes(text.begin(), text.end()); }
    // The text up to the payload's end (or its first NUL byte); nullopt for null or empty data.
    static std::optional<TextRecord> decode(const Payload& data);
};

}  // namespace tw
