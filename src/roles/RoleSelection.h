#pragma once
// The role a process takes at load, from its main bundle identifier.
#include <string>

namespace tw {

inline constexpr const char* kHomeScreenBundleId = "com.apple.springboard";
inline constexpr const char* kInputEventBundleId = "com.apple.backboardd";

struct RoleSelection {
    bool inputEvent = false;  // the injector and its port
    bool textInput = false;   // keyboards take forwarded text (apps, on systems above CF 800.0)
    bool homeScreen = false;  // plays, the commands port and the user's services
};

// The three start-up decisions: the input-event role for "com.apple.backboardd", the home-screen
// role for "com.apple.springboard", and text input in every process whose Core Foundation version
// number is above 800.0.
RoleSelection selectRoles(const std::string& bundleId, double coreFoundationVersionNumber);

}  // namespace tw
