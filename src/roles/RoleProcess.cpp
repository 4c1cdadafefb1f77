#include "roles/RoleProcess.h"

#include <asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <memory>

#include "core/Diagnostics.h"
#include "core/Paths.h"
#include "device/DeviceApps.h"
#include "device/EventTrace.h"
#include "device/HidHubClient.h"
#include "device/TextField.h"
#include "device/VirtualDisplay.h"
#include "device/VirtualHidSystem.h"
#include "injection/HidInjector.h"
#include "injection/TextInput.h"
#include "injection/records/MessageIds.h"
#include "library/FileManager.h"
#include "platform/DeviceInfo.h"
#include "platform/MessagePort.h"
#include "platform/Platform.h"
#include "platform/linux/UnixNotificationCenter.h"
#include "roles/ProcessWiring.h"
#include "roles/RoleSelection.h"
#include "ui/ConsoleUserInterface.h"

namespace tw::roles {

namespace {

// Puts the field's edits into the device's event trace through the input-event role's hub.
class TextTracePublisher {
public:
    TextTracePublisher(std::string runDir, std::string bundleId) : runDir_(std::move(runDir)), bundleId_(std::move(bundleId)) {}
    void publish(const std::string& field) {
        const std::string line = device::textTraceLine(bundleId_, field);
        for (int attempt = 0; attempt < 2; ++attempt) {
            if (!client_) client_ = device::HidHubClient::connect(runDir_, nullptr);
            if (client_ && client_->publish(line)) return;
            client_.reset();  // the input-event role restarted: connect again once
        }
    }

private:
    std::string runDir_;
    std::string bundleId_;
    std::unique_ptr<device::HidHubClient> client_;
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
    if (isApp && !isProfileApp(options.profile, options.bundleId))
        fail("no app '" + options.bundleId + "' on device profile '" + options.profile.name + "'", 2);

    ProcessSetup setup;
    setup.root = options.root;
    setup.bundleId = options.bundleId;
    setup.profile = options.profile;
    setup.ui = std::make_shared<ConsoleUserInterface>();
    setup.sounds = std::make_shared<ConsoleSoundService>();
    auto loop = installProcess(setup);
    const std::string run = Paths::runDir();
    auto notifications = std::make_shared<linuxp::UnixNotificationCenter>(run + "/notify");
    Platform::current().notifications = notifications;
    const DeviceInfo& deviceInfo = *Platform::current().device;

    std::shared_ptr<device::VirtualHidSystem> hidSystem;
    std::shared_ptr<HidInjector> injector;
    std::unique_ptr<device::Framebuffer> framebuffer;
    if (roles.inputEvent) {
        const double scale = deviceInfo.screenScale();
        const double shortSide = std::min(deviceInfo.screenWidthPoints(), deviceInfo.screenHeightPoints());
        const double longSide = std::max(deviceInfo.screenWidthPoints(), deviceInfo.screenHeightPoints());
        const device::ScreenPixels pixels{scale * shortSide, scale * longSide};
        std::string error;
        // The screen: kept as it was when the role comes back after a restart.
        framebuffer = device::Framebuffer::create(run, static_cast<uint32_t>(pixels.width),
                                                  static_cast<uint32_t>(pixels.height), &error);
        if (!framebuffer) fail("input-event role cannot start: " + error);
        hidSystem = std::make_shared<device::VirtualHidSystem>(*loop, run, pixels, options.traceFile);
        if (!hidSystem->start(&error)) fail("input-event role cannot start: " + error);
        Platform::current().hidSystem = hidSystem;
        injector = HidInjector::initialize(*Platform::current().ports, *loop, *hidSystem, deviceInfo, notifications.get());
        if (!injector->port())
            fail(std::string("the port ") + kInjectorPortName + " is taken: another device runs on " + Paths::root());
    }

    // An app runs, for every process of the device, while its pid file names this process; it is
    // marked before its keyboard listens, so a device that is ready sees its app running.
    std::unique_ptr<device::RunningAppMarker> running;
    if (isApp) running = std::make_unique<device::RunningAppMarker>(Paths::root(), options.bundleId);

    device::TextField field;
    TextTracePublisher publisher(run, options.bundleId);
    std::unique_ptr<Keyboard> keyboard;
    if (isApp) {
        field.setOnEdited([&](const std::string& text) { publisher.publish(text); });
        if (roles.textInput) keyboard = std::make_unique<Keyboard>(*notifications, *loop, field);
    }

    if (roles.homeScreen) {
        installAppResources(Paths::root());
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

}  // namespace tw::roles
