#include "device/DeviceBundles.h"

#include <plist/plist.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>

#include "device/AtomicFile.h"

namespace fs = std::filesystem;

namespace tw::device {

namespace {

struct PlistDeleter {
    void operator()(void* p) const {
        if (p) plist_free(static_cast<plist_t>(p));
    }
};
using PlistHandle = std::unique_ptr<void, PlistDeleter>;

PlistHandle parsePlist(const std::string& bytes) {
    if (bytes.empty() || bytes.size() > UINT32_MAX) return nullptr;
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    return PlistHandle(root);
}

std::optional<std::string> stringItem(plist_t dictionary, const std::string& key) {
    plist_t item = plist_dict_get_item(dictionary, key.c_str());
    if (!item || plist_get_node_type(item) != PLIST_STRING) return std::nullopt;
    char* text = nullptr;
    plist_get_string_val(item, &text);
    if (!text) return std::nullopt;
    std::string value(text);
    std::free(text);
    return value;
}

std::string infoPlistXml(const linuxp::AppProfile& app) {
    PlistHandle dictionary(plist_new_dict());
    plist_dict_set_item(dictionary.get(), "CFBundleIdentifier", plist_new_string(app.bundleId.c_str()));
    plist_dict_set_item(dictionary.get(), "CFBundleName",
                        plist_new_string((app.name.empty() ? app.bundleId : app.name).c_str()));
    plist_dict_set_item(dictionary.get(), "CFBundleShortVersionString", plist_new_string(app.version.c_str()));
    plist_dict_set_item(dictionary.get(), "CFBundleVersion", plist_new_string(app.version.c_str()));
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(dictionary.get(), &xml, &length);
    if (!xml) return "";
    std::string text(xml, length);
    plist_to_xml_free(xml);
    return text;
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
        if (!info || plist_get_node_type(info.get()) != PLIST_DICT) continue;
        if (stringItem(info.get(), "CFBundleIdentifier") != bundleIdentifier) continue;
        return stringItem(info.get(), key);
    }
    return std::nullopt;
}

}  // namespace tw::device
