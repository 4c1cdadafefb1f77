#include "web/MethodRelay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <strings.h>
#include <optional>

namespace tw::web {

namespace {

constexpr size_t kMaxHead = 64 * 1024;
constexpr size_t kMaxConnections = 64;

bool sendAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool sendAll(int fd, const std::string& text) { return sendAll(fd, text.data(), text.size()); }

// Reads a socket through a buffer, for lines and counted runs of bytes.
class Reader {
public:
    explicit Reader(int fd) : fd_(fd) {}

    // The next line with its "\n", at most `limit` bytes; nullopt at the end or past the limit.
    std::optional<std::string> line(size_t limit) {
        for (;;) {
            const size_t end = buffer_.find('\n', pos_);
            if (end != std::string::npos) {
                std::string out = buffer_.substr(pos_, end + 1 - pos_);
                pos_ = end + 1;
                return out;
            }
            if (buffer_.size() - pos_ > limit || !fill()) return std::nullopt;
        }
    }
    // Passes `count` bytes on to `to`; false when either side ends first.
    bool forward(uint64_t count, int to) {
        while (count > 0) {
            if (pos_ == buffer_.size() && !fill()) return false;
            const size_t n = static_cast<size_t>(std::min<uint64_t>(count, buffer_.size() - pos_));
            if (!sendAll(to, buffer_.data() + pos_, n)) return false;
            pos_ += n;
            count -= n;
        }
        return true;
    }

private:
    bool fill() {
        if (pos_ == buffer_.size()) buffer_.clear(), pos_ = 0;
        char chunk[16384];
        for (;;) {
            const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            buffer_.append(chunk, static_cast<size_t>(n));
            return true;
        }
    }

    int fd_;
    std::string buffer_;
    size_t pos_ = 0;
};

bool startsWithNoCase(const std::string& line, const char* prefix) {
    return ::strncasecmp(line.c_str(), prefix, std::strlen(prefix)) == 0;
}

std::string headerValue(const std::string& line) {
    size_t start = line.find(':') + 1;
    size_t end = line.find_last_not_of(" \t\r\n");
    while (start < line.size() && (line[start] == ' ' || line[start] == '\t')) ++start;
    return end == std::string::npos || end < start ? "" : line.substr(start, end + 1 - start);
}

}  // namespace

struct MethodRelay::Connection {
    int client = -1;
    int upstream = -1;
    std::mutex clientWrites;  // answers and the relay's own interim answers do not interleave
    std::thread up, down;
    std::atomic<int> running{2};
};

MethodRelay::~MethodRelay() { stop(); }

bool MethodRelay::start(const std::string& bindAddress, uint16_t port, uint16_t upstreamPort, std::string* error) {
    stop();
    stopping_ = false;
    upstreamPort_ = upstreamPort;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    const std::string host = bindAddress.empty() ? "0.0.0.0" : bindAddress;
    if (::inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) {
        if (error) *error = "not an IPv4 address: " + host;
        return false;
    }
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int yes = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 64) != 0) {
        if (error) *error = "cannot listen on " + host + ":" + std::to_string(port) + ": " + std::strerror(errno);
        if (listener_ >= 0) ::close(listener_);
        listener_ = -1;
        return false;
    }
    socklen_t length = sizeof address;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    acceptThread_ = std::thread([this] { acceptLoop(); });
    return true;
}

void MethodRelay::stop() {
    if (listener_ < 0) return;
    stopping_ = true;
    if (acceptThread_.joinable()) acceptThread_.join();
    ::close(listener_);
    listener_ = -1;
    port_ = 0;
    std::vector<std::shared_ptr<Connection>> all;
    {
        std::lock_guard lock(mutex_);
        all.swap(connections_);
    }
    for (auto& c : all) {
        ::shutdown(c->client, SHUT_RDWR);
        ::shutdown(c->upstream, SHUT_RDWR);
    }
    for (auto& c : all) {
        c->up.join();
        c->down.join();
        ::close(c->client);
        ::close(c->upstream);
    }
}

