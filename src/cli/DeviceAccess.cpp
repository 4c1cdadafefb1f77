#include "cli/DeviceAccess.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "core/Paths.h"
#include "injection/HidInjector.h"
#include "injection/records/MessageIds.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/UnixMessagePorts.h"

namespace fs = std::filesystem;

namespace tw::cli {

std::string deviceRoot(const CommonOptions& common) {
    const std::string root = common.root.empty() ? linuxp::defaultDeviceRoot() : common.root;
    std::error_code ec;
    fs::create_directories(root, ec);
    if (!fs::is_directory(root, ec)) throw std::runtime_error("cannot use the device root " + root);
    return fs::canonical(root).string();
}

bool deviceRunning(const std::string& root) {
    linuxp::UnixMessagePortService ports(root + kRunPath + std::string("/ports"));
    auto remote = ports.createRemote(kInjectorPortName);
    return remote && remote->isValid();
}

std::string deviceAppBundleId(const linuxp::DeviceProfile& profile) {
    return profile.apps.empty() ? std::string() : profile.apps.front().bundleId;
}

bool waitForDevice(const std::string& root, const linuxp::DeviceProfile& profile, const std::string& appBundleId,
                   std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    const bool needKeyboard = !appBundleId.empty() && profile.coreFoundationVersionNumber > 800.0;
    const fs::path keyboards = fs::path(root + kRunPath) / "notify" / kInputTextNotification;
    while (std::chrono::steady_clock::now() < deadline) {
        std::error_code ec;
        const bool keyboardReady = !needKeyboard || (fs::is_directory(keyboards, ec) && !fs::is_empty(keyboards, ec));
        if (keyboardReady && deviceRunning(root)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

void startTraceFile(const std::string& path) {
    std::error_code ec;
    if (fs::path(path).has_parent_path()) fs::create_directories(fs::path(path).parent_path(), ec);
    std::ofstream out(path, std::ios::trunc);
    if (!out) throw std::runtime_error("cannot write the trace file " + path);
}

}  // namespace tw::cli
