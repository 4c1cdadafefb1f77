#include "core/TWLocationClient.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <plist/plist.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "core/LogToFile.h"
#include "core/Paths.h"

namespace tw {

namespace {

struct PlistDeleter {
    void operator()(void* p) const {
        if (p) plist_free(static_cast<plist_t>(p));
    }
};
using PlistHandle = std::unique_ptr<void, PlistDeleter>;

std::string tablePath() { return Paths::resolve(kLocationsPath); }

// The table's root dictionary, or nullptr when the file is missing, unreadable or not a
// dictionary property list.
PlistHandle readTable(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return nullptr;
    const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (data.empty() || data.size() > UINT32_MAX) return nullptr;
    plist_t root = nullptr;
    plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &root);
    PlistHandle table(root);
    if (!table || plist_get_node_type(root) != PLIST_DICT) return nullptr;
    return table;
}

bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Writes the dictionary as an XML property list beside the table and renames it into place.
bool writeTable(const std::string& path, plist_t table) {
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(table, &xml, &length);
    if (!xml) return false;
    std::unique_ptr<char, void (*)(char*)> text(xml, plist_to_xml_free);

    std::string temp = path + ".XXXXXX";
    const int fd = ::mkstemp(temp.data());
    if (fd < 0) return false;
    bool ok = ::fchmod(fd, 0644) == 0 && writeAll(fd, text.get(), length) && ::fsync(fd) == 0;
    ok = ::close(fd) == 0 && ok;
    ok = ok && ::rename(temp.c_str(), path.c_str()) == 0;
    if (!ok) ::unlink(temp.c_str());
    return ok;
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
