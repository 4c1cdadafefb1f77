#pragma once
// Puts one process of a Linux device together: its device root, the main run loop, and the
// platform services of its role (ports, defaults, device facts, display, apps, pasteboard,
// speaker, user interface), and installs the product's app folder into the device.
#include <memory>
#include <string>

#include "platform/linux/AsioRunLoop.h"
#include "platform/linux/ProfileDeviceInfo.h"

namespace tw {
class SoundService;
class UserInterface;
}  // namespace tw

namespace tw::roles {

struct ProcessSetup {
    std::string root;
    std::string bundleId = "com.apple.springboard";
    linuxp::DeviceProfile profile;
    std::shared_ptr<UserInterface> ui;
    std::shared_ptr<SoundService> sounds;
};

// Sets the device root, makes the main run loop and installs the platform services for the role.
// The home-screen role also writes the profile's app bundles and gets the script functions.
std::shared_ptr<linuxp::AsioRunLoop> installProcess(const ProcessSetup& setup);

// Copies resources/Tapwright.app into <root>/Applications/Tapwright.app; a file is copied when it
// is missing there or older than the shipped one. Throws a Failure naming what went wrong.
void installAppResources(const std::string& root);

// The profile named on the command line (a name in resources/devices, or a file); throws a
// Failure with the reason when it cannot be read.
linuxp::DeviceProfile loadProfile(const std::string& nameOrPath);

}  // namespace tw::roles
