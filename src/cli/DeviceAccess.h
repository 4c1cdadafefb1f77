#pragma once
// What the device commands share: the device root, the profile, and whether a device runs.
#include <chrono>
#include <string>

#include "cli/Commands.h"
#include "device/ImageFile.h"
#include "platform/linux/ProfileDeviceInfo.h"

namespace tw::cli {

// The device root of the options (made if missing), as an absolute path.
std::string deviceRoot(const CommonOptions& common);

// True when the input-event role of a device answers on `root`.
bool deviceRunning(const std::string& root);

// Waits until the input-event role answers on `root` and, when `appBundleId` is not empty and the
// profile takes forwarded text, that app's keyboard listens. False after `timeout`.
bool waitForDevice(const std::string& root, const linuxp::DeviceProfile& profile, const std::string& appBundleId,
                   std::chrono::milliseconds timeout);

// The app role a device starts: the first app of the profile ("" when it has none).
std::string deviceAppBundleId(const linuxp::DeviceProfile& profile);

// Shows `picture` on the display of the device on `root`; throws when the device has no display.
void showPicture(const std::string& root, const device::Picture& picture);

// Empties (or creates) a trace file so a new run starts it afresh.
void startTraceFile(const std::string& path);

}  // namespace tw::cli
