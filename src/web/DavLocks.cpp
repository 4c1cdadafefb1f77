#include "web/DavLocks.h"

#include <openssl/rand.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "core/AtomicFile.h"
#include "core/LogToFile.h"

namespace tw::web::dav {

using nlohmann::json;
using Clock = std::chrono::system_clock;

namespace {

constexpr int64_t kDefaultTimeout = 3600;
constexpr int64_t kMaxTimeout = 7 * 24 * 3600;

bool isWithin(const std::string& path, const std::string& top) {
    if (top == "/") return true;
    return path == top || (path.size() > top.size() && path.compare(0, top.size(), top) == 0 && path[top.size()] == '/');
}

std::string newToken() {
    unsigned char b[16];
    if (RAND_bytes(b, sizeof b) != 1) throw std::runtime_error("no random bytes for a lock token");
    b[6] = (b[6] & 0x0f) | 0x40;  // a version 4 UUID
    b[8] = (b[8] & 0x3f) | 0x80;
    char text[64];
    std::snprintf(text, sizeof text,
                  "opaquelocktoken:%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0], b[1],
                  b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
    return text;
}

}  // namespace

bool Lock::covers(const std::string& resource) const {
    return resource == path || (infinite && isWithin(resource, path));
}

LockManager::LockManager(std::string file) : file_(std::move(file)) {
    const auto text = readWholeFile(file_);
    if (!text) return;
    try {
        for (const auto& j : json::parse(*text)) {
            Lock lock;
            lock.token = j.at("token").get<std::string>();
            lock.path = j.at("path").get<std::string>();
            lock.infinite = j.at("infinite").get<bool>();
            lock.exclusive = j.at("exclusive").get<bool>();
            lock.owner = j.at("owner").get<std::string>();
            lock.timeoutSeconds = j.at("timeout").get<int64_t>();
            lock.expires = Clock::time_point(std::chrono::seconds(j.at("expires").get<int64_t>()));
            locks_.push_back(std::move(lock));
        }
    } catch (const std::exception& e) {
        LogToFile("WebDAV: the locks in %s cannot be read: %s", file_.c_str(), e.what());
        locks_.clear();
    }
}

void LockManager::expire() {
    const auto now = Clock::now();
    const auto before = locks_.size();
    std::erase_if(locks_, [&](const Lock& l) { return l.expires <= now; });
    if (locks_.size() != before) save();
}

void LockManager::save() {
    json out = json::array();
    for (const auto& l : locks_)
        out.push_back({{"token", l.token},
                       {"path", l.path},
                       {"infinite", l.infinite},
                       {"exclusive", l.exclusive},
                       {"owner", l.owner},
                       {"timeout", l.timeoutSeconds},
                       {"expires", std::chrono::duration_cast<std::chrono::seconds>(l.expires.time_since_epoch()).count()}});
    std::string error;
    // The locks in memory stay authoritative; a failed save only loses them at the next restart.
    if (!writeFileAtomically(file_, out.dump(), &error)) LogToFile("WebDAV: %s", error.c_str());
}

std::vector<Lock> LockManager::covering(const std::string& path) {
    std::lock_guard guard(mutex_);
    expire();
    std::vector<Lock> out;
    for (const auto& l : locks_)
        if (l.covers(path)) out.push_back(l);
    return out;
}

std::vector<Lock> LockManager::below(const std::string& path) {
    std::lock_guard guard(mutex_);
    expire();
    std::vector<Lock> out;
    for (const auto& l : locks_)
        if (isWithin(l.path, path)) out.push_back(l);
    return out;
}

std::optional<Lock> LockManager::find(const std::string& token) {
    std::lock_guard guard(mutex_);
    expire();
    for (const auto& l : locks_)
        if (l.token == token) return l;
    return std::nullopt;
}

bool LockManager::overlaps(const Lock& a, const std::string& path, bool infinite) {
    return a.covers(path) || (infinite && isWithin(a.path, path));
}

std::optional<Lock> LockManager::add(const std::string& path, bool infinite, bool exclusive, const std::string& owner,
                                     int64_t timeoutSeconds) {
    std::lock_guard guard(mutex_);
    expire();
    for (const auto& l : locks_)
        if (overlaps(l, path, infinite) && (exclusive || l.exclusive)) return std::nullopt;
    Lock lock{newToken(), path, infinite, exclusive, owner, timeoutSeconds,
              Clock::now() + std::chrono::seconds(timeoutSeconds)};
    locks_.push_back(lock);
    save();
    return lock;
}

std::optional<Lock> LockManager::refresh(const std::string& token, int64_t timeoutSeconds) {
    std::lock_guard guard(mutex_);
    expire();
    for (auto& l : locks_)
        if (l.token == token) {
            l.timeoutSeconds = timeoutSeconds;
            l.expires = Clock::now() + std::chrono::seconds(timeoutSeconds);
            save();
            return l;
        }
    return std::nullopt;
}

bool LockManager::remove(const std::string& token) {
    std::lock_guard guard(mutex_);
    const auto before = locks_.size();
    std::erase_if(locks_, [&](const Lock& l) { return l.token == token; });
    if (locks_.size() == before) return false;
    save();
    return true;
}

void LockManager::removeBelow(const std::string& path) {
    std::lock_guard guard(mutex_);
    const auto before = locks_.size();
    std::erase_if(locks_, [&](const Lock& l) { return isWithin(l.path, path); });
    if (locks_.size() != before) save();
}

std::optional<std::vector<IfList>> parseIfHeader(std::string_view h) {
    std::vector<IfList> lists;
    std::string tag;
    size_t i = 0;
    auto skipSpace = [&] {
        while (i < h.size() && (h[i] == ' ' || h[i] == '\t')) ++i;
    };
    // The text up to `close`, after the opening character at i.
    auto delimited = [&](char close) -> std::optional<std::string> {
        const size_t end = h.find(close, i + 1);
        if (end == std::string_view::npos) return std::nullopt;
        std::string value(h.substr(i + 1, end - i - 1));
        i = end + 1;
        return value;
    };
    for (skipSpace(); i < h.size(); skipSpace()) {
        if (h[i] == '<') {
            auto resource = delimited('>');
            if (!resource) return std::nullopt;
            tag = *resource;
            continue;
        }
        if (h[i] != '(') return std::nullopt;
        ++i;
        IfList list{tag, {}};
        for (skipSpace(); i < h.size() && h[i] != ')'; skipSpace()) {
            IfCondition condition;
            if (h.substr(i, 3) == "Not") {
                condition.negated = true;
                i += 3;
                skipSpace();
            }
            if (i >= h.size()) return std::nullopt;
            if (h[i] == '<') {
                auto token = delimited('>');
                if (!token) return std::nullopt;
                condition.value = *token;
            } else if (h[i] == '[') {
                auto etag = delimited(']');
                if (!etag) return std::nullopt;
                condition.isEtag = true;
                condition.value = *etag;
            } else {
                return std::nullopt;
            }
            list.conditions.push_back(std::move(condition));
        }
        if (i >= h.size() || list.conditions.empty()) return std::nullopt;
        ++i;  // ')'
        lists.push_back(std::move(list));
    }
    if (lists.empty()) return std::nullopt;
    return lists;
}

int64_t parseTimeout(const std::optional<std::string>& header) {
    if (!header) return kDefaultTimeout;
    // "Second-600, Infinite": the first choice we understand wins.
    std::string_view rest(*header);
    while (!rest.empty()) {
        const size_t comma = rest.find(',');
        std::string_view item = rest.substr(0, comma);
        rest = comma == std::string_view::npos ? std::string_view{} : rest.substr(comma + 1);
        while (!item.empty() && item.front() == ' ') item.remove_prefix(1);
        while (!item.empty() && item.back() == ' ') item.remove_suffix(1);
        if (item == "Infinite") return kMaxTimeout;
        if (item.substr(0, 7) == "Second-" && item.size() > 7 && item.size() < 20 &&
            std::all_of(item.begin() + 7, item.end(), [](char c) { return c >= '0' && c <= '9'; }))
            return std::clamp<int64_t>(std::stoll(std::string(item.substr(7))), 1, kMaxTimeout);
    }
    return kDefaultTimeout;
}

}  // namespace tw::web::dav
