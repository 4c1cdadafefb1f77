#include "device/DevicePasteboard.h"

#include <filesystem>

#include "core/AtomicFile.h"

namespace tw::device {

std::optional<std::string> DevicePasteboard::string() const { return readWholeFile(path_); }

void DevicePasteboard::setString(const std::string& text) {
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), ec);
    writeFileAtomically(path_, text);
}

}  // namespace tw::device
