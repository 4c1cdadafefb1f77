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

}  // namespace tw
