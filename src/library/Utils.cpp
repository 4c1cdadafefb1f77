#include "library/Utils.h"

#include <openssl/evp.h>
#include <plist/plist.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>

#include "core/Paths.h"
#include "platform/Platform.h"
#include "platform/RunLoop.h"
#include "platform/linux/ProfileDeviceInfo.h"

namespace tw {

namespace {

struct PlistDeleter {
    void operator()(void* p) const {
        if (p) plist_free(static_cast<plist_t>(p));
    }
};
using PlistHandle = std::unique_ptr<void, PlistDeleter>;

PlistHandle readPlist(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return nullptr;
    const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (data.empty() || data.size() > UINT32_MAX) return nullptr;
    plist_t root = nullptr;
    plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &root);
    return PlistHandle(root);
}

std::string takeString(char* s) {
    std::string out = s ? s : "";
    std::free(s);
    return out;
}

// A value as text, for the kinds a record's fields have; nullopt for containers and data.
std::optional<std::string> scalarText(plist_t node) {
    switch (plist_get_node_type(node)) {
        case PLIST_STRING: {
            char* s = nullptr;
            plist_get_string_val(node, &s);
            return takeString(s);
        }
        case PLIST_BOOLEAN: {
            uint8_t b = 0;
            plist_get_bool_val(node, &b);
            return std::string(b ? "1" : "0");
        }
        case PLIST_UINT: {
            uint64_t v = 0;
            plist_get_uint_val(node, &v);
            return std::to_string(v);
        }
        case PLIST_REAL: {
            double v = 0;
            plist_get_real_val(node, &v);
            char buffer[64];
            std::snprintf(buffer, sizeof buffer, "%g", v);
            return std::string(buffer);
        }
        default:
            return std::nullopt;
    }
}

AppRecord recordOf(plist_t dict) {
    AppRecord record;
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(dict, &it);
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(dict, it, &key, &value);
        if (!key) break;
        const std::string name = takeString(key);
        if (auto text = scalarText(value)) record[name] = *text;
    }
    std::free(it);
    return record;
}

void appendRecords(plist_t root, const char* group, std::vector<AppRecord>* out) {
    plist_t dict = plist_dict_get_item(root, group);
    if (!dict || plist_get_node_type(dict) != PLIST_DICT) return;
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(dict, &it);
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(dict, it, &key, &value);
        if (!key) break;
        std::free(key);
        if (plist_get_node_type(value) == PLIST_DICT) out->push_back(recordOf(value));
    }
    std::free(it);
}

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
    PlistHandle info = readPlist(Paths::resolve(std::string(kAppPath) + "/Info.plist"));
    if (!info || plist_get_node_type(info.get()) != PLIST_DICT) return std::nullopt;
    plist_t version = plist_dict_get_item(info.get(), "CFBundleVersion");
    if (!version || plist_get_node_type(version) != PLIST_STRING) return std::nullopt;
    char* s = nullptr;
    plist_get_string_val(version, &s);
    return takeString(s);
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
    std::vector<AppRecord> apps;
    if (auto* profile = dynamic_cast<const linuxp::ProfileDeviceInfo*>(Platform::current().device.get())) {
        for (const auto& app : profile->profile().apps)
            apps.push_back({{"CFBundleIdentifier", app.bundleId},
                            {"CFBundleDisplayName", app.name},
                            {"CFBundleVersion", app.version},
                            {"ApplicationType", "User"}});
        return apps;
    }
    PlistHandle list = readPlist(Paths::resolve(kInstallationListPath));
    if (!list || plist_get_node_type(list.get()) != PLIST_DICT) return apps;
    appendRecords(list.get(), "User", &apps);
    appendRecords(list.get(), "System", &apps);
    return apps;
}

Error Utils::customErrorWithDomain(const std::string& domain, int64_t code, const std::string& description) {
    return Error{domain, code, description};
}

void Utils::alert(const std::string& text) {
    auto ui = Platform::current().ui;
    if (!ui) return;
    AlertRequest request{"", text, {"OK"}};
    if (RunLoop::hasMain() && !RunLoop::main().isCurrent())
        RunLoop::main().post([ui, request] { ui->showAlert(request); });
    else
        ui->showAlert(request);
}

}  // namespace tw
