#include "device/DevicePasteboard.h"

#include "device/AtomicFile.h"

namespace tw::device {

std::optional<std::string> DevicePasteboard::string() const { return readWholeFile(path_); }

void DevicePasteboard::setString(const std::string& text) { writeFileAtomically(path_, text); }

}  // namespace tw::device
