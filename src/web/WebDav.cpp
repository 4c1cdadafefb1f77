#include "web/WebDav.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>

#include "core/AtomicFile.h"
#include "core/LogToFile.h"
#include "library/FileManager.h"
#include "web/DavXml.h"

namespace tw::web {

namespace fs = std::filesystem;
using dav::kDavNamespace;
using dav::PropertyName;
using dav::XmlNode;

namespace {

constexpr const char* kXmlType = "application/xml; charset=utf-8";
constexpr const char* kAllow = "Allow: OPTIONS, GET, HEAD, PUT, DELETE, MKCOL, COPY, MOVE, PROPFIND, PROPPATCH, LOCK, UNLOCK";

// The live properties, all in DAV:, in the order allprop lists them.
const std::vector<std::string> kLiveProperties = {"creationdate",    "displayname", "getcontentlength",
                                                  "getcontenttype",  "getetag",     "getlastmodified",
                                                  "resourcetype",    "supportedlock", "lockdiscovery"};

bool isLive(const PropertyName& name) {
    return name.first == kDavNamespace &&
           std::find(kLiveProperties.begin(), kLiveProperties.end(), name.second) != kLiveProperties.end();
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Percent-decoding; nullopt for a broken escape or an encoded NUL.
std::optional<std::string> percentDecode(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size()) return std::nullopt;
        const int hi = hexValue(text[i + 1]), lo = hexValue(text[i + 2]);
        if (hi < 0 || lo < 0 || (hi == 0 && lo == 0)) return std::nullopt;
        out += static_cast<char>(hi * 16 + lo);
        i += 2;
    }
    return out;
}

// A path for an href: everything but unreserved characters and "/" percent-encoded.
std::string hrefOf(const std::string& path, bool collection) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : path) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    if (collection && out.back() != '/') out += '/';
    return out;
}

// "/" + the path's components, or nullopt when one of them is "." or "..".
std::optional<std::string> normalizedPath(const std::string& decoded) {
    if (decoded.find('\0') != std::string::npos) return std::nullopt;
    std::string out;
    size_t start = 0;
    while (start <= decoded.size()) {
        size_t end = decoded.find('/', start);
        if (end == std::string::npos) end = decoded.size();
        const std::string_view part(decoded.data() + start, end - start);
        if (part == "." || part == "..") return std::nullopt;
        if (!part.empty()) out += "/" + std::string(part);
        start = end + 1;
    }
    return out.empty() ? "/" : out;
}

std::string parentOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

std::string join(const std::string& folder, const std::string& name) {
    return folder == "/" ? "/" + name : folder + "/" + name;
}

bool within(const std::string& path, const std::string& top) {
    return path == top || top == "/" ||
           (path.size() > top.size() && path.compare(0, top.size(), top) == 0 && path[top.size()] == '/');
}

std::string utcText(time_t t, const char* format) {
    char text[64];
    struct tm tm {};
    gmtime_r(&t, &tm);
    std::strftime(text, sizeof text, format, &tm);
    return text;
}

std::string httpDate(time_t t) { return utcText(t, "%a, %d %b %Y %H:%M:%S GMT"); }
std::string isoDate(time_t t) { return utcText(t, "%Y-%m-%dT%H:%M:%SZ"); }

std::string statusLine(int status) {
    switch (status) {
        case 200: return "HTTP/1.1 200 OK";
        case 403: return "HTTP/1.1 403 Forbidden";
        case 404: return "HTTP/1.1 404 Not Found";
        case 424: return "HTTP/1.1 424 Failed Dependency";
        default: return "HTTP/1.1 500 Internal Server Error";
    }
}

std::string propstat(const std::string& props, int status) {
    return "<D:propstat><D:prop>" + props + "</D:prop><D:status>" + statusLine(status) +
           "</D:status></D:propstat>";
}

const char* kMultistatusOpen = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<D:multistatus xmlns:D=\"DAV:\">";

