#include "web/DavProperties.h"

#include <nlohmann/json.hpp>

#include "core/AtomicFile.h"
#include "core/LogToFile.h"

namespace tw::web::dav {

using nlohmann::json;

// On disk: {"<path>": [["<namespace>", "<name>", "<value>"], ...], ...}.
DeadPropertyStore::DeadPropertyStore(std::string file) : file_(std::move(file)) {
    int err = 0;
    const auto text = readWholeFile(file_, &err);
    if (!text) return;
    try {
        const json stored = json::parse(*text);
        for (const auto& [path, properties] : stored.items())
            for (const auto& p : properties)
                table_[path][{p.at(0).get<std::string>(), p.at(1).get<std::string>()}] = p.at(2).get<std::string>();
    } catch (const std::exception& e) {
        LogToFile("WebDAV: the dead properties in %s cannot be read: %s", file_.c_str(), e.what());
        table_.clear();
    }
}

PropertyValues DeadPropertyStore::get(const std::string& path) const {
    std::lock_guard lock(mutex_);
    auto it = table_.find(path);
    return it == table_.end() ? PropertyValues{} : it->second;
}

bool DeadPropertyStore::save(const Table& table) {
    json out = json::object();
    for (const auto& [path, properties] : table) {
        if (properties.empty()) continue;
        json list = json::array();
        for (const auto& [name, value] : properties) list.push_back({name.first, name.second, value});
        out[path] = std::move(list);
    }
    std::string error;
    if (writeFileAtomically(file_, out.dump(), &error)) return true;
    LogToFile("WebDAV: %s", error.c_str());
    return false;
}

bool DeadPropertyStore::update(const std::string& path, const PropertyValues& set,
                               const std::vector<PropertyName>& remove) {
    std::lock_guard lock(mutex_);
    Table next = table_;
    auto& properties = next[path];
    for (const auto& name : remove) properties.erase(name);
    for (const auto& [name, value] : set) properties[name] = value;
    if (properties.empty()) next.erase(path);
    if (!save(next)) return false;
    table_ = std::move(next);
    return true;
}

bool DeadPropertyStore::within(const std::string& path, const std::string& top) {
    return path == top || (path.size() > top.size() && path.compare(0, top.size(), top) == 0 &&
                           (top.back() == '/' || path[top.size()] == '/'));
}

std::string DeadPropertyStore::rebased(const std::string& path, const std::string& from, const std::string& to) {
    return to + path.substr(from.size());
}

bool DeadPropertyStore::move(const std::string& from, const std::string& to) {
    std::lock_guard lock(mutex_);
    Table next;
    bool changed = false;
    for (auto& [path, properties] : table_) {
        if (within(path, to)) {
            changed = true;  // what the destination had is replaced
            continue;
        }
        if (within(path, from)) {
            changed = true;
            next[rebased(path, from, to)] = properties;
        } else {
            next.emplace(path, properties);
        }
    }
    if (!changed) return true;
    if (!save(next)) return false;
    table_ = std::move(next);
    return true;
}

bool DeadPropertyStore::copy(const std::string& from, const std::string& to) {
    std::lock_guard lock(mutex_);
    Table next;
    bool changed = false;
    for (const auto& [path, properties] : table_)
        if (within(path, to))
            changed = true;
        else
            next.emplace(path, properties);
    for (const auto& [path, properties] : table_)
        if (within(path, from)) {
            changed = true;
            next[rebased(path, from, to)] = properties;
        }
    if (!changed) return true;
    if (!save(next)) return false;
    table_ = std::move(next);
    return true;
}

bool DeadPropertyStore::drop(const std::string& path) {
    std::lock_guard lock(mutex_);
    Table next;
    for (const auto& [p, properties] : table_)
        if (!within(p, path)) next.emplace(p, properties);
    if (next.size() == table_.size()) return true;
    if (!save(next)) return false;
    table_ = std::move(next);
    return true;
}

}  // namespace tw::web::dav
