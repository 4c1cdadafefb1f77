#include "web/HttpServer.h"

#include <civetweb.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <openssl/evp.h>
#include <unistd.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "core/AtomicFile.h"
#include "core/Diagnostics.h"
#include "web/MethodRelay.h"

namespace tw::web {

namespace {

void initLibraryOnce() {
    static std::once_flag once;
    std::call_once(once, [] { mg_init_library(0); });
}

std::string decode(std::string_view text, bool isForm) {
    std::string out(text.size() + 1, '\0');
    const int n = mg_url_decode(text.data(), static_cast<int>(text.size()), out.data(), static_cast<int>(out.size()),
                                isForm ? 1 : 0);
    out.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return out;
}

// "a=1&b=two" into its decoded fields; the first of a repeated name wins.
std::map<std::string, std::string> splitForm(std::string_view text) {
    std::map<std::string, std::string> fields;
    while (!text.empty()) {
        const size_t amp = text.find('&');
        const std::string_view pair = text.substr(0, amp);
        text = amp == std::string_view::npos ? std::string_view{} : text.substr(amp + 1);
        if (pair.empty()) continue;
        const size_t eq = pair.find('=');
        std::string name = decode(pair.substr(0, eq), true);
        std::string value = eq == std::string_view::npos ? "" : decode(pair.substr(eq + 1), true);
        fields.emplace(std::move(name), std::move(value));
    }
    return fields;
}

bool fileExists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0;
}

}  // namespace

std::string escapeMarkup(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            case '\'': out += "&#39;"; break;
            case '\r': out += "&#13;"; break;
            default: out += c;
        }
    }
    return out;
}

bool writePasswordFile(const std::string& path, const std::string& password, std::string* error) {
    if (password.empty()) {
        if (::unlink(path.c_str()) == 0 || errno == ENOENT) return true;
        if (error) *error = std::strerror(errno);
        return false;
    }
    // HA1 of digest authentication: MD5 of "user:realm:password", as hex.
    const std::string secret = std::string(kDigestUser) + ":" + kDigestRealm + ":" + password;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!EVP_Digest(secret.data(), secret.size(), digest, &length, EVP_md5(), nullptr)) {
        if (error) *error = "no MD5 digest available";
        return false;
    }
    std::string line = std::string(kDigestUser) + ":" + kDigestRealm + ":";
    static const char kHex[] = "0123456789abcdef";
    for (unsigned i = 0; i < length; ++i) {
        line += kHex[digest[i] >> 4];
        line += kHex[digest[i] & 15];
    }
    line += "\n";
    return writeFileAtomically(path, line, error);
}

// ---- HttpRequest

HttpRequest::HttpRequest(mg_connection* conn) : conn_(conn) {
    const mg_request_info* info = mg_get_request_info(conn);
    method_ = info->request_method ? info->request_method : "";
    path_ = info->local_uri ? info->local_uri : "/";
    rawPath_ = info->request_uri ? info->request_uri : path_;
    const size_t q = rawPath_.find('?');
    if (q != std::string::npos) rawPath_.resize(q);
    query_ = info->query_string ? info->query_string : "";
    // A method CivetWeb refuses, brought in by the server's MethodRelay.
    if (method_ == "PATCH")
        if (const char* relayed = mg_get_header(conn, kRelayedMethod))
            if (!std::strcmp(relayed, "COPY") || !std::strcmp(relayed, "MOVE")) method_ = relayed;
}

std::optional<std::string> HttpRequest::query(const std::string& name) const {
    // Parsed on demand: most handlers read one or two parameters.
    auto fields = splitForm(query_);
    auto it = fields.find(name);
    if (it == fields.end()) return std::nullopt;
    return it->second;
}

std::optional<std::string> HttpRequest::header(const std::string& name) const {
    const char* value = mg_get_header(conn_, name.c_str());
    if (!value) return std::nullopt;
    return std::string(value);
}

int64_t HttpRequest::contentLength() const { return mg_get_request_info(conn_)->content_length; }

int HttpRequest::read(void* buffer, size_t size) { return mg_read(conn_, buffer, size); }

std::optional<std::string> HttpRequest::readBody(size_t limit) {
    const int64_t declared = contentLength();
    if (declared > static_cast<int64_t>(limit)) return std::nullopt;
    std::string body;
    std::vector<char> buffer(16384);  // CivetWeb's worker threads have small stacks
    for (;;) {
        const int n = read(buffer.data(), buffer.size());
        if (n < 0) return std::nullopt;
        if (n == 0) break;
        if (body.size() + static_cast<size_t>(n) > limit) return std::nullopt;
        body.append(buffer.data(), static_cast<size_t>(n));
    }
    return body;
}

std::optional<std::map<std::string, std::string>> HttpRequest::readUrlEncodedForm(size_t limit) {
    auto body = readBody(limit);
    if (!body) return std::nullopt;
    return splitForm(*body);
}

