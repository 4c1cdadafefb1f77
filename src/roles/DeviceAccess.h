#pragma once
// What the commands do with a device from outside its processes: find its root, tell whether it
// runs, wait for it, show a picture on its display, press its screen and buttons, follow its
// events, save its screen.
#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "device/HidHubClient.h"
#include "injection/records/MessageIds.h"
#include "platform/Bytes.h"
#include "device/ImageFile.h"
#include "platform/linux/ProfileDeviceInfo.h"

namespace tw::roles {

// The device root `root` ("" for the default one), made when missing, as an absolute path. Throws
// a Failure when it cannot be used.
std::string prepareDeviceRoot(const std::string& root);

// "<root>/run": the device's sockets, display, pid files and markers.
std::string runDirOf(const std::string& root);

// True when the input-event role of a device answers on `root`.
bool deviceRunning(const std::string& root);

// Waits until the input-event role answers on `root` and, when `appBundleId` is not empty and the
// profile takes forwarded text, that app's keyboard listens, and with `withHomeScreen` the home
// screen takes requests on its control socket (its commands port is open by then). False after
// `timeout`.
bool waitForDevice(const std::string& root, const linuxp::DeviceProfile& profile, const std::string& appBundleId,
                   std::chrono::milliseconds timeout, bool withHomeScreen = false);

// The profile of the device running on `root`, as its starter recorded it; nullopt when none was
// recorded. Commands that start no roles use it, so they see the device as it is.
std::optional<linuxp::DeviceProfile> runningDeviceProfile(const std::string& root);
// Records the profile of the roles about to start on `root` (in "<root>/run/profile.json").
void recordDeviceProfile(const std::string& root, const linuxp::DeviceProfile& profile);
// The profile a command that starts no roles works with: the running device's, else the named one.
linuxp::DeviceProfile profileForCommand(const std::string& root, const std::string& nameOrPath);

// Removes what a crash of the device's processes left on `root`: temporary files of interrupted
// file replacements (and nothing else). Called before a device's roles start.
void removeLeftovers(const std::string& root);

// The app role a device starts: the first app of the profile ("" when it has none).
std::string deviceAppBundleId(const linuxp::DeviceProfile& profile);

// The picture file at `path` (BMP or PNG) for a display; throws a Failure saying what is wrong.
device::Picture loadPictureFile(const std::string& path);

// Shows `picture` on the display of the device on `root`; throws a Failure when it has none.
void showPicture(const std::string& root, const device::Picture& picture);

// Empties (or creates) a trace file so a new run starts it afresh; throws a Failure when it cannot.
void startTraceFile(const std::string& path);

// Sends one message to the commands port of the device on `root` and waits until the home screen
// has taken it; returns its reply when `expectReply`. Throws a Failure when no device runs there
// or it does not answer.
Payload sendCommandsMessage(const std::string& root, int32_t msgid, const Bytes& data, bool expectReply,
                            double receiveTimeout = kPortReceiveTimeout);

// Sends hardware input lines to the device on `root`; throws a Failure when no device runs there.
void sendHardwareInput(const std::string& root, const std::vector<device::TimedHardwareLine>& lines);

// Hands every event line the device on `root` dispatches to `onLine` until `stopRequested` says
// so. Throws a Failure when no device runs there or when it goes away.
void followEvents(const std::string& root, const std::function<bool()>& stopRequested,
                  const std::function<void(const std::string&)>& onLine);

// Writes the whole screen of the device on `root` (its geometry taken from `profile`) to `out`,
// through the script function's code, so the extension becomes ".bmp". Throws a Failure when it
// cannot.
void saveScreenshot(const std::string& root, const linuxp::DeviceProfile& profile, const std::string& out);

}  // namespace tw::roles
