#pragma once
// A plain HTTP/1.1 client for tests of the web servers: one request per connection to a loopback
// port, the answer read to its end (Content-Length, chunked or up to the close).
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace tw::test {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

struct HttpResponse {
    int status = 0;  // 0: no answer (the connection failed or the answer was cut short)
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;
    // The header's value; "" when absent.
    std::string header(const std::string& name) const;
};

// Sends `method` `target` (sent as written: encode it yourself) with `headers` and `body` to
// 127.0.0.1:`port`. Host, Connection: close and (unless `headers` has one) Content-Length are added.
// A Content-Length in `headers` longer than `body` makes a request that breaks off midway: the
// client stops sending after `body` and reads the answer.
HttpResponse httpRequest(uint16_t port, const std::string& method, const std::string& target,
                         const HttpHeaders& headers = {}, const std::string& body = "");

// The Authorization header value answering a digest challenge (the WWW-Authenticate value of a
// 401) for `user` and `password`, for one request of `method` on `target`.
std::string digestAuthorization(const std::string& challenge, const std::string& user, const std::string& password,
                                const std::string& method, const std::string& target);

// The line a digest password file holds for `user` in `realm`: "user:realm:HA1".
std::string digestPasswordLine(const std::string& user, const std::string& realm, const std::string& password);

}  // namespace tw::test
