#include "roles/DeviceAccess.h"

#include <filesystem>
#include <fstream>
#include <thread>

#include "core/AtomicFile.h"
#include "core/Diagnostics.h"
#include "core/Paths.h"
#include "device/DeviceApps.h"
#include "device/HidHubClient.h"
#include "device/VirtualDisplay.h"
#include "graphic/Bmp.h"
#include "injection/HidInjector.h"
#include "injection/records/MessageIds.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/LineClient.h"
#include "roles/ControlSocket.h"
#include "platform/linux/UnixMessagePorts.h"
#include "roles/ProcessWiring.h"
#include "ui/ConsoleUserInterface.h"

namespace fs = std::filesystem;

namespace tw::roles {

std::string prepareDeviceRoot(const std::string& given) {
    const std::string root = given.empty() ? linuxp::defaultDeviceRoot() : given;
    std::error_code ec;
    fs::create_directories(root, ec);
    if (!fs::is_directory(root, ec)) fail("cannot use the device root " + root);
    return fs::canonical(root).string();
}

std::string runDirOf(const std::string& root) { return root + kRunPath; }

bool deviceRunning(const std::string& root) {
    linuxp::UnixMessagePortService ports(runDirOf(root) + "/ports");
    auto remote = ports.createRemote(kInjectorPortName);
    return remote && remote->isValid();
}

namespace {
std::string profileRecord(const std::string& root) { return runDirOf(root) + "/profile.json"; }
}  // namespace

std::optional<linuxp::DeviceProfile> runningDeviceProfile(const std::string& root) {
    const auto text = readWholeFile(profileRecord(root));
    if (!text) return std::nullopt;
    try {
        return linuxp::parseDeviceProfile(*text);
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
}

void recordDeviceProfile(const std::string& root, const linuxp::DeviceProfile& profile) {
    std::error_code ec;
    fs::create_directories(runDirOf(root), ec);
    std::string error;
    if (!writeFileAtomically(profileRecord(root), device::deviceProfileJson(profile), &error)) fail(error);
}

linuxp::DeviceProfile profileForCommand(const std::string& root, const std::string& nameOrPath) {
    if (deviceRunning(root))
        if (auto running = runningDeviceProfile(root)) return *running;
    return loadProfile(nameOrPath);
}

void removeLeftovers(const std::string& root) {
    // Older than a minute: another process's replacement in progress is left alone.
    for (const char* folder : {"/var", "/Applications"})
        removeLeftoverTemporaryFiles(root + folder, std::chrono::seconds(60));
}

std::string deviceAppBundleId(const linuxp::DeviceProfile& profile) {
    return profile.apps.empty() ? std::string() : profile.apps.front().bundleId;
}

bool waitForDevice(const std::string& root, const linuxp::DeviceProfile& profile, const std::string& appBundleId,
                   std::chrono::milliseconds timeout, bool withHomeScreen) {
    // The home screen opens its control socket last, after its commands port.
    auto homeScreenReady = [&] {
        return !withHomeScreen || linuxp::LineClient::connect(controlSocketPath(runDirOf(root)), nullptr) != nullptr;
    };
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    const bool needKeyboard = !appBundleId.empty() && profile.coreFoundationVersionNumber > 800.0;
    const fs::path keyboards = fs::path(runDirOf(root)) / "notify" / kInputTextNotification;
    while (std::chrono::steady_clock::now() < deadline) {
        std::error_code ec;
        const bool keyboardReady = !needKeyboard || (fs::is_directory(keyboards, ec) && !fs::is_empty(keyboards, ec));
        if (keyboardReady && deviceRunning(root) && homeScreenReady()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

device::Picture loadPictureFile(const std::string& path) {
    try {
        return device::loadPicture(path);
    } catch (const std::runtime_error& e) {
        fail(e.what());
    }
}

void showPicture(const std::string& root, const device::Picture& picture) {
    std::string error;
    auto framebuffer = device::Framebuffer::open(runDirOf(root), &error);
    if (!framebuffer) fail(error);
    framebuffer->show(picture);
}

void startTraceFile(const std::string& path) {
    std::error_code ec;
    if (fs::path(path).has_parent_path()) fs::create_directories(fs::path(path).parent_path(), ec);
    std::ofstream out(path, std::ios::trunc);
    if (!out) fail("cannot write the trace file " + path);
}

void sendHardwareInput(const std::string& root, const std::vector<device::TimedHardwareLine>& lines) {
    if (!device::sendHardwareInput(runDirOf(root), lines))
        fail("no device runs on " + root + " (start one with `tapwright device`)");
}

void followEvents(const std::string& root, const std::function<bool()>& stopRequested,
                  const std::function<void(const std::string&)>& onLine) {
    std::string error;
    auto client = device::HidHubClient::connect(runDirOf(root), &error);
    if (!client || !client->subscribe()) fail("no device runs on " + root + (error.empty() ? "" : ": " + error));
    while (!stopRequested()) {
        if (auto line = client->readLine(200))
            onLine(*line);
        else if (client->closed())
            fail("the device went away");
    }
}

void saveScreenshot(const std::string& root, const linuxp::DeviceProfile& profile, const std::string& out) {
    ProcessSetup setup;
    setup.root = root;
    setup.profile = profile;
    setup.ui = std::make_shared<ConsoleUserInterface>();
    const std::string target = fs::absolute(out).replace_extension(".bmp").string();
    installProcess(setup);
    if (save_screenshot(target, nullptr) != 1)
        fail("cannot save a screenshot to " + target + " (does a device run on " + root + "?)");
}

Payload sendCommandsMessage(const std::string& root, int32_t msgid, const Bytes& data, bool expectReply,
                            double receiveTimeout) {
    linuxp::UnixMessagePortService ports(runDirOf(root) + "/ports");
    auto port = ports.createRemote(kCommandsPortName);
    if (!port || !port->isValid()) fail("no device runs on " + root + " (start one with `tapwright device`)");
    Payload reply;
    const PortStatus status = port->sendRequest(msgid, data, kPortSendTimeout, receiveTimeout, true, &reply);
    if (status != PortStatus::Success)
        fail("the device on " + root + " did not take the message (port status " +
             std::to_string(static_cast<int32_t>(status)) + ")");
    if (expectReply && !reply) fail("the device on " + root + " sent no reply to message " + std::to_string(msgid));
    return reply;
}

}  // namespace tw::roles
