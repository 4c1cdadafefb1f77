#pragma once
// A blocking client of a LineServer (see LineServer.h): text lines over a local stream socket at an
// abstract address, for other processes (the event hub's subscribers and publishers, the hardware
// input, the home screen's control socket). Every send is bounded by a timeout and readLine()
// waits with poll(). Not thread-safe.
#include <memory>
#include <optional>
#include <string>

namespace tw::linuxp {

class LineClient {
public:
    // Connects to the server listening at the abstract address of `path`. Null, with the reason in
    // `error`, when nothing listens there.
    static std::unique_ptr<LineClient> connect(const std::string& path, std::string* error);
    ~LineClient();
    LineClient(const LineClient&) = delete;
    LineClient& operator=(const LineClient&) = delete;

    // Sends `line` and a newline; false once the connection is closed.
    bool sendLine(const std::string& line);
    // The next line, without its newline. Null when `timeoutMs` passed first (a negative timeout
    // waits for ever) or when the server closed the connection; closed() tells which.
    std::optional<std::string> readLine(int timeoutMs);
    bool closed() const { return closed_; }

private:
    explicit LineClient(int fd) : fd_(fd) {}
    void markClosed();

    int fd_;
    bool closed_ = false;
    std::string rx_;
    size_t rxStart_ = 0;    // rx_ bytes before this were already returned
    size_t rxScanned_ = 0;  // rx_ bytes before this hold no newline past rxStart_
};

}  // namespace tw::linuxp