std::string activeLock(const dav::Lock& lock) {
    const auto left = std::chrono::duration_cast<std::chrono::seconds>(lock.expires - std::chrono::system_clock::now());
    return "<D:activelock><D:locktype><D:write/></D:locktype><D:lockscope>" +
           std::string(lock.exclusive ? "<D:exclusive/>" : "<D:shared/>") + "</D:lockscope><D:depth>" +
           (lock.infinite ? "infinity" : "0") + "</D:depth>" +
           (lock.owner.empty() ? "" : "<D:owner>" + lock.owner + "</D:owner>") + "<D:timeout>Second-" +
           std::to_string(std::max<int64_t>(0, left.count())) + "</D:timeout><D:locktoken><D:href>" +
           dav::escape(lock.token) + "</D:href></D:locktoken><D:lockroot><D:href>" +
           dav::escape(hrefOf(lock.path, false)) + "</D:href></D:lockroot></D:activelock>";
}

struct Entry {
    std::string path, full;
    struct stat st {};
    bool isDir() const { return S_ISDIR(st.st_mode); }
};

// Status and error text of a failed file operation.
int statusOfErrno(int err) {
    switch (err) {
        case ENOENT: case ENOTDIR: return 409;
        case EACCES: case EPERM: case EROFS: return 403;
        case ENOSPC: case EDQUOT: return 507;
        case EEXIST: case ENOTEMPTY: return 412;
        default: return 500;
    }
}

}  // namespace

WebDavService::WebDavService(std::string root, std::string stateFolder)
    : root_(std::move(root)),
      properties_(stateFolder + "/webdav-properties.json"),
      locks_(stateFolder + "/webdav-locks.json") {
    while (root_.size() > 1 && root_.back() == '/') root_.pop_back();
    std::error_code ec;
    fs::create_directories(stateFolder, ec);
    isLibrary_ = fs::weakly_canonical(root_, ec) == fs::weakly_canonical(FileManager::rootPath(), ec);
}

// ---- Dispatch

void WebDavService::handle(HttpRequest& request) {
    const std::string& method = request.method();
    if (method == "OPTIONS") return options(request);
    auto t = target(request, request.path());
    if (!t) return;
    if (method == "GET" || method == "HEAD") return get(request, *t);
    if (method == "PUT") return put(request, *t);
    if (method == "DELETE") return remove(request, *t);
    if (method == "MKCOL") return mkcol(request, *t);
    if (method == "COPY") return copyOrMove(request, *t, false);
    if (method == "MOVE") return copyOrMove(request, *t, true);
    if (method == "PROPFIND") return propfind(request, *t);
    if (method == "PROPPATCH") return proppatch(request, *t);
    if (method == "LOCK") return lock(request, *t);
    if (method == "UNLOCK") return unlock(request, *t);
    request.send(405, "text/plain; charset=utf-8", "Method Not Allowed\n", {kAllow});
}

std::optional<WebDavService::Target> WebDavService::target(HttpRequest& request, const std::string& decodedPath) {
    auto path = normalizedPath(decodedPath);
    if (!path) {
        request.sendText(403, "Paths with \".\" or \"..\" components are refused.\n");
        return std::nullopt;
    }
    Target t{*path, *path == "/" ? root_ : root_ + *path};
    if (!FileManager::isInsideFolder(root_, t.full)) {
        request.sendText(403, "The path leads out of the served folder.\n");
        return std::nullopt;
    }
    return t;
}

std::string WebDavService::pathOfUrl(const std::string& url) const {
    // "http://host:port/a%20b?q" or "/a%20b": the path part, still encoded.
    std::string_view rest(url);
    const size_t scheme = rest.find("://");
    if (scheme != std::string_view::npos && scheme < rest.find('/')) {
        rest.remove_prefix(scheme + 3);
        const size_t slash = rest.find('/');
        rest = slash == std::string_view::npos ? std::string_view("/") : rest.substr(slash);
    }
    rest = rest.substr(0, rest.find_first_of("?#"));
    return std::string(rest);
}

