#pragma once
// The write locks of the WebDAV server and the If header that submits their tokens. Locks are kept
// in one file of the server's private folder, so they outlive a restart until they time out.
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tw::web::dav {

struct Lock {
    std::string token;  // "opaquelocktoken:<uuid>"
    std::string path;   // the locked resource ("/a/b"; "/" for the root)
    bool infinite = true;   // Depth: infinity (covers everything below a collection), else 0
    bool exclusive = true;  // else shared
    std::string owner;      // the owner element's content, as XML
    int64_t timeoutSeconds = 0;
    std::chrono::system_clock::time_point expires;

    bool covers(const std::string& resource) const;
};

class LockManager {
public:
    explicit LockManager(std::string file);

    // The live locks that cover `path`.
    std::vector<Lock> covering(const std::string& path);
    // The live locks on `path` itself or anything below it.
    std::vector<Lock> below(const std::string& path);
    std::optional<Lock> find(const std::string& token);
    // Adds a lock unless it conflicts with an existing one (an exclusive lock conflicts with any
    // lock it would overlap, a shared one with exclusive locks); nullopt on conflict.
    std::optional<Lock> add(const std::string& path, bool infinite, bool exclusive, const std::string& owner,
                            int64_t timeoutSeconds);
    std::optional<Lock> refresh(const std::string& token, int64_t timeoutSeconds);
    bool remove(const std::string& token);
    // Drops the locks on `path` and below (the resource was deleted or moved away).
    void removeBelow(const std::string& path);

private:
    void expire();  // with mutex_ held
    void save();    // with mutex_ held
    static bool overlaps(const Lock& a, const std::string& path, bool infinite);

    std::string file_;
    std::mutex mutex_;
    std::vector<Lock> locks_;
};

// The parsed If header (RFC 4918 section 10.4): lists of conditions, each list optionally tagged
// with a resource.
struct IfCondition {
    bool negated = false;
    bool isEtag = false;
    std::string value;  // the state token, or the entity tag with its quotes
};
struct IfList {
    std::string resource;  // the tagged resource as written (a URL or a path); "" for the request's
    std::vector<IfCondition> conditions;
};
// nullopt when the header is malformed.
std::optional<std::vector<IfList>> parseIfHeader(std::string_view header);

// The lock timeout a Timeout header asks for, within limits; the default when absent or unreadable.
int64_t parseTimeout(const std::optional<std::string>& header);

}  // namespace tw::web::dav
