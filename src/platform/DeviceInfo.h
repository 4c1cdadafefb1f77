#pragma once
// Facts about the device and the process: bundle id, system version, Core Foundation version
// number, screen, orientation, languages.
#include <string>
#include <vector>

namespace tw {

class DeviceInfo {
public:
    virtual ~DeviceInfo() = default;
    // Bundle identifier of the process's main bundle ("com.apple.springboard" in the home screen).
    virtual std::string mainBundleIdentifier() const = 0;
    virtual std::string systemVersion() const = 0;
    virtual double coreFoundationVersionNumber() const = 0;
    // Main screen bounds in points (portrait) and points-to-pixels scale.
    virtual double screenWidthPoints() const = 0;
    virtual double screenHeightPoints() const = 0;
    virtual double screenScale() const = 0;
    // Device orientation, 0 (unknown) to 6.
    virtual int orientation() const = 0;
    virtual std::string serialNumber() const = 0;
    // The user's preferred languages, most preferred first ("en", "ja", "zh-Hans", ...).
    virtual std::vector<std::string> preferredLanguages() const = 0;
};

// Compares two dotted version texts numerically ("9.3.5" > "9.0", "10.0" > "9.3"): <0, 0, >0.
int compareVersions(const std::string& a, const std::string& b);

}  // namespace tw
