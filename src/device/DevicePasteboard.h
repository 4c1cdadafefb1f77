#pragma once
// The virtual device's general pasteboard: one file under the device root,
// "<root>/var/mobile/Library/Pasteboard/general", holding the text's bytes. No file means no text.
// Every process of the device reads and replaces the same file; a write renames a new file over
// the old one, so a reader sees the old or the new text, never a mix.
#include <string>

#include "platform/Pasteboard.h"

namespace tw::device {

inline constexpr const char* kPasteboardPath = "/var/mobile/Library/Pasteboard/general";

class DevicePasteboard : public Pasteboard {
public:
    explicit DevicePasteboard(const std::string& root) : path_(root + kPasteboardPath) {}

    std::optional<std::string> string() const override;
    // A failed write leaves the pasteboard as it was.
    void setString(const std::string& text) override;

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace tw::device
