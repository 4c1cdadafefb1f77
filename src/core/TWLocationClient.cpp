#include "core/TWLocationClient.h"

#include <string>

#include "core/AtomicFile.h"
#include "core/LogToFile.h"
#include "core/Plist.h"
#include "core/Paths.h"

namespace tw {

namespace {

std::string tablePath() { return Paths::resolve(kLocationsPath); }

// The table's root dictionary, or null when the file is missing, unreadable or not a dictionary.
PlistHandle readTable(const std::string& path) {
    PlistHandle table = readPlistFile(path);
    return isPlistDict(table.get()) ? std::move(table) : nullptr;
}

// Writes the dictionary back as an XML property list, atomically.
bool writeTable(const std::string& path, plist_t table) {
    const auto xml = plistToXml(table);
    return xml && writeFileAtomically(path, *xml);
}

}  // namespace

void TWLocationClient::fakeLocationForApp(const char* bundleIdentifier, double latitude, double longitude) {
    if (!bundleIdentifier || !isValidUtf8(bundleIdentifier)) return;
    const std::string path = tablePath();
    PlistHandle table = readTable(path);
    if (!table) table.reset(plist_new_dict());
    plist_t pair = plist_new_array();
    plist_array_append_item(pair, plist_new_real(latitude));
    plist_array_append_item(pair, plist_new_real(longitude));
    // The dictionary takes the pair and frees the entry it replaces.
    plist_dict_set_item(table.get(), bundleIdentifier, pair);
    if (!writeTable(path, table.get())) LogToFile("Failed to write data to file when faking location!");
}

void TWLocationClient::clearFakeLocationForApp(const char* bundleIdentifier) {
    if (!bundleIdentifier || !isValidUtf8(bundleIdentifier)) return;
    const std::string path = tablePath();
    PlistHandle table = readTable(path);
    if (!table) return;
    if (plist_dict_get_item(table.get(), bundleIdentifier)) plist_dict_remove_item(table.get(), bundleIdentifier);
    if (!writeTable(path, table.get())) LogToFile("Failed to write data to file when clearing faked location!");
}

std::optional<FakedLocation> TWLocationClient::fakedLocationForApp(const std::string& bundleIdentifier) {
    PlistHandle table = readTable(tablePath());
    if (!table) return std::nullopt;
    plist_t pair = plist_dict_get_item(table.get(), bundleIdentifier.c_str());
    if (!pair || plist_get_node_type(pair) != PLIST_ARRAY || plist_array_get_size(pair) != 2) return std::nullopt;
    double values[2];
    for (uint32_t i = 0; i < 2; ++i) {
        plist_t item = plist_array_get_item(pair, i);
        switch (item ? plist_get_node_type(item) : PLIST_NONE) {
            case PLIST_REAL:
                plist_get_real_val(item, &values[i]);
                break;
            case PLIST_UINT: {
                uint64_t whole = 0;
                plist_get_uint_val(item, &whole);
                values[i] = static_cast<double>(static_cast<int64_t>(whole));
                break;
            }
            default:
                return std::nullopt;
        }
    }
    return FakedLocation{values[0], values[1]};
}

}  // namespace tw
