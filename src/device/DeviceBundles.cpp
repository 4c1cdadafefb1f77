#include "device/DeviceBundles.h"

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>

#include "core/AtomicFile.h"
#include "core/Plist.h"

namespace fs = std::filesystem;

namespace tw::device {

namespace {

std::string infoPlistXml(const linuxp::AppProfile& app) {
    PlistHandle dictionary(plist_new_dict());
    plist_dict_set_item(dictionary.get(), "CFBundleIdentifier", plist_new_string(app.bundleId.c_str()));
    plist_dict_set_item(dictionary.get(), "CFBundleName",
                        plist_new_string((app.name.empty() ? app.bundleId : app.name).c_str()));
    plist_dict_set_item(dictionary.get(), "CFBundleShortVersionString", plist_new_string(app.version.c_str()));
    plist_dict_set_item(dictionary.get(), "CFBundleVersion", plist_new_string(app.version.c_str()));
    return plistToXml(dictionary.get()).value_or("");
}

// A folder name made of `name`: no "/" and no NUL, not "." or "..".
std::string folderName(const std::string& name) {
    std::string out;
    for (char c : name) out.push_back(c == '/' || c == '\0' ? '_' : c);
    if (out == "." || out == "..") out.clear();
    return out;
}

}  // namespace

bool writeAppBundles(const std::string& root, const linuxp::DeviceProfile& profile, std::string* error) {
    bool ok = true;
    std::set<std::string> taken;
    for (const auto& app : profile.apps) {
        std::string folder = folderName(app.name);
        if (folder.empty() || taken.count(folder)) folder = folderName(app.bundleId);
        if (folder.empty() || !taken.insert(folder).second) continue;
        const std::string path = root + kApplicationsPath + "/" + folder + ".app/Info.plist";
        const std::string xml = infoPlistXml(app);
        if (xml.empty()) continue;
        if (readWholeFile(path) == xml) continue;
        std::string failure;
        std::error_code ec;
        fs::create_directories(fs::path(path).parent_path(), ec);
        if (!writeFileAtomically(path, xml, &failure) && ok) {
            ok = false;
            if (error) *error = failure;
        }
    }
    return ok;
}

std::optional<std::string> DeviceBundleInfo::infoDictionaryString(const std::string& bundleIdentifier,
                                                                  const std::string& key) const {
    std::error_code ec;
    for (auto it = fs::directory_iterator(root_ + kApplicationsPath, ec); !ec && it != fs::directory_iterator();
         it.increment(ec)) {
        if (it->path().extension() != ".app") continue;
        const auto bytes = readWholeFile((it->path() / "Info.plist").string());
        if (!bytes) continue;
        PlistHandle info = parsePlist(*bytes);
        if (plistDictString(info.get(), "CFBundleIdentifier") != bundleIdentifier) continue;
        return plistDictString(info.get(), key);
    }
    return std::nullopt;
}

}  // namespace tw::device
