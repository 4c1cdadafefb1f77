#pragma once
// One HTTP server on CivetWeb: handlers matched by method and exact path, the one registered last
// tried first, and a fallback for every request no handler takes (the static files of the web
// server, the whole of the WebDAV server). Handlers run on the server's worker threads.
//
// With a password file (lines "user:realm:HA1", as CivetWeb writes them) every request must pass
// HTTP digest authentication for the realm first; a request that does not gets 401 and nothing
// else happens.
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct mg_connection;
struct mg_context;

namespace tw::web {

inline constexpr const char* kDigestRealm = "Tapwright";
inline constexpr const char* kDigestUser = "tapwright";

// Text for HTML or XML: '&', '<', '>', '"', '\'' and carriage returns as character references.
std::string escapeMarkup(std::string_view text);

// Writes the password file of the servers (one digest line for kDigestUser in kDigestRealm,
// replaced atomically); an empty password removes the file. False with the reason on failure.
bool writePasswordFile(const std::string& path, const std::string& password, std::string* error);

// One request, as a handler sees it, and the means to answer it. A handler answers exactly once.
class HttpRequest {
public:
    explicit HttpRequest(mg_connection* conn);

    const std::string& method() const { return method_; }
    // The path, percent-decoded, without the query string ("/file/view").
    const std::string& path() const { return path_; }
    // The path as the client sent it, still percent-encoded.
    const std::string& rawPath() const { return rawPath_; }
    const std::string& queryString() const { return query_; }
    // A query parameter, percent-decoded ('+' is a space); nullopt when absent.
    std::optional<std::string> query(const std::string& name) const;
    // A request header (names compare without case); nullopt when absent.
    std::optional<std::string> header(const std::string& name) const;
    // The declared body length; -1 when the client sent none (chunked or nothing).
    int64_t contentLength() const;

    // Reads the next piece of the body; 0 at its end, < 0 on an error.
    int read(void* buffer, size_t size);
    // The whole body when it is at most `limit` bytes; nullopt when it is longer or cannot be read.
    std::optional<std::string> readBody(size_t limit);
    // The body of a URL-encoded form, split into its decoded fields (at most `limit` bytes read).
    std::optional<std::map<std::string, std::string>> readUrlEncodedForm(size_t limit);
    // The files of a multipart form body, each streamed into a new temporary file in `folder` as it
    // arrives, in the order of the form; nullopt (with no file left behind) when the body is not a
    // well-formed multipart form or cannot be stored. The caller removes the files it does not keep.
    struct UploadedFile {
        std::string fieldName, fileName, tempPath;
        int64_t size = 0;
    };
    std::optional<std::vector<UploadedFile>> receiveMultipartFiles(const std::string& folder);

    // ---- Answers.
    // Any status with extra header lines ("Name: value", without line ends) and a body.
    void send(int status, const std::string& contentType, std::string_view body,
              const std::vector<std::string>& headers = {});
    void sendJson(const std::string& json) { send(200, "application/json; charset=utf-8", json); }
    void sendHtml(const std::string& html, int status = 200) { send(status, "text/html; charset=utf-8", html); }
    void sendText(int status, const std::string& text) { send(status, "text/plain; charset=utf-8", text); }
    // The file at a disk path, typed by its extension (or `mimeType`), with byte ranges,
    // Last-Modified/ETag checks and the server's cache age; 404 when it is not a regular file.
    void sendFile(const std::string& fullPath, const char* mimeType = nullptr);
    // Headers first, then the body in pieces: for answers too long to build in memory.
    void startChunked(int status, const std::string& contentType, const std::vector<std::string>& headers = {});
    void writeChunk(std::string_view data);
    void endChunked();

    bool answered() const { return answered_; }
    mg_connection* connection() const { return conn_; }

private:
    friend class HttpServer;
    mg_connection* conn_;
    std::string method_, path_, rawPath_, query_;
    bool answered_ = false;
    bool chunked_ = false;
};

using HttpHandler = std::function<void(HttpRequest&)>;

struct HttpServerOptions {
    std::string bindAddress = "127.0.0.1";  // "" or "0.0.0.0": every interface
    uint16_t port = 0;                      // 0: a free port, chosen when the server starts
    int threads = 8;
    int staticMaxAgeSeconds = 3600;         // the cache age of files sent with sendFile
    std::string passwordFile;               // "" or a missing file: no authentication
    // COPY and MOVE reach the handlers too (through a MethodRelay: CivetWeb itself refuses them).
    bool webDavMethods = false;
};

class MethodRelay;

class HttpServer {
public:
    HttpServer();
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Registration happens before start. A later handler for the same method and path wins.
    void addHandler(const std::string& method, const std::string& path, HttpHandler handler);
    void setFallback(HttpHandler handler);

    // Binds and starts the worker threads; false with the reason when the port cannot be bound.
    bool start(const HttpServerOptions& options, std::string* error = nullptr);
    void stop();
    bool isRunning() const { return context_ != nullptr; }
    // The port actually bound (the chosen one for port 0); 0 when stopped.
    uint16_t port() const { return port_; }
    const HttpServerOptions& options() const { return options_; }

private:
    struct Route {
        std::string method, path;
        HttpHandler handler;
    };
    static int dispatch(mg_connection* conn, void* self);
    void handle(HttpRequest& request);
    bool authorized(HttpRequest& request);

    std::vector<Route> routes_;
    HttpHandler fallback_;
    HttpServerOptions options_;
    mg_context* context_ = nullptr;
    std::unique_ptr<MethodRelay> relay_;
    uint16_t port_ = 0;
};

}  // namespace tw::web
