#include "platform/linux/ProfileDeviceInfo.h"

#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <stdexcept>

namespace tw::linuxp {

namespace {

using nlohmann::json;

// The portrait screen sizes, in points, of the devices the engine can stand for.
constexpr struct {
    double width, height;
} kKnownScreens[] = {{320, 480}, {320, 568}, {375, 667}, {414, 736}, {768, 1024}};

std::string knownScreensText() {
    std::string text;
    for (const auto& s : kKnownScreens) {
        if (!text.empty()) text += ", ";
        text += std::to_string(static_cast<int>(s.width)) + "x" + std::to_string(static_cast<int>(s.height));
    }
    return text;
}

std::string formatNumber(double d) {
    std::ostringstream out;
    out << d;
    return out.str();
}

class ProfileReader {
public:
    explicit ProfileReader(std::string origin) : origin_(std::move(origin)) {}

    [[noreturn]] void fail(const std::string& key, const std::string& message) const {
        throw std::runtime_error("device profile " + origin_ + ": \"" + key + "\" " + message);
    }

    std::string string(const json& value, const std::string& key, bool allowEmpty = true) const {
        if (!value.is_string()) fail(key, "must be a string, not " + std::string(value.type_name()));
        auto s = value.get<std::string>();
        if (!allowEmpty && s.empty()) fail(key, "must not be empty");
        return s;
    }

    double number(const json& value, const std::string& key) const {
        if (!value.is_number()) fail(key, "must be a number, not " + std::string(value.type_name()));
        const double d = value.get<double>();
        if (!std::isfinite(d)) fail(key, "must be a finite number");
        return d;
    }

    const json& object(const json& value, const std::string& key) const {
        if (!value.is_object()) fail(key, "must be an object, not " + std::string(value.type_name()));
        return value;
    }

    const json& array(const json& value, const std::string& key) const {
        if (!value.is_array()) fail(key, "must be an array, not " + std::string(value.type_name()));
        return value;
    }

    DeviceProfile read(const std::string& jsonText) const {
        json root;
        try {
            root = json::parse(jsonText);
        } catch (const json::parse_error& e) {
            throw std::runtime_error("device profile " + origin_ + ": malformed JSON at byte " +
                                     std::to_string(e.byte) + ": " + e.what());
        }
        if (!root.is_object())
            throw std::runtime_error("device profile " + origin_ + ": the top level must be an object, not " +
                                     std::string(root.type_name()));

        DeviceProfile p;
        if (root.contains("name")) p.name = string(root["name"], "name", false);
        if (root.contains("systemVersion")) {
            p.systemVersion = string(root["systemVersion"], "systemVersion", false);
            if (p.systemVersion.front() < '0' || p.systemVersion.front() > '9')
                fail("systemVersion", "must be a dotted version such as \"9.3.5\", not \"" + p.systemVersion + "\"");
        }
        if (root.contains("coreFoundationVersionNumber")) {
            p.coreFoundationVersionNumber =
                number(root["coreFoundationVersionNumber"], "coreFoundationVersionNumber");
            if (p.coreFoundationVersionNumber <= 0)
                fail("coreFoundationVersionNumber", "must be positive");
        }
        if (root.contains("screen")) readScreen(object(root["screen"], "screen"), p);
        if (root.contains("orientation")) {
            const json& o = root["orientation"];
            if (!o.is_number_integer() || o.get<int64_t>() < 1 || o.get<int64_t>() > 6)
                fail("orientation", "must be an integer from 1 to 6, not " + o.dump());
            p.orientation = o.get<int>();
        }
        if (root.contains("serialNumber")) p.serialNumber = string(root["serialNumber"], "serialNumber", false);
        if (root.contains("languages")) {
            const json& list = array(root["languages"], "languages");
            if (list.empty()) fail("languages", "must name at least one language");
            p.languages.clear();
            for (size_t i = 0; i < list.size(); ++i)
                p.languages.push_back(string(list[i], "languages[" + std::to_string(i) + "]", false));
        }
        if (root.contains("apps")) readApps(array(root["apps"], "apps"), p);
        return p;
    }

private:
    void readScreen(const json& screen, DeviceProfile& p) const {
        if (screen.contains("width")) p.screenWidth = number(screen["width"], "screen.width");
        if (screen.contains("height")) p.screenHeight = number(screen["height"], "screen.height");
        if (screen.contains("scale")) {
            p.scale = number(screen["scale"], "screen.scale");
            if (p.scale <= 0) fail("screen.scale", "must be positive, not " + formatNumber(p.scale));
        }
        for (const auto& s : kKnownScreens)
            if (s.width == p.screenWidth && s.height == p.screenHeight) return;
        fail("screen", "size " + formatNumber(p.screenWidth) + "x" + formatNumber(p.screenHeight) +
                           " is not a known portrait size (" + knownScreensText() + ")");
    }

    void readApps(const json& list, DeviceProfile& p) const {
        std::set<std::string> seen;
        for (size_t i = 0; i < list.size(); ++i) {
            const std::string at = "apps[" + std::to_string(i) + "]";
            const json& app = object(list[i], at);
            AppProfile a;
            if (!app.contains("bundleId")) fail(at + ".bundleId", "is required");
            a.bundleId = string(app["bundleId"], at + ".bundleId", false);
            if (app.contains("name")) a.name = string(app["name"], at + ".name");
            if (app.contains("version")) a.version = string(app["version"], at + ".version");
            if (!seen.insert(a.bundleId).second) fail(at + ".bundleId", "repeats \"" + a.bundleId + "\"");
            p.apps.push_back(std::move(a));
        }
    }

    std::string origin_;
};

}  // namespace

DeviceProfile parseDeviceProfile(const std::string& jsonText) {
    return ProfileReader("(text)").read(jsonText);
}

DeviceProfile loadDeviceProfile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("device profile " + path + ": cannot open the file");
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) throw std::runtime_error("device profile " + path + ": cannot read the file");
    return ProfileReader(path).read(text.str());
}

ProfileDeviceInfo::ProfileDeviceInfo(DeviceProfile profile, std::string mainBundleIdentifier)
    : profile_(std::move(profile)), bundleId_(std::move(mainBundleIdentifier)) {}

}  // namespace tw::linuxp
