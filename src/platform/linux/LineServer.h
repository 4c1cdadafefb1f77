#pragma once
// A server of text lines on a local stream socket at an abstract address (abstractSocketName of a
// path), on a run loop's io_context. Each connection's lines (newline-terminated, at most maxLine
// bytes) reach the line handler one at a time and in order; a longer line closes its connection.
// Lines sent back are queued per connection and written one async write at a time; a connection
// whose unsent bytes would pass maxBacklog is closed (a reader that stopped reading). Everything
// runs on the loop's thread; after stop() no handler is called.
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <asio/io_context.hpp>

namespace tw::linuxp {

class LineServer : public std::enable_shared_from_this<LineServer> {
public:
    class Connection;
    using ConnectionPtr = std::shared_ptr<Connection>;
    using LineHandler = std::function<void(const ConnectionPtr&, std::string_view line)>;
    using CloseHandler = std::function<void(const ConnectionPtr&)>;

    // `name` names the server in diagnostics ("hub", "control").
    static std::shared_ptr<LineServer> create(asio::io_context& context, std::string name, size_t maxLine,
                                              size_t maxBacklog, LineHandler onLine, CloseHandler onClose = {});
    ~LineServer();

    // Listens at the abstract address of `path`. False, with a clear reason in `error` (another
    // device listening there, say), when it cannot.
    bool listen(const std::string& path, std::string* error);
    // Queues `line` and a newline for the connection; false when it is closed or was just closed
    // for falling too far behind.
    bool send(const ConnectionPtr& connection, std::string_view line);
    void close(const ConnectionPtr& connection);
    static bool isClosed(const ConnectionPtr& connection);
    // Closes the listening socket and every connection.
    void stop();

private:
    LineServer(asio::io_context& context, std::string name, size_t maxLine, size_t maxBacklog, LineHandler onLine,
               CloseHandler onClose);
    void startAccept();
    void startRead(const ConnectionPtr& connection);
    void received(const ConnectionPtr& connection, size_t count);
    void startWrite(const ConnectionPtr& connection);

    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace tw::linuxp
