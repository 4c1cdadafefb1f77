#include "roles/RoleSelection.h"

namespace tw {

RoleSelection selectRoles(const std::string& bundleId, double cfVersion) {
    RoleSelection r;
    r.inputEvent = bundleId == kInputEventBundleId;
    r.homeScreen = bundleId == kHomeScreenBundleId;
    r.textInput = cfVersion > 800.0;
    return r;
}

}  // namespace tw
