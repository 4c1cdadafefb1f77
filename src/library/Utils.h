#pragma once
// Small stateless services used beside the script library: the module's version, SHA-1 text, the
// screen size text, the installed apps, error values and a plain alert.
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "library/Error.h"
#include "platform/AppService.h"

namespace tw {


class Utils {
public:
    // "CFBundleVersion" of the app folder's Info.plist; nullopt when there is none.
    static std::optional<std::string> getCurrentVersion();
    // 40 lower-case hex digits of the SHA-1 of the text's first N UTF-8 bytes, N being the
    // number of UTF-16 units of the text (so non-ASCII text hashes a prefix of its bytes).
    static std::string sha1(const std::string& text);
    // The main screen in pixels, "%.0fx%.0f", the longer side first in landscape orientations.
    static std::string getScreenSize();
    // User applications, then system applications, as the platform's application service lists
    // them (the system's installation list on a phone, the profile's apps on a virtual device);
    // none without the service.
    static std::vector<AppRecord> appInstalledList();
    static Error customErrorWithDomain(const std::string& domain, int64_t code, const std::string& description);
    // An alert with the text and one button "OK", shown on the main run loop.
    static void alert(const std::string& text);
};

}  // namespace tw
