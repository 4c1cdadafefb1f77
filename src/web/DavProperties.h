#pragma once
// The dead properties of the WebDAV server: values clients set with PROPPATCH, kept per resource
// path in one file of the server's private folder and replaced atomically on each change, so they
// survive restarts and a change is all or nothing.
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace tw::web::dav {

// A property's name: its namespace URI and local name.
using PropertyName = std::pair<std::string, std::string>;
// Names and their values as XML fragments (serializeChildren).
using PropertyValues = std::map<PropertyName, std::string>;

class DeadPropertyStore {
public:
    // Loads `file` when it exists; a file that cannot be read starts an empty store and is logged.
    explicit DeadPropertyStore(std::string file);

    PropertyValues get(const std::string& path) const;
    // Sets and removes properties of `path` in one step; false when the change could not be saved
    // (then nothing changed).
    bool update(const std::string& path, const PropertyValues& set, const std::vector<PropertyName>& remove);
    // The properties of `path` and everything below it follow a move, are copied, or are dropped.
    // A path with no properties is cheap: nothing is written.
    bool move(const std::string& from, const std::string& to);
    bool copy(const std::string& from, const std::string& to);
    bool drop(const std::string& path);

private:
    using Table = std::map<std::string, PropertyValues>;
    bool save(const Table& table);
    static bool within(const std::string& path, const std::string& top);
    static std::string rebased(const std::string& path, const std::string& from, const std::string& to);

    std::string file_;
    mutable std::mutex mutex_;
    Table table_;
};

}  // namespace tw::web::dav