std::optional<WebDavService::Target> WebDavService::destination(HttpRequest& request) {
    const auto header = request.header("Destination");
    if (!header || header->empty()) {
        request.sendText(400, "A Destination header is needed.\n");
        return std::nullopt;
    }
    const size_t scheme = header->find("://");
    if (scheme != std::string::npos) {
        // Another server's URL cannot be a destination here.
        std::string authority = header->substr(scheme + 3);
        authority = authority.substr(0, authority.find('/'));
        if (const auto host = request.header("Host"); host && authority != *host) {
            request.sendText(502, "The destination is on another server.\n");
            return std::nullopt;
        }
    } else if (header->front() != '/') {
        request.sendText(400, "The Destination header is not a URL.\n");
        return std::nullopt;
    }
    const auto decoded = percentDecode(pathOfUrl(*header));
    if (!decoded) {
        request.sendText(400, "The Destination header is not a URL.\n");
        return std::nullopt;
    }
    return target(request, *decoded);
}

// ---- Preconditions

std::vector<std::string> WebDavService::submittedTokens(HttpRequest& request) {
    std::vector<std::string> tokens;
    const auto header = request.header("If");
    if (!header) return tokens;
    if (auto lists = dav::parseIfHeader(*header))
        for (const auto& list : *lists)
            for (const auto& c : list.conditions)
                if (!c.isEtag && !c.negated) tokens.push_back(c.value);
    return tokens;
}

bool WebDavService::ifHeaderHolds(HttpRequest& request, const Target& t) {
    const auto header = request.header("If");
    if (!header) return true;
    const auto lists = dav::parseIfHeader(*header);
    if (!lists) {
        request.sendText(400, "The If header is malformed.\n");
        return false;
    }
    for (const auto& list : *lists) {
        std::string path = t.path, full = t.full;
        if (!list.resource.empty()) {
            const auto decoded = percentDecode(pathOfUrl(list.resource));
            const auto normalized = decoded ? normalizedPath(*decoded) : std::nullopt;
            if (!normalized) continue;
            path = *normalized;
            full = path == "/" ? root_ : root_ + path;
        }
        bool holds = true;
        for (const auto& c : list.conditions) {
            bool met;
            if (c.isEtag) {
                const std::string etag = etagOf(full);
                met = !etag.empty() && (c.value == etag || c.value == "W/" + etag);
            } else {
                const auto lock = locks_.find(c.value);
                met = lock && lock->covers(path);
            }
            if (met == c.negated) {
                holds = false;
                break;
            }
        }
        if (holds) return true;
    }
    request.sendText(412, "The If header's conditions do not hold.\n");
    return false;
}

bool WebDavService::unlocked(HttpRequest& request, const std::string& path, bool members, bool membership) {
    std::vector<dav::Lock> affecting = locks_.covering(path);
    if (members)
        for (auto& l : locks_.below(path)) affecting.push_back(std::move(l));
    if (membership && path != "/")
        for (auto& l : locks_.covering(parentOf(path))) affecting.push_back(std::move(l));
    if (affecting.empty()) return true;
    const auto tokens = submittedTokens(request);
    auto submitted = [&](const std::string& token) {
        return std::find(tokens.begin(), tokens.end(), token) != tokens.end();
    };
    for (const auto& l : affecting) {
        if (submitted(l.token)) continue;
        // One of the shared locks on a resource is enough to write to it.
        const bool sharedHeld = !l.exclusive && std::any_of(tokens.begin(), tokens.end(), [&](const std::string& tok) {
            const auto other = locks_.find(tok);
            return other && !other->exclusive && other->path == l.path;
        });
        if (sharedHeld) continue;
        request.send(423, kXmlType,
                     std::string("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<D:error xmlns:D=\"DAV:\">"
                                 "<D:lock-token-submitted><D:href>") +
                         dav::escape(hrefOf(l.path, false)) + "</D:href></D:lock-token-submitted></D:error>");
        return false;
    }
    return true;
}

