#include "library/Utils.h"

#include <openssl/evp.h>

#include <cstdio>

#include "core/Alert.h"
#include "core/Paths.h"
#include "core/Plist.h"
#include "platform/DeviceInfo.h"
#include "platform/AppService.h"
#include "platform/Platform.h"

namespace tw {

namespace {

// Number of UTF-16 units of UTF-8 text; a byte that starts no valid sequence counts as one.
size_t utf16Length(const std::string& text) {
    size_t units = 0;
    for (size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        size_t len = 1;
        if (c >= 0xF0 && c <= 0xF4)
            len = 4;
        else if (c >= 0xE0)
            len = 3;
        else if (c >= 0xC2 && c < 0xE0)
            len = 2;
        if (len > 1 && i + len <= text.size()) {
            bool continuation = true;
            for (size_t k = 1; k < len; ++k)
                continuation &= (static_cast<unsigned char>(text[i + k]) & 0xC0) == 0x80;
            if (!continuation) len = 1;
        } else {
            len = 1;
        }
        units += len == 4 ? 2 : 1;
        i += len;
    }
    return units;
}

}  // namespace

std::optional<std::string> Utils::getCurrentVersion() {
    PlistHandle info = readPlistFile(Paths::resolve(std::string(kAppPath) + "/Info.plist"));
    return plistDictString(info.get(), "CFBundleVersion");
}

std::string Utils::sha1(const std::string& text) {
    const size_t hashed = std::min(text.size(), utf16Length(text));
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(text.data(), hashed, digest, &length, EVP_sha1(), nullptr);
    std::string out;
    char hex[3];
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(hex, sizeof hex, "%02x", digest[i]);
        out += hex;
    }
    return out;
}

std::string Utils::getScreenSize() {
    const auto& device = Platform::current().device;
    double width = 0, height = 0;
    if (device) {
        width = device->screenWidthPoints() * device->screenScale();
        height = device->screenHeightPoints() * device->screenScale();
        // Orientations 3 and 4 are the two landscape ones.
        const int orientation = device->orientation();
        if (orientation == 3 || orientation == 4) std::swap(width, height);
    }
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.0fx%.0f", width, height);
    return buffer;
}

std::vector<AppRecord> Utils::appInstalledList() {
    auto apps = Platform::current().apps;
    return apps ? apps->installedApps() : std::vector<AppRecord>{};
}

Error Utils::customErrorWithDomain(const std::string& domain, int64_t code, const std::string& description) {
    return Error{domain, code, description};
}

void Utils::alert(const std::string& text) { showPlainAlert(text); }

}  // namespace tw
