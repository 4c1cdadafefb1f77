#include "platform/linux/LineClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>

#include "platform/linux/UnixMessagePorts.h"

namespace tw::linuxp {

namespace {

// A server that sends more than this without a newline is not speaking lines.
constexpr size_t kMaxIncomingLine = 16 * 1024 * 1024;
// Bounds every blocking send, so a wedged server cannot hang its clients for ever.
constexpr time_t kSendTimeoutSeconds = 10;

}  // namespace

std::unique_ptr<LineClient> LineClient::connect(const std::string& path, std::string* error) {
    sockaddr_un address;
    const socklen_t length = abstractSocketAddress(path, address);

    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        if (error) *error = std::string("cannot create a socket: ") + std::strerror(errno);
        return nullptr;
    }
    const timeval sendTimeout{kSendTimeoutSeconds, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);
    int result;
    do {
        result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), length);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        const int code = errno;
        ::close(fd);
        if (error) {
            if (code == ECONNREFUSED || code == ENOENT)
                *error = "nothing listens at " + path;
            else
                *error = "cannot connect to " + path + ": " + std::strerror(code);
        }
        return nullptr;
    }
    return std::unique_ptr<LineClient>(new LineClient(fd));
}

LineClient::~LineClient() { ::close(fd_); }

bool LineClient::sendLine(const std::string& line) {
    if (closed_) return false;
    const std::string frame = line + "\n";
    size_t sent = 0;
    while (sent < frame.size()) {
        const ssize_t count = ::send(fd_, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL);
        if (count > 0) {
            sent += static_cast<size_t>(count);
            continue;
        }
        if (count < 0 && errno == EINTR) continue;
        markClosed();
        return false;
    }
    return true;
}

std::optional<std::string> LineClient::readLine(int timeoutMs) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
    for (;;) {
        const size_t newline = rx_.find('\n', std::max(rxStart_, rxScanned_));
        if (newline != std::string::npos) {
            std::string line = rx_.substr(rxStart_, newline - rxStart_);
            rxStart_ = newline + 1;
            rxScanned_ = rxStart_;
            // Drop what was handed out once it is a good part of the buffer.
            if (rxStart_ >= 64 * 1024 || rxStart_ * 2 >= rx_.size()) {
                rx_.erase(0, rxStart_);
                rxScanned_ -= rxStart_;
                rxStart_ = 0;
            }
            return line;
        }
        rxScanned_ = rx_.size();
        if (closed_) return std::nullopt;
        if (rx_.size() - rxStart_ > kMaxIncomingLine) {
            markClosed();
            return std::nullopt;
        }

        int wait = -1;
        if (timeoutMs >= 0) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            wait = left > 0 ? static_cast<int>(left) : 0;
        }
        pollfd entry{fd_, POLLIN, 0};
        const int ready = ::poll(&entry, 1, wait);
        if (ready < 0) {
            if (errno == EINTR) continue;
            markClosed();
            return std::nullopt;
        }
        if (ready == 0) return std::nullopt;  // timed out

        char buffer[64 * 1024];
        const ssize_t count = ::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
        if (count > 0) {
            rx_.append(buffer, static_cast<size_t>(count));
        } else if (count == 0 || (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK)) {
            markClosed();  // a partial last line is dropped with the connection
        }
    }
}

void LineClient::markClosed() {
    closed_ = true;
    ::shutdown(fd_, SHUT_RDWR);
}

}  // namespace tw::linuxp
