#include "HttpClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace tw::test {

namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string md5Hex(const std::string& text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr);
    std::string out;
    char hex[3];
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(hex, sizeof hex, "%02x", digest[i]);
        out += hex;
    }
    return out;
}

// The value of `name`="value" (or name=value) in a challenge.
std::string challengeField(const std::string& challenge, const std::string& name) {
    size_t at = challenge.find(name + "=");
    if (at == std::string::npos) return "";
    at += name.size() + 1;
    if (challenge[at] == '"') return challenge.substr(at + 1, challenge.find('"', at + 1) - at - 1);
    return challenge.substr(at, challenge.find_first_of(", ", at) - at);
}

// The body after the head: chunked bodies are joined; false when it is cut short.
bool decodeBody(const HttpResponse& r, const std::string& raw, std::string* body) {
    if (lower(r.header("transfer-encoding")).find("chunked") == std::string::npos) {
        const std::string length = r.header("content-length");
        if (!length.empty() && raw.size() < std::stoull(length)) return false;
        *body = length.empty() ? raw : raw.substr(0, std::stoull(length));
        return true;
    }
    size_t pos = 0;
    for (;;) {
        const size_t lineEnd = raw.find("\r\n", pos);
        if (lineEnd == std::string::npos) return false;
        const size_t size = std::stoul(raw.substr(pos, lineEnd - pos), nullptr, 16);
        if (size == 0) return true;
        if (lineEnd + 2 + size > raw.size()) return false;
        body->append(raw, lineEnd + 2, size);
        pos = lineEnd + 2 + size + 2;
    }
}

}  // namespace

std::string HttpResponse::header(const std::string& name) const {
    auto it = headers.find(lower(name));
    return it == headers.end() ? "" : it->second;
}

HttpResponse httpRequest(uint16_t port, const std::string& method, const std::string& target,
                         const HttpHeaders& headers, const std::string& body) {
    HttpResponse response;
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return response;
    timeval timeout{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return response;
    }
    std::string request = method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                          "\r\nConnection: close\r\n";
    bool hasLength = false;
    for (const auto& [name, value] : headers) {
        hasLength = hasLength || lower(name) == "content-length";
        request += name + ": " + value + "\r\n";
    }
    if (!hasLength) request += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    request += "\r\n" + body;
    for (size_t sent = 0; sent < request.size();) {
        const ssize_t n = ::send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
    }
    ::shutdown(fd, SHUT_WR);
    std::string raw;
    char buffer[16384];
    for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) raw.append(buffer, static_cast<size_t>(n));
    ::close(fd);

    const size_t headEnd = raw.find("\r\n\r\n");
    if (headEnd == std::string::npos || raw.compare(0, 5, "HTTP/") != 0) return response;
    size_t pos = raw.find("\r\n");
    const int status = std::atoi(raw.c_str() + raw.find(' ') + 1);
    while (pos < headEnd) {
        const size_t next = raw.find("\r\n", pos + 2);
        const std::string line = raw.substr(pos + 2, next - pos - 2);
        const size_t colon = line.find(':');
        if (colon != std::string::npos) {
            const size_t start = line.find_first_not_of(' ', colon + 1);
            response.headers[lower(line.substr(0, colon))] = start == std::string::npos ? "" : line.substr(start);
        }
        pos = next;
    }
    if (method != "HEAD" && !decodeBody(response, raw.substr(headEnd + 4), &response.body)) return response;
    response.status = status;
    return response;
}

std::string digestAuthorization(const std::string& challenge, const std::string& user, const std::string& password,
                                const std::string& method, const std::string& target) {
    const std::string realm = challengeField(challenge, "realm"), nonce = challengeField(challenge, "nonce");
    const std::string opaque = challengeField(challenge, "opaque");
    const std::string ha1 = md5Hex(user + ":" + realm + ":" + password), ha2 = md5Hex(method + ":" + target);
    const std::string nc = "00000001", cnonce = "0a4f113b";
    const std::string answer = md5Hex(ha1 + ":" + nonce + ":" + nc + ":" + cnonce + ":auth:" + ha2);
    std::string out = "Digest username=\"" + user + "\", realm=\"" + realm + "\", nonce=\"" + nonce + "\", uri=\"" +
                      target + "\", qop=auth, nc=" + nc + ", cnonce=\"" + cnonce + "\", response=\"" + answer + "\"";
    if (!opaque.empty()) out += ", opaque=\"" + opaque + "\"";
    return out;
}

std::string digestPasswordLine(const std::string& user, const std::string& realm, const std::string& password) {
    return user + ":" + realm + ":" + md5Hex(user + ":" + realm + ":" + password);
}

}  // namespace tw::test
