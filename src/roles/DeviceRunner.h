#pragma once
// The device supervisor's process: starts one process per role of a virtual device, restarts the
// ones that crash, and shuts them all down (with the apps scripts launched) on SIGINT or SIGTERM.
#include <cstdint>
#include <string>

#include "roles/RoleProcess.h"

namespace tw::roles {

struct DeviceRunOptions {
    std::string root;     // an absolute device root (see prepareDeviceRoot)
    std::string profile = "default";  // a profile name or file
    std::string trace;    // "" or a file the event trace is written to, emptied first
    std::string screen;   // "" or a picture shown on the display once the device is up
    uint16_t webPort = kDefaultWebPort;  // the home screen's servers (0: a free port)
    uint16_t davPort = kDefaultDavPort;
};

// Runs the device until SIGINT or SIGTERM; returns 0. Throws a Failure when it cannot start (a
// device already runs on the root, the profile or picture cannot be read).
int runDevice(const DeviceRunOptions& options);

}  // namespace tw::roles