namespace {

struct MultipartState {
    std::string folder;
    std::vector<HttpRequest::UploadedFile> files;
    std::string pendingField, pendingName, pendingPath;
    bool failed = false;
};

int onFieldFound(const char* key, const char* filename, char* path, size_t pathlen, void* user) {
    auto& state = *static_cast<MultipartState*>(user);
    if (!filename || !*filename) return MG_FORM_FIELD_STORAGE_SKIP;
    std::string temp = state.folder + "/.upload.tw-XXXXXX";
    const int fd = ::mkstemp(temp.data());
    if (fd < 0 || temp.size() + 1 > pathlen) {
        if (fd >= 0) {
            ::close(fd);
            ::unlink(temp.c_str());
        }
        state.failed = true;
        return MG_FORM_FIELD_STORAGE_ABORT;
    }
    ::fchmod(fd, 0644);
    ::close(fd);
    std::memcpy(path, temp.c_str(), temp.size() + 1);
    state.pendingField = key ? key : "";
    state.pendingName = filename;
    state.pendingPath = temp;
    // Known before the data arrives, so a body that breaks off midway leaves nothing behind.
    state.files.push_back({state.pendingField, state.pendingName, temp, -1});
    return MG_FORM_FIELD_STORAGE_STORE;
}

int onFieldStored(const char* path, long long size, void* user) {
    auto& state = *static_cast<MultipartState*>(user);
    for (auto& file : state.files)
        if (file.tempPath == path) file.size = size;
    return MG_FORM_FIELD_HANDLE_NEXT;
}

int onFieldGet(const char*, const char*, size_t, void*) { return MG_FORM_FIELD_HANDLE_NEXT; }

}  // namespace

std::optional<std::vector<HttpRequest::UploadedFile>> HttpRequest::receiveMultipartFiles(const std::string& folder) {
    const auto type = header("Content-Type");
    if (!type || type->find("multipart/form-data") == std::string::npos ||
        type->find("boundary=") == std::string::npos)
        return std::nullopt;
    MultipartState state;
    state.folder = folder;
    mg_form_data_handler handler{onFieldFound, onFieldGet, onFieldStored, &state};
    const int handled = mg_handle_form_request(conn_, &handler);
    const bool complete = handled >= 0 && !state.failed &&
                          std::all_of(state.files.begin(), state.files.end(), [](const auto& f) { return f.size >= 0; });
    if (!complete) {
        for (const auto& file : state.files) ::unlink(file.tempPath.c_str());
        return std::nullopt;
    }
    return std::move(state.files);
}

void HttpRequest::send(int status, const std::string& contentType, std::string_view body,
                       const std::vector<std::string>& headers) {
    answered_ = true;
    mg_response_header_start(conn_, status);
    if (!contentType.empty()) mg_response_header_add(conn_, "Content-Type", contentType.c_str(), -1);
    const std::string length = std::to_string(body.size());
    mg_response_header_add(conn_, "Content-Length", length.c_str(), -1);
    for (const auto& line : headers) mg_response_header_add_lines(conn_, line.c_str());
    mg_response_header_send(conn_);
    if (method_ != "HEAD" && !body.empty()) mg_write(conn_, body.data(), body.size());
}

