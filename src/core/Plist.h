#pragma once
// Property lists through libplist: one owning handle for nodes, and the reads, writes and lookups
// that every user of property lists needs (user defaults, app information, the locations table,
// notifications, the site's type table).
#include <plist/plist.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tw {

struct PlistNodeFree {
    void operator()(void* node) const {
        if (node) plist_free(static_cast<plist_t>(node));
    }
};
// Owns a node and everything below it.
using PlistHandle = std::unique_ptr<void, PlistNodeFree>;

// Binary or XML property-list bytes as a node; null when they are not a property list.
PlistHandle parsePlist(std::string_view bytes);
// The file at `path` as a node; null when it is missing, unreadable or not a property list.
PlistHandle readPlistFile(const std::string& path);
// The node as XML or binary property-list bytes; nullopt when it cannot be encoded.
std::optional<std::string> plistToXml(plist_t node);
std::optional<std::string> plistToBinary(plist_t node);

// True when `node` is a dictionary.
bool isPlistDict(plist_t node);
// The text of a string node; nullopt for any other node.
std::optional<std::string> plistString(plist_t node);
// The text value of `key` in the dictionary `dict`; nullopt when `dict` is no dictionary or the
// value is not text.
std::optional<std::string> plistDictString(plist_t dict, const std::string& key);

}  // namespace tw
