#pragma once
// One process of the virtual device in one role: the input-event role (the HID system, its
// hardware input and trace, and the injector), an app (its focused text field and keyboard), or
// the home screen (the library folders and the product's app folder).
#include <cstdint>
#include <optional>
#include <string>

#include "platform/linux/ProfileDeviceInfo.h"

namespace tw::roles {

// A virtual device's server ports: the phone's WebDAV port 80 needs privileges a user lacks.
inline constexpr uint16_t kDefaultWebPort = 8080;
inline constexpr uint16_t kDefaultDavPort = 8081;

struct RoleOptions {
    std::string root;
    std::string bundleId;
    linuxp::DeviceProfile profile;
    std::optional<std::string> traceFile;  // the input-event role appends the event trace here
    // The home screen's web and WebDAV servers: loopback only, on these ports (0: a free one).
    uint16_t webPort = kDefaultWebPort;
    uint16_t davPort = kDefaultDavPort;
};

// Runs the role until SIGINT or SIGTERM and returns 0. Throws a Failure when the role cannot
// start: an app the profile does not have (status 2), or sockets taken by another device on the
// same root.
int runRole(const RoleOptions& options);

}  // namespace tw::roles
