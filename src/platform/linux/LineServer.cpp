#include "platform/linux/LineServer.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>
#include <asio/write.hpp>
#include <cerrno>
#include <cstring>

#include "core/Diagnostics.h"
#include "platform/linux/OutgoingQueue.h"
#include "platform/linux/UnixMessagePorts.h"

namespace tw::linuxp {

class LineServer::Connection {
public:
    explicit Connection(asio::io_context& context) : socket(context) {}
    asio::local::stream_protocol::socket socket;
    bool closed = false;
    std::array<char, 16 * 1024> chunk{};
    std::string inbox;
    size_t scanned = 0;  // inbox bytes already known to hold no newline
    OutgoingQueue outgoing;
};

struct LineServer::State {
    State(asio::io_context& context) : context(context), acceptor(context), retry(context) {}
    asio::io_context& context;
    std::string name;
    size_t maxLine = 0;
    size_t maxBacklog = 0;
    LineHandler onLine;
    CloseHandler onClose;
    asio::local::stream_protocol::acceptor acceptor;
    asio::steady_timer retry;
    std::vector<ConnectionPtr> connections;
    bool stopped = false;
};

namespace {

// Binds a listening stream socket at the abstract address for `path`; -1 and errno on failure.
int listenAt(const std::string& path) {
    sockaddr_un address;
    const socklen_t length = abstractSocketAddress(path, address);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0 || ::listen(fd, SOMAXCONN) != 0) {
        const int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

}  // namespace

std::shared_ptr<LineServer> LineServer::create(asio::io_context& context, std::string name, size_t maxLine,
                                               size_t maxBacklog, LineHandler onLine, CloseHandler onClose) {
    return std::shared_ptr<LineServer>(
        new LineServer(context, std::move(name), maxLine, maxBacklog, std::move(onLine), std::move(onClose)));
}

LineServer::LineServer(asio::io_context& context, std::string name, size_t maxLine, size_t maxBacklog,
                       LineHandler onLine, CloseHandler onClose)
    : state_(std::make_unique<State>(context)) {
    state_->name = std::move(name);
    state_->maxLine = maxLine;
    state_->maxBacklog = maxBacklog;
    state_->onLine = std::move(onLine);
    state_->onClose = std::move(onClose);
}

LineServer::~LineServer() = default;

bool LineServer::listen(const std::string& path, std::string* error) {
    const int fd = listenAt(path);
    if (fd < 0) {
        const int code = errno;
        if (error)
            *error = "cannot listen at " + path + ": " +
                     (code == EADDRINUSE ? std::string("another device is already running there")
                                         : std::string(std::strerror(code)));
        return false;
    }
    asio::error_code code;
    state_->acceptor.assign(asio::local::stream_protocol(), fd, code);
    if (code) {
        ::close(fd);
        if (error) *error = "cannot listen at " + path + ": " + code.message();
        return false;
    }
    state_->stopped = false;
    startAccept();
    return true;
}

void LineServer::startAccept() {
    auto connection = std::make_shared<Connection>(state_->context);
    state_->acceptor.async_accept(
        connection->socket, [self = shared_from_this(), connection](const asio::error_code& error) {
            State& s = *self->state_;
            if (s.stopped) return;
            if (error) {
                if (error == asio::error::operation_aborted) return;
                // Typically out of descriptors: back off instead of spinning on the failure.
                diagnostic("%s: accept failed: %s", s.name.c_str(), error.message().c_str());
                s.retry.expires_after(std::chrono::milliseconds(100));
                s.retry.async_wait([self](const asio::error_code& timerError) {
                    if (!timerError && !self->state_->stopped) self->startAccept();
                });
                return;
            }
            s.connections.push_back(connection);
            self->startRead(connection);
            self->startAccept();
        });
}

void LineServer::startRead(const ConnectionPtr& connection) {
    connection->socket.async_read_some(
        asio::buffer(connection->chunk),
        [self = shared_from_this(), connection](const asio::error_code& error, size_t count) {
            if (self->state_->stopped || connection->closed) return;
            if (error) {  // end of stream or a broken connection
                self->close(connection);
                return;
            }
            self->received(connection, count);
        });
}

void LineServer::received(const ConnectionPtr& connection, size_t count) {
    State& s = *state_;
    auto& inbox = connection->inbox;
    inbox.append(connection->chunk.data(), count);
    size_t start = 0;
    for (;;) {
        const size_t newline = inbox.find('\n', std::max(start, connection->scanned));
        if (newline == std::string::npos) break;
        if (newline - start > s.maxLine) {
            close(connection);
            return;
        }
        const std::string_view line(inbox.data() + start, newline - start);
        start = newline + 1;
        s.onLine(connection, line);
        if (s.stopped || connection->closed) return;
    }
    inbox.erase(0, start);
    connection->scanned = inbox.size();
    if (inbox.size() > s.maxLine) {  // a line that can no longer end in time
        close(connection);
        return;
    }
    startRead(connection);
}

bool LineServer::send(const ConnectionPtr& connection, std::string_view line) {
    if (connection->closed) return false;
    if (connection->outgoing.backlog() + line.size() + 1 > state_->maxBacklog) {
        diagnostic("%s: dropping a client that stopped reading", state_->name.c_str());
        close(connection);
        return false;
    }
    if (connection->outgoing.push(line, "\n")) startWrite(connection);
    return true;
}

void LineServer::startWrite(const ConnectionPtr& connection) {
    connection->socket.async_write_some(
        asio::buffer(connection->outgoing.data(), connection->outgoing.size()),
        [self = shared_from_this(), connection](const asio::error_code& error, size_t count) {
            if (self->state_->stopped || connection->closed) return;
            if (error) {
                self->close(connection);
                return;
            }
            if (connection->outgoing.wrote(count)) self->startWrite(connection);
        });
}

void LineServer::close(const ConnectionPtr& connection) {
    if (connection->closed) return;
    connection->closed = true;
    asio::error_code ignored;
    connection->socket.close(ignored);
    std::erase(state_->connections, connection);
    if (state_->onClose && !state_->stopped) state_->onClose(connection);
}

bool LineServer::isClosed(const ConnectionPtr& connection) { return connection->closed; }

void LineServer::stop() {
    State& s = *state_;
    s.stopped = true;
    asio::error_code ignored;
    s.acceptor.close(ignored);
    s.retry.cancel();
    for (auto& connection : s.connections) {
        connection->closed = true;
        connection->socket.close(ignored);
    }
    s.connections.clear();
}

}  // namespace tw::linuxp
