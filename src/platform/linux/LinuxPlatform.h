#pragma once
// Puts one process of a Linux device together: its device root, the run loop, ports, defaults,
// device facts and user interface of a role.
#include <memory>
#include <string>

#include "platform/Platform.h"
#include "platform/UserInterface.h"
#include "platform/linux/AsioRunLoop.h"
#include "platform/linux/ProfileDeviceInfo.h"

namespace tw::linuxp {

// $XDG_DATA_HOME/tapwright/devices/default, or ~/.local/share/tapwright/devices/default.
std::string defaultDeviceRoot();

// The repository's resources folder: $TAPWRIGHT_RESOURCES when set, else the source tree's.
std::string resourcesDir();

// The profile file for a profile name ("default" → resources/devices/default.json), or the name
// itself when it is a path to a file.
std::string profilePath(const std::string& profileNameOrPath);

// Copies resources/Tapwright.app into <root>/Applications/Tapwright.app; a file is copied when it
// is missing there or older than the shipped one. Returns false (with `error` set) on failure.
bool installAppResources(const std::string& root, std::string* error);

struct ProcessSetup {
    std::string root;
    std::string bundleId = "com.apple.springboard";
    DeviceProfile profile;
    std::shared_ptr<UserInterface> ui;
    std::shared_ptr<SoundService> sounds;
};

// Sets the device root, makes the main run loop and installs the platform services for the role.
std::shared_ptr<AsioRunLoop> installProcess(const ProcessSetup& setup);

}  // namespace tw::linuxp