std::optional<std::optional<XmlNode>> WebDavService::xmlBody(HttpRequest& request) {
    if (request.contentLength() > static_cast<int64_t>(kMaxXmlBody)) {
        request.sendText(413, "The request body is too long.\n");
        return std::nullopt;
    }
    auto body = request.readBody(kMaxXmlBody);
    if (!body) {
        request.sendText(413, "The request body is too long or broke off.\n");
        return std::nullopt;
    }
    if (body->find_first_not_of(" \t\r\n") == std::string::npos) return std::optional<XmlNode>{};
    std::string error;
    auto node = dav::parseXml(*body, &error);
    if (!node) {
        request.sendText(400, "The XML body is not acceptable: " + error + "\n");
        return std::nullopt;
    }
    return std::optional<XmlNode>(std::move(node));
}

// ---- File operations

bool WebDavService::deleteEntry(const Target& t, std::string* error) {
    if (isLibrary_) {
        bool ok = false;
        FileManager::deleteFile(t.path, [&] { ok = true; }, [&](const Error& e) { *error = e.description; });
        return ok;
    }
    std::error_code ec;
    fs::remove_all(t.full, ec);
    if (ec) *error = ec.message();
    return !ec;
}

bool WebDavService::moveEntry(const Target& from, const Target& to, std::string* error) {
    if (isLibrary_) {
        bool ok = false;
        FileManager::renameFile(from.path, to.path, [&] { ok = true; }, [&](const Error& e) { *error = e.description; });
        return ok;
    }
    if (::rename(from.full.c_str(), to.full.c_str()) == 0) return true;
    *error = std::strerror(errno);
    return false;
}

std::string WebDavService::etagOf(const std::string& full) const {
    // The form the HTTP layer's file answers carry, so a GET's ETag can be used in an If header.
    struct stat st {};
    if (::stat(full.c_str(), &st) != 0) return "";
    char text[64];
    std::snprintf(text, sizeof text, "\"%lx.%lld\"", static_cast<unsigned long>(st.st_mtime),
                  static_cast<long long>(st.st_size));
    return text;
}

// ---- Methods

void WebDavService::options(HttpRequest& request) {
    request.send(200, "", "", {"DAV: 1, 2", kAllow, "MS-Author-Via: DAV"});
}

void WebDavService::get(HttpRequest& request, const Target& t) {
    struct stat st {};
    if (::stat(t.full.c_str(), &st) != 0) return request.sendText(404, "Not Found\n");
    if (!S_ISDIR(st.st_mode)) return request.sendFile(t.full);
    std::string html = "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>" + dav::escape(t.path) +
                       "</title></head><body><h1>" + dav::escape(t.path) + "</h1><ul>\n";
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(t.full, ec)) {
        const std::string name = e.path().filename().string();
        if (isAtomicTempName(name)) continue;
        const bool dir = e.is_directory(ec);
        html += "<li><a href=\"" + dav::escape(hrefOf(join(t.path, name), dir)) + "\">" + dav::escape(name) +
                (dir ? "/" : "") + "</a></li>\n";
    }
    html += "</ul></body></html>\n";
    request.sendHtml(html);
}

