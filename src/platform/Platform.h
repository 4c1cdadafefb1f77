#pragma once
// The platform services of this process, installed at start-up (a role's wiring, a test fixture).
// Callers include the seam headers of the services they use.
#include <memory>

namespace tw {

class ActivatorFramework;
class AppService;
class AudioService;
class BundleInfo;
class DeviceInfo;
class Display;
class DistributedNotificationCenter;
class HidEventClientFactory;
class HidEventSystem;
class LocalNetwork;
class MessagePortService;
class Pasteboard;
class Sleeper;
class SoundService;
class UserDefaults;
class UserInterface;

struct Platform {
    std::shared_ptr<MessagePortService> ports;
    // The home-screen process's own preferences domain, where the settings live.
    std::shared_ptr<UserDefaults> standardDefaults;
    std::shared_ptr<DeviceInfo> device;
    std::shared_ptr<UserInterface> ui;
    std::shared_ptr<SoundService> sounds;
    // Makes the players of sound files (the one player slot of the script functions).
    std::shared_ptr<AudioService> audio;
    // The application registry, the general pasteboard and the installed bundles' information.
    std::shared_ptr<AppService> apps;
    std::shared_ptr<Pasteboard> pasteboard;
    std::shared_ptr<BundleInfo> bundles;
    std::shared_ptr<Sleeper> sleeper;
    std::shared_ptr<DistributedNotificationCenter> notifications;
    // The device's input system; present in the input-event role only.
    std::shared_ptr<HidEventSystem> hidSystem;
    // Makes clients that hear every event the device's input system delivers (the recorder's).
    std::shared_ptr<HidEventClientFactory> hidClients;
    std::shared_ptr<Display> display;
    // The trigger framework; present in the home-screen role.
    std::shared_ptr<ActivatorFramework> activator;
    // Reachability, the device's address and service advertisement; present in the home-screen role.
    std::shared_ptr<LocalNetwork> network;

    static Platform& current();
    static void install(Platform platform);
};

}  // namespace tw