void HttpRequest::sendFile(const std::string& fullPath, const char* mimeType) {
    answered_ = true;
    struct stat st {};
    if (::stat(fullPath.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        answered_ = false;
        sendText(404, "Not Found");
        return;
    }
    mg_send_mime_file2(conn_, fullPath.c_str(), mimeType, nullptr);
}

void HttpRequest::startChunked(int status, const std::string& contentType, const std::vector<std::string>& headers) {
    answered_ = true;
    chunked_ = true;
    mg_response_header_start(conn_, status);
    if (!contentType.empty()) mg_response_header_add(conn_, "Content-Type", contentType.c_str(), -1);
    mg_response_header_add(conn_, "Transfer-Encoding", "chunked", -1);
    for (const auto& line : headers) mg_response_header_add_lines(conn_, line.c_str());
    mg_response_header_send(conn_);
}

void HttpRequest::writeChunk(std::string_view data) {
    if (!data.empty() && method_ != "HEAD") mg_send_chunk(conn_, data.data(), static_cast<unsigned>(data.size()));
}

void HttpRequest::endChunked() {
    if (method_ != "HEAD") mg_send_chunk(conn_, "", 0);
}

// ---- HttpServer

HttpServer::HttpServer() { initLibraryOnce(); }

HttpServer::~HttpServer() { stop(); }

void HttpServer::addHandler(const std::string& method, const std::string& path, HttpHandler handler) {
    routes_.push_back({method, path, std::move(handler)});
}

void HttpServer::setFallback(HttpHandler handler) { fallback_ = std::move(handler); }

bool HttpServer::start(const HttpServerOptions& options, std::string* error) {
    stop();
    options_ = options;
    const bool everywhere = options.bindAddress.empty() || options.bindAddress == "0.0.0.0";
    const std::string ports = (everywhere ? "" : options.bindAddress + ":") + std::to_string(options.port);
    const std::string threads = std::to_string(std::max(1, options.threads));
    const std::string maxAge = std::to_string(options.staticMaxAgeSeconds);
    const char* config[] = {"listening_ports", ports.c_str(),
                            "num_threads", threads.c_str(),
                            "static_file_max_age", maxAge.c_str(),
                            "enable_keep_alive", "yes",
                            // Small answers go out at once, not after the client's delayed ACK.
                            "tcp_nodelay", "1",
                            "request_timeout_ms", "30000",
                            "keep_alive_timeout_ms", "5000",
                            "authentication_domain", kDigestRealm,
                            nullptr};
    mg_callbacks callbacks{};
    // CivetWeb's own messages go to standard error as diagnostics, not to the client.
    callbacks.log_message = [](const mg_connection*, const char* message) {
        diagnostic("web server: %s", message);
        return 1;
    };
    mg_init_data init{};
    init.callbacks = &callbacks;
    init.user_data = this;
    init.configuration_options = config;
    char text[256] = "";
    mg_error_data errorData{};
    errorData.text = text;
    errorData.text_buffer_size = sizeof text;
    // With the WebDAV methods CivetWeb listens on loopback only, behind the relay.
    const std::string upstreamPorts = "127.0.0.1:0";
    if (options.webDavMethods) config[1] = upstreamPorts.c_str();
    context_ = mg_start2(&init, &errorData);
    if (!context_) {
        if (error) *error = text[0] ? text : "cannot listen on " + ports;
        return false;
    }
    mg_server_port bound[4]{};
    const int count = mg_get_server_ports(context_, 4, bound);
    port_ = count > 0 ? static_cast<uint16_t>(bound[0].port) : options.port;
    mg_set_request_handler(context_, "**", &HttpServer::dispatch, this);
    if (options.webDavMethods) {
        relay_ = std::make_unique<MethodRelay>();
        if (!relay_->start(everywhere ? "0.0.0.0" : options.bindAddress, options.port, port_, error)) {
            stop();
            return false;
        }
        port_ = relay_->port();
    }
    return true;
}

void HttpServer::stop() {
    if (!context_) return;
    // CivetWeb's listener sees the stop only when its poll ends, up to two seconds later; a
    // connection ends the poll at once, so one is knocked on until the server is down.
    // Behind a relay CivetWeb listens on a loopback port of its own.
    const uint16_t listenerPort = relay_ ? relay_->upstreamPort() : port_;
    relay_.reset();
    std::atomic<bool> stopped{false};
    std::thread knocker([&] {
        const std::string host = listenerPort != port_ || options_.bindAddress.empty() ||
                                         options_.bindAddress == "0.0.0.0"
                                     ? "127.0.0.1" : options_.bindAddress;
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(listenerPort);
        if (::inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) return;
        while (!stopped.load()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (fd < 0) return;
            ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
            ::close(fd);
        }
    });
    mg_stop(context_);
    stopped.store(true);
    knocker.join();
    context_ = nullptr;
    port_ = 0;
}

int HttpServer::dispatch(mg_connection* conn, void* self) {
    HttpRequest request(conn);
    try {
        static_cast<HttpServer*>(self)->handle(request);
    } catch (const std::exception& e) {
        diagnostic("web server: %s %s failed: %s", request.method().c_str(), request.path().c_str(), e.what());
    }
    if (!request.answered()) request.sendText(500, "Internal Server Error");
    return 200;
}

bool HttpServer::authorized(HttpRequest& request) {
    // Read at each request: a password set or removed takes effect at once.
    if (options_.passwordFile.empty() || !fileExists(options_.passwordFile)) return true;
    // The digest covers the method the client sent, which a relayed request carries in a header.
    auto* info = const_cast<mg_request_info*>(mg_get_request_info(request.connection()));
    const char* received = info->request_method;
    info->request_method = request.method().c_str();
    const int checked = mg_check_digest_access_authentication(request.connection(), kDigestRealm,
                                                              options_.passwordFile.c_str());
    info->request_method = received;
    if (checked > 0) return true;
    mg_send_digest_access_authentication_request(request.connection(), kDigestRealm);
    // The body of a refused request is never read; the connection closes after the answer.
    mg_disable_connection_keep_alive(request.connection());
    return false;
}

void HttpServer::handle(HttpRequest& request) {
    if (!authorized(request)) {
        request.answered_ = true;  // the challenge went out already
        return;
    }
    for (auto it = routes_.rbegin(); it != routes_.rend(); ++it)
        if (it->method == request.method() && it->path == request.path()) {
            it->handler(request);
            return;
        }
    if (fallback_)
        fallback_(request);
    else
        request.sendText(404, "Not Found");
}

}  // namespace tw::web
