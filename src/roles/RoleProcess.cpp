#include "roles/RoleProcess.h"

#include <sys/stat.h>

#include <asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <memory>

#include "core/Diagnostics.h"
#include "core/Paths.h"
#include "core/TWLocationClient.h"
#include "device/DeviceApps.h"
#include "device/EventTrace.h"
#include "device/HidHubClient.h"
#include "device/TextField.h"
#include "device/VirtualDisplay.h"
#include "device/VirtualHidSystem.h"
#include "injection/HidInjector.h"
#include "injection/TextInput.h"
#include "injection/records/MessageIds.h"
#include "platform/DeviceInfo.h"
#include "platform/MessagePort.h"
#include "platform/Platform.h"
#include "platform/RunLoop.h"
#include "platform/linux/UnixNotificationCenter.h"
#include "roles/CommandsPort.h"
#include "device/DeviceActivator.h"
#include "roles/ControlSocket.h"
#include "triggers/ActionListener.h"
#include "roles/ProcessWiring.h"
#include "roles/RoleSelection.h"
#include "ui/ConsoleUserInterface.h"
#include "web/WebServerManager.h"

namespace tw::roles {

namespace {

// The app side of location faking: the app looks its own entry up in the locations table when it
// starts and whenever the table changes, and shows what it would report as a "location" line in
// the trace: {"kind":"location","time":T,"bundle":B,"latitude":LAT,"longitude":LON}, or
// "cleared":true in place of the position when its entry is gone.
class LocationWatcher {
public:
    LocationWatcher(RunLoop& loop, std::string bundleId, device::HubTracePublisher& publisher)
        : bundleId_(std::move(bundleId)), publisher_(publisher) {
        check(true);
        timer_ = loop.scheduleTimer(RunLoop::Clock::now() + kInterval, kInterval, [this](RunLoop::Timer&) { check(false); });
    }
    ~LocationWatcher() {
        if (timer_) timer_->invalidate();
    }

private:
    static constexpr std::chrono::milliseconds kInterval{200};

    // The table's identity and change time: a replaced or rewritten table looks different.
    std::string stamp() const {
        struct stat st {};
        if (::stat(Paths::resolve(kLocationsPath).c_str(), &st) != 0) return "";
        return std::to_string(st.st_ino) + ":" + std::to_string(st.st_mtim.tv_sec) + "." +
               std::to_string(st.st_mtim.tv_nsec) + ":" + std::to_string(st.st_size);
    }

    // `force` reports even an unchanged position: at start, and until the hub has taken a line
    // (the input-event role may come up after the app).
    void check(bool force) {
        force = force || !delivered_;
        const std::string now = stamp();
        if (!force && now == stamp_) return;
        stamp_ = now;
        const auto location = TWLocationClient::fakedLocationForApp(bundleId_);
        if (!force && location == reported_) return;
        reported_ = location;
        auto line = device::newTraceLine("location");
        line["bundle"] = bundleId_;
        if (location) {
            line["latitude"] = location->latitude;
            line["longitude"] = location->longitude;
        } else {
            line["cleared"] = true;
        }
        delivered_ = publisher_.publish(device::dumpTraceLine(line));
    }

    std::string bundleId_;
    device::HubTracePublisher& publisher_;
    std::string stamp_;
    std::optional<FakedLocation> reported_;
    bool delivered_ = false;
    std::shared_ptr<RunLoop::Timer> timer_;
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
    device::HubTracePublisher publisher(run);
    std::unique_ptr<Keyboard> keyboard;
    std::unique_ptr<LocationWatcher> location;
    if (isApp) {
        field.setOnEdited(
            [&](const std::string& text) { publisher.publish(device::textTraceLine(options.bundleId, text)); });
        if (roles.textInput) keyboard = std::make_unique<Keyboard>(*notifications, *loop, field);
        location = std::make_unique<LocationWatcher>(*loop, options.bundleId, publisher);
    }

    // The home screen: the trigger listener (which prepares the library and the settings database
    // and inspects the bindings 30 seconds later), the commands port and the control socket.
    std::unique_ptr<ControlSocket> control;
    std::shared_ptr<LocalPort> commands;
    if (roles.homeScreen) {
        installAppResources(Paths::root());
        // The servers whose auto-launch setting is on start with the shared state, before the
        // library folders are made; they only touch the folders when asked.
        WebServerConfig web;
        web.bindAddress = "127.0.0.1";
        web.webPort = options.webPort;
        web.davPort = options.davPort;
        WebServerManager::sharedInstance().configure(web);
        WebServerManager::sharedInstance().launchAtStartUp();
        ActionListener::load();
        // The device's buttons, pressed by a person, fire trigger events.
        const auto& platform = Platform::current();
        auto activator = std::dynamic_pointer_cast<device::DeviceActivator>(platform.activator);
        if (activator && platform.hidClients) activator->watchButtons(*platform.hidClients);
        commands = openCommandsPort(*Platform::current().ports, *loop);
        if (!commands)
            fail(std::string("the port ") + kCommandsPortName + " is taken: another home screen runs on " + Paths::root());
        // The control socket opens last: a device is ready once it answers, and by then the buttons
        // are heard (the input-event role's hub may come up a moment after this role).
        if (activator) loop->runUntil([&] { return activator->watchingButtons(); }, std::chrono::seconds(5));
        control = std::make_unique<ControlSocket>(*loop, run);
    }

    asio::signal_set signals(loop->context(), SIGINT, SIGTERM);
    signals.async_wait([&](const std::error_code& ec, int) {
        if (!ec) loop->stop();
    });
    loop->run();

    control.reset();
    if (commands) commands->invalidate();
    if (roles.homeScreen) WebServerManager::sharedInstance().reset();
    keyboard.reset();
    location.reset();
    if (injector && injector->port()) injector->port()->invalidate();
    if (hidSystem) hidSystem->stop();
    return 0;
}

}  // namespace tw::roles
