#include "device/RoleProcess.h"

#include <asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <memory>

#include "core/Paths.h"
#include "device/DeviceApps.h"
#include "device/EventTrace.h"
#include "device/HidHubClient.h"
#include "device/TextField.h"
#include "device/VirtualDisplay.h"
#include "device/VirtualHidSystem.h"
#include "injection/HidInjector.h"
#include "platform/MessagePort.h"
#include "injection/TextInput.h"
#include "injection/records/MessageIds.h"
#include "library/FileManager.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/UnixNotificationCenter.h"
#include "roles/RoleSelection.h"
#include "ui/ConsoleUserInterface.h"

namespace tw::device {

std::string runDir(const std::string& root) { return root + kRunPath; }

namespace {

// Puts the field's edits into the device's event trace through the input-event role's hub.
class TextTracePublisher {
public:
    TextTracePublisher(std::string runDir, std::string bundleId) : runDir_(std::move(runDir)), bundleId_(std::move(bundleId)) {}
    void publish(const std::string& field) {
        const std::string line = textTraceLine(bundleId_, field);
        for (int attempt = 0; attempt < 2; ++attempt) {
            if (!client_) client_ = HidHubClient::connect(runDir_, nullptr);
            if (client_ && client_->publish(line)) return;
            client_.reset();  // the input-event role restarted: connect again once
        }
    }

private:
    std::string runDir_;
    std::string bundleId_;
    std::unique_ptr<HidHubClient> client_;
};

bool isProfileApp(const linuxp::DeviceProfile& profile, const std::string& bundleId) {
    for (const auto& app : profile.apps)
        if (app.bundleId == bundleId) return true;
    return false;
}

}  // namespace

int runRole(const RoleOptions& options) {
    const RoleSelection roles = selectRoles(options.bundleId, options.profile.coreFoundationVersionNumber);
    const bool isApp = !roles.inputEvent && !roles.homeScreen;
    if (isApp && !isProfileApp(options.profile, options.bundleId)) {
        std::fprintf(stderr, "tapwright: no app '%s' on device profile '%s'\n", options.bundleId.c_str(),
                     options.profile.name.c_str());
        return 2;
    }

    linuxp::ProcessSetup setup;
    setup.root = options.root;
    setup.bundleId = options.bundleId;
    setup.profile = options.profile;
    setup.ui = std::make_shared<ConsoleUserInterface>();
    setup.sounds = std::make_shared<ConsoleSoundService>();
    auto loop = linuxp::installProcess(setup);
    const std::string run = runDir(Paths::root());
    auto notifications = std::make_shared<linuxp::UnixNotificationCenter>(run + "/notify");
    Platform::current().notifications = notifications;
    const DeviceInfo& device = *Platform::current().device;

    std::shared_ptr<VirtualHidSystem> hidSystem;
    std::shared_ptr<HidInjector> injector;
    std::unique_ptr<Framebuffer> framebuffer;
    if (roles.inputEvent) {
        const ScreenPixels pixels{device.screenScale() * std::min(device.screenWidthPoints(), device.screenHeightPoints()),
                                  device.screenScale() * std::max(device.screenWidthPoints(), device.screenHeightPoints())};
        std::string error;
        // The screen: kept as it was when the role comes back after a restart.
        framebuffer = Framebuffer::create(run, static_cast<uint32_t>(pixels.width), static_cast<uint32_t>(pixels.height), &error);
        if (!framebuffer) {
            std::fprintf(stderr, "tapwright: input-event role cannot start: %s\n", error.c_str());
            return 1;
        }
        hidSystem = std::make_shared<VirtualHidSystem>(*loop, run, pixels, options.traceFile);
        if (!hidSystem->start(&error)) {
            std::fprintf(stderr, "tapwright: input-event role cannot start: %s\n", error.c_str());
            return 1;
        }
        Platform::current().hidSystem = hidSystem;
        injector = HidInjector::initialize(*Platform::current().ports, *loop, *hidSystem, device, notifications.get());
        if (!injector->port()) {
            std::fprintf(stderr, "tapwright: the port %s is taken: another device runs on %s\n", kInjectorPortName,
                         Paths::root().c_str());
            return 1;
        }
    }

    // An app runs, for every process of the device, while its pid file names this process; it is
    // marked before its keyboard listens, so a device that is ready sees its app running.
    std::unique_ptr<RunningAppMarker> running;
    if (isApp) running = std::make_unique<RunningAppMarker>(Paths::root(), options.bundleId);

    TextField field;
    TextTracePublisher publisher(run, options.bundleId);
    std::unique_ptr<Keyboard> keyboard;
    if (isApp) {
        field.setOnEdited([&](const std::string& text) { publisher.publish(text); });
        if (roles.textInput) keyboard = std::make_unique<Keyboard>(*notifications, *loop, field);
    }

    if (roles.homeScreen) {
        std::string error;
        if (!linuxp::installAppResources(Paths::root(), &error)) std::fprintf(stderr, "tapwright: %s\n", error.c_str());
        FileManager::prepareDirectories();
    }

    asio::signal_set signals(loop->context(), SIGINT, SIGTERM);
    signals.async_wait([&](const std::error_code& ec, int) {
        if (!ec) loop->stop();
    });
    loop->run();

    keyboard.reset();
    if (injector && injector->port()) injector->port()->invalidate();
    if (hidSystem) hidSystem->stop();
    return 0;
}

}  // namespace tw::device
