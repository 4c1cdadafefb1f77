#include "HttpClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>

namespace tw::test {

namespace {

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
}

std::string md5Hex(const std::string& text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr);
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (unsigned i = 0; i < length; ++i) {
        out += kHex[digest[i] >> 4];
        out += kHex[digest[i] & 15];
    }
    return out;
}

// The value of `name="..."` (or name=value) in a challenge header.
std::string challengeField(const std::string& header, const std::string& name) {
    const size_t at = header.find(name + "=");
    if (at == std::string::npos) return "";
    size_t from = at + name.size() + 1;
    if (from < header.size() && header[from] == '"') return header.substr(from + 1, header.find('"', from + 1) - from - 1);
    return header.substr(from, header.find_first_of(", ", from) - from);
}

std::string dechunk(const std::string& body) {
    std::string out;
    size_t at = 0;
    while (at < body.size()) {
        const size_t lineEnd = body.find("\r\n", at);
        if (lineEnd == std::string::npos) break;
        const size_t size = std::stoul(body.substr(at, lineEnd - at), nullptr, 16);
        if (size == 0) break;
        out += body.substr(lineEnd + 2, size);
        at = lineEnd + 2 + size + 2;
    }
    return out;
}

HttpReply exchange(uint16_t port, const std::string& wire, bool endSending) {
    HttpReply reply;
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return reply;
    }
    for (size_t sent = 0; sent < wire.size();) {
        const ssize_t n = ::send(fd, wire.data() + sent, wire.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;  // the server may answer before taking the whole body
        sent += static_cast<size_t>(n);
    }
    if (endSending) ::shutdown(fd, SHUT_WR);
    std::string raw;
    char buffer[65536];
    for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) raw.append(buffer, static_cast<size_t>(n));
    ::close(fd);
    const size_t headerEnd = raw.find("\r\n\r\n");
    if (headerEnd == std::string::npos || raw.compare(0, 5, "HTTP/") != 0) return reply;
    reply.status = std::atoi(raw.c_str() + raw.find(' ') + 1);
    size_t at = raw.find("\r\n") + 2;
    while (at < headerEnd) {
        const size_t end = raw.find("\r\n", at);
        const std::string line = raw.substr(at, end - at);
        const size_t colon = line.find(':');
        if (colon != std::string::npos)
            reply.headers[lower(line.substr(0, colon))] = line.substr(line.find_first_not_of(' ', colon + 1));
        at = end + 2;
    }
    reply.body = raw.substr(headerEnd + 4);
    if (lower(reply.header("transfer-encoding")) == "chunked") reply.body = dechunk(reply.body);
    return reply;
}

bool declaresLength(const HttpRequestSpec& request) {
    for (const auto& header : request.headers)
        if (lower(header.substr(0, header.find(':'))) == "content-length") return true;
    return false;
}

std::string wireOf(const HttpRequestSpec& request, const std::string& authorization) {
    std::string wire = request.method + " " + request.target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n";
    for (const auto& header : request.headers) wire += header + "\r\n";
    if (!authorization.empty()) wire += "Authorization: " + authorization + "\r\n";
    if (!declaresLength(request)) wire += "Content-Length: " + std::to_string(request.body.size()) + "\r\n";
    return wire + "\r\n" + request.body;
}

}  // namespace

HttpReply httpRequest(uint16_t port, const HttpRequestSpec& request) {
    HttpReply reply = exchange(port, wireOf(request, ""), declaresLength(request));
    const std::string challenge = reply.header("www-authenticate");
    if (reply.status != 401 || request.password.empty() || challenge.rfind("Digest", 0) != 0) return reply;
    const std::string realm = challengeField(challenge, "realm"), nonce = challengeField(challenge, "nonce");
    const std::string uri = request.target, nc = "00000001", cnonce = "0a4f113b";
    const std::string ha1 = md5Hex(request.user + ":" + realm + ":" + request.password);
    const std::string ha2 = md5Hex(request.method + ":" + uri);
    const std::string response = md5Hex(ha1 + ":" + nonce + ":" + nc + ":" + cnonce + ":auth:" + ha2);
    const std::string authorization = "Digest username=\"" + request.user + "\", realm=\"" + realm + "\", nonce=\"" +
                                      nonce + "\", uri=\"" + uri + "\", qop=auth, nc=" + nc + ", cnonce=\"" + cnonce +
                                      "\", response=\"" + response + "\"";
    return exchange(port, wireOf(request, authorization), declaresLength(request));
}

std::string urlEncode(const std::string& text) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~' || c == '/')
            out += static_cast<char>(c);
        else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

std::string multipartBody(const std::string& boundary, const std::string& fileName, const std::string& content) {
    return "--" + boundary + "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" + fileName +
           "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + content + "\r\n--" + boundary + "--\r\n";
}

}  // namespace tw::test
