#include "core/Plist.h"

#include <cstdint>

#include "core/AtomicFile.h"

namespace tw {

PlistHandle parsePlist(std::string_view bytes) {
    if (bytes.empty() || bytes.size() > UINT32_MAX) return nullptr;
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    return PlistHandle(root);
}

PlistHandle readPlistFile(const std::string& path) {
    const auto bytes = readWholeFile(path);
    return bytes ? parsePlist(*bytes) : nullptr;
}

std::optional<std::string> plistToXml(plist_t node) {
    char* data = nullptr;
    uint32_t length = 0;
    plist_to_xml(node, &data, &length);
    if (!data) return std::nullopt;
    std::string text(data, length);
    plist_to_xml_free(data);
    return text;
}

std::optional<std::string> plistToBinary(plist_t node) {
    char* data = nullptr;
    uint32_t length = 0;
    plist_to_bin(node, &data, &length);
    if (!data) return std::nullopt;
    std::string bytes(data, length);
    plist_to_bin_free(data);
    return bytes;
}

bool isPlistDict(plist_t node) { return node && plist_get_node_type(node) == PLIST_DICT; }

std::optional<std::string> plistString(plist_t node) {
    if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
    uint64_t length = 0;
    const char* text = plist_get_string_ptr(node, &length);
    if (!text) return std::nullopt;
    return std::string(text, static_cast<size_t>(length));
}

std::optional<std::string> plistDictString(plist_t dict, const std::string& key) {
    if (!isPlistDict(dict)) return std::nullopt;
    return plistString(plist_dict_get_item(dict, key.c_str()));
}

}  // namespace tw
