#pragma once
// DeviceInfo from a virtual device profile (resources/devices/<name>.json).
#include <string>
#include <vector>

#include "platform/DeviceInfo.h"

namespace tw::linuxp {

struct AppProfile {
    std::string bundleId;
    std::string name;
    std::string version;
};

struct DeviceProfile {
    std::string name = "default";
    std::string systemVersion = "9.3.5";
    double coreFoundationVersionNumber = 1242.13;
    double screenWidth = 375;   // points, portrait
    double screenHeight = 667;
    double scale = 2.0;
    int orientation = 1;
    std::string serialNumber = "TW0000000001";
    std::vector<std::string> languages{"en"};
    std::vector<AppProfile> apps;
};

// Parses a profile; throws std::runtime_error with a clear message on bad JSON or values (the
// screen must be one of the five known sizes, the scale positive).
DeviceProfile parseDeviceProfile(const std::string& jsonText);
DeviceProfile loadDeviceProfile(const std::string& path);

class ProfileDeviceInfo : public DeviceInfo {
public:
    ProfileDeviceInfo(DeviceProfile profile, std::string mainBundleIdentifier);

    std::string mainBundleIdentifier() const override { return bundleId_; }
    std::string systemVersion() const override { return profile_.systemVersion; }
    double coreFoundationVersionNumber() const override { return profile_.coreFoundationVersionNumber; }
    double screenWidthPoints() const override { return profile_.screenWidth; }
    double screenHeightPoints() const override { return profile_.screenHeight; }
    double screenScale() const override { return profile_.scale; }
    int orientation() const override { return profile_.orientation; }
    std::string serialNumber() const override { return profile_.serialNumber; }
    std::vector<std::string> preferredLanguages() const override { return profile_.languages; }

    const DeviceProfile& profile() const { return profile_; }

private:
    DeviceProfile profile_;
    std::string bundleId_;
};

}  // namespace tw::linuxp
