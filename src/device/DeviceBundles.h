#pragma once
// The app bundles of the virtual device: for each app of the profile an information property list
// "<root>/Applications/<Name>.app/Info.plist" (XML) with CFBundleIdentifier, CFBundleName,
// CFBundleShortVersionString and CFBundleVersion (both the profile's version). The folder is named
// after the app's name, or its bundle id when it has none or the name is taken. Lookups find a
// bundle by the CFBundleIdentifier of the property lists under "<root>/Applications".
#include <string>

#include "platform/BundleInfo.h"
#include "platform/linux/ProfileDeviceInfo.h"

namespace tw::device {

inline constexpr const char* kApplicationsPath = "/Applications";

// Writes the information property list of every app of `profile` under `root`, each replaced
// atomically and only when its content changes. False, with the first failure in `error`, when one
// could not be written.
bool writeAppBundles(const std::string& root, const linuxp::DeviceProfile& profile, std::string* error = nullptr);

class DeviceBundleInfo : public BundleInfo {
public:
    explicit DeviceBundleInfo(std::string root) : root_(std::move(root)) {}

    std::optional<std::string> infoDictionaryString(const std::string& bundleIdentifier,
                                                    const std::string& key) const override;

private:
    std::string root_;
};

}  // namespace tw::device