void WebDavService::put(HttpRequest& request, const Target& t) {
    if (request.header("Content-Range")) return request.sendText(501, "Partial uploads are not supported.\n");
    struct stat st {};
    const bool existed = ::stat(t.full.c_str(), &st) == 0;
    if (existed && S_ISDIR(st.st_mode)) return request.send(405, "text/plain; charset=utf-8", "A collection cannot be written.\n", {kAllow});
    struct stat parent {};
    if (t.path == "/" || ::stat(parentOf(t.full).c_str(), &parent) != 0 || !S_ISDIR(parent.st_mode))
        return request.sendText(409, "The parent collection does not exist.\n");
    if (!ifHeaderHolds(request, t) || !unlocked(request, t.path, false, !existed)) return;

    // Streamed into a temporary file beside the target, renamed over it only once all arrived.
    AtomicFileWriter writer(t.full);
    if (!writer.ok()) return request.sendText(statusOfErrno(writer.errorCode()), writer.error() + "\n");
    const int64_t expected = request.contentLength();
    int64_t received = 0;
    // On the heap: CivetWeb's worker threads have small stacks.
    std::vector<char> buffer(65536);
    for (;;) {
        const int n = request.read(buffer.data(), buffer.size());
        if (n < 0) return request.sendText(400, "The upload broke off.\n");
        if (n == 0) break;
        received += n;
        if (!writer.write(buffer.data(), static_cast<size_t>(n)))
            return request.sendText(statusOfErrno(writer.errorCode()), writer.error() + "\n");
    }
    if (expected >= 0 && received != expected) return request.sendText(400, "The upload broke off.\n");
    if (!writer.commit()) return request.sendText(statusOfErrno(writer.errorCode()), writer.error() + "\n");
    if (!existed) properties_.drop(t.path);  // left over from a file removed behind the server's back
    request.send(existed ? 204 : 201, "", "");
}

void WebDavService::remove(HttpRequest& request, const Target& t) {
    struct stat st {};
    if (::lstat(t.full.c_str(), &st) != 0) return request.sendText(404, "Not Found\n");
    if (t.path == "/") return request.sendText(403, "The root cannot be deleted.\n");
    if (!ifHeaderHolds(request, t) || !unlocked(request, t.path, true, true)) return;
    std::string error;
    if (!deleteEntry(t, &error)) return request.sendText(403, error + "\n");
    properties_.drop(t.path);
    locks_.removeBelow(t.path);
    request.send(204, "", "");
}

void WebDavService::mkcol(HttpRequest& request, const Target& t) {
    if (request.contentLength() > 0 || request.header("Transfer-Encoding"))
        return request.sendText(415, "MKCOL takes no body.\n");
    struct stat st {};
    if (::lstat(t.full.c_str(), &st) == 0)
        return request.send(405, "text/plain; charset=utf-8", "The resource exists.\n", {kAllow});
    struct stat parent {};
    if (::stat(parentOf(t.full).c_str(), &parent) != 0 || !S_ISDIR(parent.st_mode))
        return request.sendText(409, "The parent collection does not exist.\n");
    if (!ifHeaderHolds(request, t) || !unlocked(request, t.path, false, true)) return;
    if (::mkdir(t.full.c_str(), 0755) != 0) return request.sendText(statusOfErrno(errno), std::strerror(errno));
    properties_.drop(t.path);
    request.send(201, "", "");
}

