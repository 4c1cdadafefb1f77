#pragma once
// The WebDAV server's request handling (RFC 4918, classes 1 and 2) over one folder: the fallback
// handler of an HttpServer. Nothing outside the served folder is touched: paths with "." or ".."
// components are refused, and so is any path that a symbolic link leads out of the folder.
//
// Dead properties and locks live in a private folder of their own that is not served. When the
// served folder is the script library, deleting and moving go through FileManager, so a script's
// play settings and trigger bindings follow it as they do for the web routes.
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "web/DavLocks.h"
#include "web/DavProperties.h"
#include "web/DavXml.h"
#include "web/HttpServer.h"

namespace tw::web {

class WebDavService {
public:
    // Bodies of the XML methods (PROPFIND, PROPPATCH, LOCK) longer than this are refused with 413.
    static constexpr size_t kMaxXmlBody = 1 << 20;

    // `root`: the folder served. `stateFolder`: where dead properties and locks are kept (made
    // when missing).
    WebDavService(std::string root, std::string stateFolder);

    void handle(HttpRequest& request);

private:
    // A resource named by a request: its path below the root ("/" or "/a/b", no trailing slash)
    // and its disk path.
    struct Target {
        std::string path;
        std::string full;
    };
    // Answers an error (and returns nullopt) when the path is not acceptable.
    std::optional<Target> target(HttpRequest& request, const std::string& decodedPath);
    std::optional<Target> destination(HttpRequest& request);

    void options(HttpRequest& request);
    void get(HttpRequest& request, const Target& t);
    void put(HttpRequest& request, const Target& t);
    void remove(HttpRequest& request, const Target& t);
    void mkcol(HttpRequest& request, const Target& t);
    void copyOrMove(HttpRequest& request, const Target& t, bool move);
    void propfind(HttpRequest& request, const Target& t);
    void proppatch(HttpRequest& request, const Target& t);
    void lock(HttpRequest& request, const Target& t);
    void unlock(HttpRequest& request, const Target& t);

    // The XML body of a request; nullopt (answered 400 or 413) when it is not acceptable, an empty
    // node for an empty body.
    std::optional<std::optional<dav::XmlNode>> xmlBody(HttpRequest& request);

    // ---- Preconditions. Each answers the error itself and returns false when the request may
    // not go on.
    // The If header holds (412 when it does not, 400 when it is malformed).
    bool ifHeaderHolds(HttpRequest& request, const Target& t);
    // No lock that the request did not submit a token for protects `path` (423 when one does).
    // `members`: locks on anything below count too; `membership`: the parent's locks count too.
    bool unlocked(HttpRequest& request, const std::string& path, bool members, bool membership);
    std::vector<std::string> submittedTokens(HttpRequest& request);

    // ---- File operations; the store follows when the root is the script library.
    bool deleteEntry(const Target& t, std::string* error);
    bool moveEntry(const Target& from, const Target& to, std::string* error);

    std::string etagOf(const std::string& full) const;
    std::string pathOfUrl(const std::string& url) const;

    std::string root_;
    bool isLibrary_ = false;
    dav::DeadPropertyStore properties_;
    dav::LockManager locks_;
};

}  // namespace tw::web
