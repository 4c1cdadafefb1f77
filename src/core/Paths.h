#pragma once
// The fixed paths of the system, resolved against the device root ("/" on a phone, a folder on
// Linux), so that "/var/mobile/Library/Tapwright/Scripts" of device root R is
// "R/var/mobile/Library/Tapwright/Scripts".
#include <string>

namespace tw {

inline constexpr const char* kScriptsPath = "/var/mobile/Library/Tapwright/Scripts";
inline constexpr const char* kLibraryPath = "/var/mobile/Library/Tapwright/Library";
inline constexpr const char* kTimersPath = "/var/mobile/Library/Tapwright/Library/timers";
// The web servers' password, as a digest file (no file: no password).
inline constexpr const char* kWebPasswordPath = "/var/mobile/Library/Tapwright/Library/web-password";
inline constexpr const char* kLogPath = "/var/mobile/Library/Tapwright/Library/log.log";
inline constexpr const char* kDatabaseFileName = "data.sqlite3";
inline constexpr const char* kAppPath = "/Applications/Tapwright.app";
inline constexpr const char* kExtensionsPath = "/Applications/Tapwright.app/Extensions.lua";
inline constexpr const char* kWebsitePath = "/Applications/Tapwright.app/website";
inline constexpr const char* kLocationsPath = "/Applications/Tapwright.app/locations";
inline constexpr const char* kPreferencesPath = "/var/mobile/Library/Preferences";
inline constexpr const char* kRunPath = "/run";

class Paths {
public:
    // Sets the device root; "" or "/" means the real root. Trailing slashes are dropped.
    static void setRoot(const std::string& root);
    static const std::string& root();
    // `fixedPath` (absolute, as the system names it) on this device.
    static std::string resolve(const std::string& fixedPath);
    // The path as the system sees it, from the device root's "/" down: `hostPath` without the
    // device root in front; a path outside the device root is returned as it is.
    static std::string devicePath(const std::string& hostPath);

    static std::string scriptsDir() { return resolve(kScriptsPath); }
    static std::string libraryDir() { return resolve(kLibraryPath); }
    static std::string logFile() { return resolve(kLogPath); }
    static std::string extensionsFile() { return resolve(kExtensionsPath); }
    static std::string runDir() { return resolve(kRunPath); }
    // The preferences file of a user-defaults domain.
    static std::string preferencesFile(const std::string& domain);
};

}  // namespace tw
