#pragma once
// A relay in front of the HTTP server for the request methods CivetWeb refuses before any handler
// sees them (COPY and MOVE: its method table leaves them out and answers 400). The relay listens on
// the server's public address, passes each connection to CivetWeb on a loopback port, and rewrites
// the request line of those methods to "PATCH" with the real method in the header kRelayedMethod,
// which HttpRequest turns back into its method. Everything else, the answers included, passes
// through byte for byte; only request heads and body framing (Content-Length, chunked) are read.
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tw::web {

inline constexpr const char* kRelayedMethod = "X-Tapwright-Method";

class MethodRelay {
public:
    MethodRelay() = default;
    ~MethodRelay();
    MethodRelay(const MethodRelay&) = delete;
    MethodRelay& operator=(const MethodRelay&) = delete;

    // Listens on `bindAddress`:`port` (0: a free port) and relays to 127.0.0.1:`upstreamPort`.
    bool start(const std::string& bindAddress, uint16_t port, uint16_t upstreamPort, std::string* error);
    void stop();
    uint16_t port() const { return port_; }
    uint16_t upstreamPort() const { return upstreamPort_; }

    // The request head (request line and header lines, up to and including the empty line) as the
    // relay passes it on; empty when the request line is malformed.
    static std::string rewriteHead(const std::string& head);

private:
    struct Connection;
    void acceptLoop();
    void relay(const std::shared_ptr<Connection>& connection);

    int listener_ = -1;
    uint16_t port_ = 0;
    uint16_t upstreamPort_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread acceptThread_;
    std::mutex mutex_;
    std::vector<std::shared_ptr<Connection>> connections_;
};

}  // namespace tw::web