void MethodRelay::acceptLoop() {
    while (!stopping_) {
        pollfd p{listener_, POLLIN, 0};
        if (::poll(&p, 1, 200) <= 0) continue;
        const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;
        std::lock_guard lock(mutex_);
        // Connections whose both directions ended are closed here.
        std::erase_if(connections_, [](const std::shared_ptr<Connection>& c) {
            if (c->running > 0) return false;
            c->up.join();
            c->down.join();
            ::close(c->client);
            ::close(c->upstream);
            return true;
        });
        const int upstream = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(upstreamPort_);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connections_.size() >= kMaxConnections || upstream < 0 ||
            ::connect(upstream, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ::close(client);
            if (upstream >= 0) ::close(upstream);
            continue;
        }
        const int yes = 1;
        ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        ::setsockopt(upstream, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        auto connection = std::make_shared<Connection>();
        connection->client = client;
        connection->upstream = upstream;
        connections_.push_back(connection);
        relay(connection);
    }
}

void MethodRelay::relay(const std::shared_ptr<Connection>& c) {
    Connection* raw = c.get();
    // Answers pass through unchanged; when the server closes, so does the client's connection.
    c->down = std::thread([raw] {
        char buffer[16384];
        for (;;) {
            const ssize_t n = ::recv(raw->upstream, buffer, sizeof buffer, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            std::lock_guard lock(raw->clientWrites);
            if (!sendAll(raw->client, buffer, static_cast<size_t>(n))) break;
        }
        ::shutdown(raw->client, SHUT_RDWR);
        --raw->running;
    });
    c->up = std::thread([raw] {
        Reader in(raw->client);
        for (;;) {
            std::string head;
            bool chunked = false, expectsContinue = false;
            uint64_t length = 0;
            bool complete = false;
            while (auto line = in.line(kMaxHead)) {
                if (head.size() + line->size() > kMaxHead) break;
                head += *line;
                if (*line == "\r\n" || *line == "\n") {
                    if (head.size() == line->size()) {  // blank lines before a request are ignored
                        head.clear();
                        continue;
                    }
                    complete = true;
                    break;
                }
                if (startsWithNoCase(*line, "Transfer-Encoding:"))
                    chunked = headerValue(*line).find("chunked") != std::string::npos;
                else if (startsWithNoCase(*line, "Content-Length:"))
                    length = std::strtoull(headerValue(*line).c_str(), nullptr, 10);
                else if (startsWithNoCase(*line, "Expect:"))
                    expectsContinue = ::strcasecmp(headerValue(*line).c_str(), "100-continue") == 0;
            }
            if (!complete) break;
            const std::string rewritten = rewriteHead(head);
            if (rewritten.empty() || !sendAll(raw->upstream, rewritten)) break;
            // CivetWeb never gives handlers' clients leave to send their body, so the relay does.
            if (expectsContinue) {
                std::lock_guard lock(raw->clientWrites);
                if (!sendAll(raw->client, "HTTP/1.1 100 Continue\r\n\r\n")) break;
            }
            bool ok = true;
            if (chunked) {
                for (;;) {
                    auto sizeLine = in.line(1024);
                    if (!sizeLine || !sendAll(raw->upstream, *sizeLine)) {
                        ok = false;
                        break;
                    }
                    const uint64_t size = std::strtoull(sizeLine->c_str(), nullptr, 16);
                    if (size == 0) {
                        // Trailer lines up to the empty one.
                        for (;;) {
                            auto trailer = in.line(kMaxHead);
                            if (!trailer || !sendAll(raw->upstream, *trailer)) ok = false;
                            if (!ok || *trailer == "\r\n" || *trailer == "\n") break;
                        }
                        break;
                    }
                    if (!in.forward(size + 2, raw->upstream)) {
                        ok = false;
                        break;
                    }
                }
            } else {
                ok = in.forward(length, raw->upstream);
            }
            if (!ok) break;
        }
        ::shutdown(raw->upstream, SHUT_WR);
        --raw->running;
    });
}

std::string MethodRelay::rewriteHead(const std::string& head) {
    const size_t lineEnd = head.find('\n');
    const size_t space = head.find(' ');
    if (lineEnd == std::string::npos || space == std::string::npos || space > lineEnd) return "";
    const std::string method = head.substr(0, space);
    const bool relayed = method == "COPY" || method == "MOVE";
    std::string out = relayed ? "PATCH" + head.substr(space, lineEnd + 1 - space) : head.substr(0, lineEnd + 1);
    bool framed = false;
    const std::string marker = std::string(kRelayedMethod) + ":";
    size_t pos = lineEnd + 1;
    while (pos < head.size()) {
        size_t end = head.find('\n', pos);
        if (end == std::string::npos) end = head.size() - 1;
        const std::string line = head.substr(pos, end + 1 - pos);
        pos = end + 1;
        if (line == "\r\n" || line == "\n") break;
        // Only the relay names a method this way.
        if (startsWithNoCase(line, marker.c_str())) continue;
        // The relay answers an Expect itself (see relay()).
        if (startsWithNoCase(line, "Expect:")) continue;
        if (startsWithNoCase(line, "Content-Length:") || startsWithNoCase(line, "Transfer-Encoding:")) framed = true;
        out += line;
    }
    if (relayed) {
        out += marker + " " + method + "\r\n";
        // CivetWeb reads a PATCH without framing to the end of the connection.
        if (!framed) out += "Content-Length: 0\r\n";
    }
    return out + "\r\n";
}

}  // namespace tw::web