void WebDavService::copyOrMove(HttpRequest& request, const Target& t, bool move) {
    struct stat st {};
    if (::stat(t.full.c_str(), &st) != 0) return request.sendText(404, "Not Found\n");
    const bool isDir = S_ISDIR(st.st_mode);
    const auto depth = request.header("Depth");
    bool shallow = false;
    if (depth && *depth != "infinity") {
        if (move || *depth != "0") return request.sendText(400, "Depth must be infinity here.\n");
        shallow = true;
    }
    const auto overwriteHeader = request.header("Overwrite");
    if (overwriteHeader && *overwriteHeader != "T" && *overwriteHeader != "F")
        return request.sendText(400, "Overwrite must be T or F.\n");
    const bool overwrite = !overwriteHeader || *overwriteHeader == "T";

    auto dest = destination(request);
    if (!dest) return;
    if (dest->path == t.path) return request.sendText(403, "The source and the destination are the same.\n");
    if (t.path == "/" || within(dest->path, t.path) || (move && within(t.path, dest->path)))
        return request.sendText(403, "A collection cannot be copied or moved into itself.\n");
    struct stat parent {};
    if (::stat(parentOf(dest->full).c_str(), &parent) != 0 || !S_ISDIR(parent.st_mode))
        return request.sendText(409, "The destination's parent collection does not exist.\n");
    struct stat destStat {};
    const bool destExists = ::lstat(dest->full.c_str(), &destStat) == 0;
    if (destExists && !overwrite) return request.sendText(412, "The destination exists.\n");

    if (!ifHeaderHolds(request, t)) return;
    if (move && !unlocked(request, t.path, true, true)) return;
    if (!unlocked(request, dest->path, true, true)) return;

    std::string error;
    if (destExists) {
        if (!deleteEntry(*dest, &error)) return request.sendText(403, error + "\n");
        properties_.drop(dest->path);
        locks_.removeBelow(dest->path);
    }
    if (move) {
        if (!moveEntry(t, *dest, &error)) return request.sendText(500, error + "\n");
        properties_.move(t.path, dest->path);
        locks_.removeBelow(t.path);
    } else {
        std::error_code ec;
        if (isDir && shallow)
            fs::create_directory(dest->full, ec);
        else if (isDir)
            fs::copy(t.full, dest->full, fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
        else
            fs::copy_file(t.full, dest->full, ec);
        if (ec) {
            std::error_code ignored;
            fs::remove_all(dest->full, ignored);
            return request.sendText(statusOfErrno(ec.value()), ec.message() + "\n");
        }
        if (shallow) {
            properties_.update(dest->path, properties_.get(t.path), {});
        } else {
            properties_.copy(t.path, dest->path);
        }
    }
    request.send(destExists ? 204 : 201, "", "");
}

void WebDavService::propfind(HttpRequest& request, const Target& t) {
    Entry top{t.path, t.full};
    if (::stat(t.full.c_str(), &top.st) != 0) return request.sendText(404, "Not Found\n");
    const auto depthHeader = request.header("Depth").value_or("infinity");
    int depth;
    if (depthHeader == "0")
        depth = 0;
    else if (depthHeader == "1")
        depth = 1;
    else if (depthHeader == "infinity")
        depth = -1;
    else
        return request.sendText(400, "Depth must be 0, 1 or infinity.\n");
    auto body = xmlBody(request);
    if (!body) return;

    enum class Mode { All, Names, Some } mode = Mode::All;
    std::vector<PropertyName> wanted;
    if (*body) {
        const XmlNode& root = **body;
        if (!root.is(kDavNamespace, "propfind")) return request.sendText(400, "The body is not a DAV:propfind.\n");
        if (const XmlNode* prop = root.child(kDavNamespace, "prop")) {
            mode = Mode::Some;
            for (const XmlNode* p : prop->elements()) wanted.push_back({p->ns, p->name});
        } else if (root.child(kDavNamespace, "propname")) {
            mode = Mode::Names;
        } else if (!root.child(kDavNamespace, "allprop")) {
            return request.sendText(400, "The DAV:propfind names no properties.\n");
        }
    }

    // The value of a live property of `e`; nullopt when the resource has none of that name.
    auto live = [&](const Entry& e, const std::string& name) -> std::optional<std::string> {
        const bool dir = e.isDir();
        if (name == "creationdate") return isoDate(e.st.st_ctime < e.st.st_mtime ? e.st.st_ctime : e.st.st_mtime);
        if (name == "displayname") return dav::escape(e.path == "/" ? "" : e.path.substr(e.path.rfind('/') + 1));
        if (name == "getlastmodified") return httpDate(e.st.st_mtime);
        if (name == "resourcetype") return dir ? "<D:collection/>" : "";
        if (name == "supportedlock")
            return "<D:lockentry><D:lockscope><D:exclusive/></D:lockscope><D:locktype><D:write/></D:locktype>"
                   "</D:lockentry><D:lockentry><D:lockscope><D:shared/></D:lockscope><D:locktype><D:write/>"
                   "</D:locktype></D:lockentry>";
        if (name == "lockdiscovery") {
            std::string out;
            for (const auto& l : locks_.covering(e.path)) out += activeLock(l);
            return out;
        }
        if (dir) return std::nullopt;
        if (name == "getcontentlength") return std::to_string(e.st.st_size);
        if (name == "getcontenttype")
            return dav::escape(FileManager::fileMIMEType(e.path).value_or("application/octet-stream"));
        if (name == "getetag") return dav::escape(etagOf(e.full));
        return std::nullopt;
    };

    auto describe = [&](const Entry& e) {
        std::string found, missing;
        const auto dead = properties_.get(e.path);
        if (mode == Mode::Some) {
            for (const auto& name : wanted) {
                std::optional<std::string> value;
                if (name.first == kDavNamespace) value = live(e, name.second);
                if (!value)
                    if (auto it = dead.find(name); it != dead.end()) value = it->second;
                if (value)
                    found += dav::element(name.first, name.second, *value);
                else
                    missing += dav::element(name.first, name.second, "");
            }
        } else {
            for (const auto& name : kLiveProperties)
                if (auto value = live(e, name)) found += dav::element(kDavNamespace, name, mode == Mode::All ? *value : "");
            for (const auto& [name, value] : dead)
                if (!isLive(name)) found += dav::element(name.first, name.second, mode == Mode::All ? value : "");
        }
        std::string out = "<D:response><D:href>" + dav::escape(hrefOf(e.path, e.isDir())) + "</D:href>";
        if (!found.empty()) out += propstat(found, 200);
        if (!missing.empty()) out += propstat(missing, 404);
        return out + "</D:response>\n";
    };

    request.startChunked(207, kXmlType);
    request.writeChunk(kMultistatusOpen);
    request.writeChunk("\n");
    std::function<void(const Entry&, int)> walk = [&](const Entry& e, int level) {
        request.writeChunk(describe(e));
        if (!e.isDir() || level == depth) return;
        std::error_code ec;
        for (const auto& item : fs::directory_iterator(e.full, ec)) {
            const std::string name = item.path().filename().string();
            if (isAtomicTempName(name)) continue;
            Entry child{join(e.path, name), item.path().string()};
            struct stat link {};
            if (::lstat(child.full.c_str(), &link) != 0) continue;
            if (S_ISLNK(link.st_mode)) {
                // A link is listed only when it stays inside, and never descended into.
                if (!FileManager::isInsideFolder(root_, child.full) || ::stat(child.full.c_str(), &child.st) != 0)
                    continue;
                request.writeChunk(describe(child));
                continue;
            }
            child.st = link;
            walk(child, level + 1);
        }
    };
    walk(top, 0);
    request.writeChunk("</D:multistatus>\n");
    request.endChunked();
}

void WebDavService::proppatch(HttpRequest& request, const Target& t) {
    struct stat st {};
    if (::stat(t.full.c_str(), &st) != 0) return request.sendText(404, "Not Found\n");
    auto body = xmlBody(request);
    if (!body) return;
    if (!*body || !(*body)->is(kDavNamespace, "propertyupdate"))
        return request.sendText(400, "The body is not a DAV:propertyupdate.\n");
    if (!ifHeaderHolds(request, t) || !unlocked(request, t.path, false, false)) return;

    // In document order: a later instruction for the same name wins.
    dav::PropertyValues set;
    std::vector<PropertyName> removed, named, refused;
    for (const XmlNode* op : (*body)->elements()) {
        const bool isSet = op->is(kDavNamespace, "set");
        if (!isSet && !op->is(kDavNamespace, "remove")) continue;
        const XmlNode* prop = op->child(kDavNamespace, "prop");
        if (!prop) return request.sendText(400, "A set or remove without DAV:prop.\n");
        for (const XmlNode* p : prop->elements()) {
            PropertyName name{p->ns, p->name};
            named.push_back(name);
            if (isLive(name)) {
                refused.push_back(name);
                continue;
            }
            if (isSet) {
                set[name] = dav::serializeChildren(*p);
                std::erase(removed, name);
            } else {
                set.erase(name);
                removed.push_back(name);
            }
        }
    }
    // All or nothing: one refused property fails the others.
    const bool saved = refused.empty() && properties_.update(t.path, set, removed);
    std::string ok, failed, dependent;
    for (const auto& name : named) {
        const std::string e = dav::element(name.first, name.second, "");
        if (std::find(refused.begin(), refused.end(), name) != refused.end())
            failed += e;
        else
            dependent += e;
    }
    std::string out = std::string(kMultistatusOpen) + "<D:response><D:href>" +
                      dav::escape(hrefOf(t.path, S_ISDIR(st.st_mode))) + "</D:href>";
    if (saved)
        out += propstat(dependent, 200);
    else if (!refused.empty())
        out += propstat(failed, 403) + (dependent.empty() ? "" : propstat(dependent, 424));
    else
        out += propstat(dependent, 500);
    out += "</D:response></D:multistatus>\n";
    request.send(207, kXmlType, out);
}

void WebDavService::lock(HttpRequest& request, const Target& t) {
    const auto depthHeader = request.header("Depth").value_or("infinity");
    if (depthHeader != "0" && depthHeader != "infinity") return request.sendText(400, "Depth must be 0 or infinity.\n");
    const int64_t timeout = dav::parseTimeout(request.header("Timeout"));
    auto body = xmlBody(request);
    if (!body) return;
    if (!ifHeaderHolds(request, t)) return;

    auto answer = [&](int status, const dav::Lock& l) {
        request.send(status, kXmlType,
                     "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<D:prop xmlns:D=\"DAV:\"><D:lockdiscovery>" +
                         activeLock(l) + "</D:lockdiscovery></D:prop>\n",
                     {"Lock-Token: <" + l.token + ">"});
    };

    if (!*body) {
        // A refresh: the If header names the lock.
        for (const auto& token : submittedTokens(request)) {
            const auto l = locks_.find(token);
            if (l && l->covers(t.path))
                if (auto refreshed = locks_.refresh(token, timeout)) return answer(200, *refreshed);
        }
        return request.sendText(412, "No lock of this resource was submitted to refresh.\n");
    }
    const XmlNode& info = **body;
    const XmlNode* scope = info.child(kDavNamespace, "lockscope");
    const XmlNode* type = info.child(kDavNamespace, "locktype");
    if (!info.is(kDavNamespace, "lockinfo") || !scope || !type || !type->child(kDavNamespace, "write"))
        return request.sendText(400, "The body is not a DAV:lockinfo for a write lock.\n");
    const bool exclusive = scope->child(kDavNamespace, "exclusive") != nullptr;
    if (!exclusive && !scope->child(kDavNamespace, "shared")) return request.sendText(400, "Unknown lock scope.\n");
    const XmlNode* owner = info.child(kDavNamespace, "owner");

    struct stat st {};
    const bool existed = ::stat(t.full.c_str(), &st) == 0;
    if (!existed) {
        struct stat parent {};
        if (::stat(parentOf(t.full).c_str(), &parent) != 0 || !S_ISDIR(parent.st_mode))
            return request.sendText(409, "The parent collection does not exist.\n");
        if (!unlocked(request, t.path, false, true)) return;
    }
    auto l = locks_.add(t.path, depthHeader == "infinity", exclusive, owner ? dav::serializeChildren(*owner) : "",
                        timeout);
    if (!l) return request.sendText(423, "The resource is locked.\n");
    if (!existed) {
        // Locking an unmapped URL makes an empty resource there.
        std::string error;
        if (!writeFileAtomically(t.full, "", &error)) {
            locks_.remove(l->token);
            return request.sendText(500, error + "\n");
        }
        properties_.drop(t.path);
    }
    answer(existed ? 200 : 201, *l);
}

void WebDavService::unlock(HttpRequest& request, const Target& t) {
    auto header = request.header("Lock-Token");
    if (!header) return request.sendText(400, "A Lock-Token header is needed.\n");
    std::string token = *header;
    if (token.size() >= 2 && token.front() == '<' && token.back() == '>') token = token.substr(1, token.size() - 2);
    const auto l = locks_.find(token);
    if (!l || !l->covers(t.path)) return request.sendText(409, "No such lock on this resource.\n");
    locks_.remove(token);
    request.send(204, "", "");
}

}  // namespace tw::web
