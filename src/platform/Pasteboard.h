#pragma once
// The general pasteboard's text, shared by every process of the device.
#include <optional>
#include <string>

namespace tw {

class Pasteboard {
public:
    virtual ~Pasteboard() = default;
    // The text on the pasteboard; null when it holds no text.
    virtual std::optional<std::string> string() const = 0;
    // Replaces what the pasteboard holds with `text`.
    virtual void setString(const std::string& text) = 0;
};

}  // namespace tw
