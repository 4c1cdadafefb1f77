#pragma once
// A small HTTP/1.1 client for the server tests: one request per connection over loopback, the
// reply read whole (Content-Length, chunked or until the server closes). With a password it answers
// a digest challenge once, as a browser does.
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tw::test {

struct HttpReply {
    int status = 0;  // 0: no reply (connection refused or broken)
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;
    std::string header(const std::string& lowerName) const {
        auto it = headers.find(lowerName);
        return it == headers.end() ? "" : it->second;
    }
};

struct HttpRequestSpec {
    std::string method = "GET";
    std::string target = "/";  // path and query, sent as written
    // "Name: value". A Content-Length here replaces the body's own: one longer than the body makes
    // a request that breaks off, the client stopping its sending after the body.
    std::vector<std::string> headers;
    std::string body;
    std::string user, password;  // digest credentials, when the server asks
};

HttpReply httpRequest(uint16_t port, const HttpRequestSpec& request);
inline HttpReply httpGet(uint16_t port, const std::string& target) { return httpRequest(port, {"GET", target}); }

// Percent-encodes everything but unreserved characters and '/'.
std::string urlEncode(const std::string& text);

// A multipart/form-data body with one file field; `boundary` names its separator.
std::string multipartBody(const std::string& boundary, const std::string& fileName, const std::string& content);

}  // namespace tw::test
