#pragma once
// One process of the virtual device in one role: the input-event role (the HID system, its
// hardware input and trace, and the injector), an app (its focused text field and keyboard), or
// the home screen.
#include <optional>
#include <string>

#include "platform/linux/ProfileDeviceInfo.h"

namespace tw::device {

struct RoleOptions {
    std::string root;
    std::string bundleId;
    linuxp::DeviceProfile profile;
    std::optional<std::string> traceFile;  // the input-event role appends the event trace here
};

// Runs the role until SIGINT or SIGTERM. Returns the exit status; prints one line on stderr when
// the role cannot start (its sockets are taken by another device on the same root, say).
int runRole(const RoleOptions& options);

// The folder of the device's runtime sockets and markers, "<root>/run".
std::string runDir(const std::string& root);

}  // namespace tw::device
