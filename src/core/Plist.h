#pragma once
// Property lists through libplist: one owning handle for nodes, and the reads, writes and lookups
// that every user of property lists needs (user defaults, app information, the locations table,
// notifications, the site's type table).
#include <plist/plist.h>

#include <cstddef>
#include <functional>
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

// Deepest nesting and, for binary lists, the most nodes per byte of input that parsePlist accepts.
inline constexpr size_t kMaxPlistDepth = 256;

// False for bytes libplist cannot be trusted with: texts that are not UTF-8 or hold a NUL character
// (libplist asserts when it hands out such a dictionary key, and writes texts that are not UTF-8 as
// binary it cannot read back), a binary list whose objects
// refer to one another in a cycle, or that unfolds into more nodes than it has bytes (libplist copies
// a shared object at every reference, so a few hundred bytes can ask for gigabytes), and nesting
// deeper than kMaxPlistDepth in either form (its parsers and writers recurse once per level). A
// binary list must also have a trailer and object table that hold together. XML that is no property
// list may pass, for libplist to refuse. parsePlist checks this first; anything that hands outside
// bytes to libplist another way must too.
bool plistBytesAcceptable(std::string_view bytes);

// Binary or XML property-list bytes as a node; null when they are not a property list or not
// acceptable (above).
PlistHandle parsePlist(std::string_view bytes);
// The file at `path` as a node; null when it is missing, unreadable or not a property list.
PlistHandle readPlistFile(const std::string& path);
// The node as XML or binary property-list bytes; nullopt when it cannot be encoded (in binary, also
// when a text or key is not UTF-8, which libplist would write unreadably).
std::optional<std::string> plistToXml(plist_t node);
std::optional<std::string> plistToBinary(plist_t node);

// True when `node` is a dictionary.
bool isPlistDict(plist_t node);
// Calls `visit` with each key (null for a key libplist could not give) and value of the dictionary
// `dict` in order, until it returns false; false when `dict` is no dictionary or `visit` stopped.
bool forEachPlistDictItem(plist_t dict, const std::function<bool(const char* key, plist_t value)>& visit);
// The text of a string node; nullopt for any other node.
std::optional<std::string> plistString(plist_t node);
// The text value of `key` in the dictionary `dict`; nullopt when `dict` is no dictionary or the
// value is not text.
std::optional<std::string> plistDictString(plist_t dict, const std::string& key);

}  // namespace tw
