#include "platform/linux/UnixNotificationCenter.h"
#include "core/Diagnostics.h"

#include <fcntl.h>
#include <plist/plist.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>
#include <vector>

#include <asio/local/datagram_protocol.hpp>
#include <asio/steady_timer.hpp>

#include "core/Plist.h"
#include "platform/linux/AsioRunLoop.h"
#include "platform/linux/UnixMessagePorts.h"

// Threading: addObserver/removeObserver/postNotification may be called from any thread. Each
// observer has a Receiver that reads its socket on the observer's loop. As with message ports,
// socket operations are started and the socket closed only under the receiver's ioMutex_, and the
// observer runs under its dispatchMutex_ (recursive, so an observer may remove itself), so a
// removal from another thread waits for a running call and no call starts after it returns.
//
// An observer's socket belongs to its loop's io_context: a loop owned by a shared_ptr is kept
// alive by its observers; any other loop must outlive them (remove them, or destroy the center,
// first).
//
// Texts travel as property-list strings, which end at the first NUL character.

namespace tw::linuxp {

namespace {

// Largest datagram a post sends. Well below what a Unix datagram socket accepts with default
// buffers, so a notification is either delivered whole or not sent at all.
constexpr size_t kMaxPayload = 60 * 1024;
// One byte more than the largest payload: anything that fills the buffer was truncated.
constexpr size_t kReceiveBuffer = kMaxPayload + 1;
constexpr auto kReceiveRetryDelay = std::chrono::milliseconds(100);

constexpr const char* kNameKey = "name";
constexpr const char* kUserInfoKey = "userInfo";

// Markers of every center in the process share one counter, so two centers on the same folder
// never pick the same marker name.
std::atomic<uint64_t> gNextSerial{1};

void report(const std::string& name, const std::string& what) {
    diagnostic("notification '%s': %s", name.c_str(), what.c_str());
}

// Names become folder names.
bool isUsableName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

// "<pid>.<serial>", both decimal.
bool isMarkerName(std::string_view file) {
    const size_t dot = file.find('.');
    if (dot == 0 || dot == std::string_view::npos || dot + 1 == file.size()) return false;
    for (size_t i = 0; i < file.size(); ++i)
        if (i != dot && (file[i] < '0' || file[i] > '9')) return false;
    return true;
}


std::string normalizedDir(std::string dir) {
    // Every process must derive the same socket address from a marker, so the folder is spelled
    // the same way whatever form the caller used.
    std::error_code error;
    auto absolute = std::filesystem::absolute(dir, error);
    if (!error) dir = absolute.lexically_normal().string();
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    return dir;
}

std::vector<char> encode(const std::string& name, const NotificationUserInfo& userInfo) {
    PlistHandle root(plist_new_dict());
    plist_dict_set_item(root.get(), kNameKey, plist_new_string(name.c_str()));
    plist_t info = plist_new_dict();
    for (const auto& [key, value] : userInfo) plist_dict_set_item(info, key.c_str(), plist_new_string(value.c_str()));
    plist_dict_set_item(root.get(), kUserInfoKey, info);

    const auto bytes = plistToBinary(root.get());
    return bytes ? std::vector<char>(bytes->begin(), bytes->end()) : std::vector<char>{};
}

}  // namespace

std::optional<Notification> decodeNotification(const uint8_t* data, size_t size) {
    static constexpr char kMagic[] = "bplist00";
    if (size < sizeof kMagic - 1 || size > kMaxPayload || std::memcmp(data, kMagic, sizeof kMagic - 1) != 0)
        return std::nullopt;
    PlistHandle root = parsePlist(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!isPlistDict(root.get())) return std::nullopt;

    plist_t nameNode = plist_dict_get_item(root.get(), kNameKey);
    if (!nameNode || plist_get_node_type(nameNode) != PLIST_STRING) return std::nullopt;
    Notification note;
    note.name = plistString(nameNode).value_or("");

    plist_t info = plist_dict_get_item(root.get(), kUserInfoKey);
    if (!info) return note;
    const bool read = forEachPlistDictItem(info, [&](const char* key, plist_t value) {
        if (key && plist_get_node_type(value) == PLIST_STRING) note.userInfo[key] = plistString(value).value_or("");
        return true;
    });
    if (!read) return std::nullopt;
    return note;
}

namespace {

// Reads one observer's socket on its loop and calls the observer.
class Receiver : public std::enable_shared_from_this<Receiver> {
public:
    Receiver(asio::io_context& context, std::string name, DistributedNotificationCenter::Observer observer)
        : name_(std::move(name)), observer_(std::move(observer)), socket_(context), retryTimer_(context),
          buffer_(kReceiveBuffer) {}

    // Takes over a bound datagram socket and starts reading.
    bool start(int fd) {
        std::lock_guard lock(ioMutex_);
        asio::error_code error;
        socket_.assign(asio::local::datagram_protocol(), fd, error);
        if (error) {
            ::close(fd);
            active_ = false;
            return false;
        }
        startReceiveLocked();
        return true;
    }

    // Any thread. Waits for a call running on another thread; none starts after this returns.
    void stop() {
        // Cleared before waiting: otherwise the loop thread, busy with a queue of datagrams, could
        // keep winning the dispatch lock and hold the caller here indefinitely.
        active_ = false;
        std::lock_guard dispatch(dispatchMutex_);
        std::lock_guard io(ioMutex_);
        if (closed_) return;
        closed_ = true;
        asio::error_code ignored;
        socket_.close(ignored);
        retryTimer_.cancel();
    }

private:
    void startReceiveLocked() {
        socket_.async_receive(asio::buffer(buffer_),
                              [self = shared_from_this()](const asio::error_code& error, size_t count) {
                                  self->received(error, count);
                              });
    }

    void received(const asio::error_code& error, size_t count) {
        {
            std::lock_guard lock(ioMutex_);
            if (!active_ || error == asio::error::operation_aborted) return;
            if (error) {
                // Not expected on a bound datagram socket (perhaps short of memory): back off
                // rather than spin on it.
                report(name_, "receive failed: " + error.message());
                retryTimer_.expires_after(kReceiveRetryDelay);
                retryTimer_.async_wait([self = shared_from_this()](const asio::error_code& timerError) {
                    if (timerError) return;
                    std::lock_guard relock(self->ioMutex_);
                    if (self->active_) self->startReceiveLocked();
                });
                return;
            }
        }
        // buffer_ is only touched here, on the loop thread, while no receive is pending.
        if (auto note = decodeNotification(buffer_.data(), count); note && note->name == name_) deliver(*note);

        std::lock_guard lock(ioMutex_);
        if (active_) startReceiveLocked();
    }

    void deliver(const Notification& note) {
        std::lock_guard lock(dispatchMutex_);
        if (!active_) return;
        try {
            observer_(note.name, note.userInfo);
        } catch (const std::exception& e) {
            report(name_, std::string("observer failed: ") + e.what());
        } catch (...) {
            report(name_, "observer failed with an unknown exception");
        }
    }

    const std::string name_;
    const DistributedNotificationCenter::Observer observer_;
    std::atomic<bool> active_{true};
    std::recursive_mutex dispatchMutex_;
    std::mutex ioMutex_;
    bool closed_ = false;  // under ioMutex_
    asio::local::datagram_protocol::socket socket_;
    asio::steady_timer retryTimer_;
    std::vector<uint8_t> buffer_;
};

}  // namespace

struct UnixNotificationCenter::Registration {
    // Keeps a shared loop alive as long as the socket; declared first, released last.
    std::shared_ptr<RunLoop> loop;
    std::shared_ptr<Receiver> receiver;
    std::string marker;

    // The marker goes first, so posts stop finding it before the socket closes.
    void retire() {
        ::unlink(marker.c_str());
        receiver->stop();
    }
};

UnixNotificationCenter::UnixNotificationCenter(std::string notifyDir) : notifyDir_(normalizedDir(std::move(notifyDir))) {}

UnixNotificationCenter::~UnixNotificationCenter() {
    std::unordered_map<uint64_t, std::shared_ptr<Registration>> all;
    {
        std::lock_guard lock(mutex_);
        all.swap(registrations_);
    }
    for (auto& [id, registration] : all) registration->retire();
}

uint64_t UnixNotificationCenter::addObserver(const std::string& name, Observer observer, RunLoop& loop) {
    if (!isUsableName(name) || !observer) return 0;
    auto* asioLoop = dynamic_cast<AsioRunLoop*>(&loop);
    if (!asioLoop) return 0;

    const std::string folder = notifyDir_ + "/" + name;
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) return 0;
    const std::string marker =
        folder + "/" + std::to_string(::getpid()) + "." + std::to_string(gNextSerial.fetch_add(1));

    // Bound before the marker appears, so a concurrent post never takes the new marker for the
    // leftover of a dead process.
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return 0;
    sockaddr_un address;
    const socklen_t length = abstractSocketAddress(marker, address);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        ::close(fd);
        return 0;
    }
    const int markerFd = ::open(marker.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (markerFd < 0) {
        ::close(fd);
        return 0;
    }
    ::close(markerFd);

    auto registration = std::make_shared<Registration>();
    registration->loop = asioLoop->weak_from_this().lock();
    registration->receiver = std::make_shared<Receiver>(asioLoop->context(), name, std::move(observer));
    registration->marker = marker;
    if (!registration->receiver->start(fd)) {
        ::unlink(marker.c_str());
        return 0;
    }

    std::lock_guard lock(mutex_);
    const uint64_t id = nextId_++;
    registrations_.emplace(id, std::move(registration));
    return id;
}

void UnixNotificationCenter::removeObserver(uint64_t id) {
    std::shared_ptr<Registration> registration;
    {
        std::lock_guard lock(mutex_);
        auto it = registrations_.find(id);
        if (it == registrations_.end()) return;
        registration = std::move(it->second);
        registrations_.erase(it);
    }
    // Outside mutex_: this may wait for a running observer, which may itself add or remove one.
    registration->retire();
}

void UnixNotificationCenter::postNotification(const std::string& name, const NotificationUserInfo& userInfo) {
    if (!isUsableName(name)) return;
    const std::string folder = notifyDir_ + "/" + name;

    std::vector<std::string> markers;
    std::error_code error;
    for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        const std::string file = it->path().filename().string();
        if (isMarkerName(file)) markers.push_back(folder + "/" + file);
    }

    const std::vector<char> payload = encode(name, userInfo);
    if (payload.empty()) {
        report(name, "could not be encoded; not posted");
        return;
    }
    if (payload.size() > kMaxPayload) {
        report(name, "user info too large (" + std::to_string(payload.size()) + " bytes encoded, at most " +
                         std::to_string(kMaxPayload) + "); not posted");
        return;
    }

    for (const auto& marker : markers) {
        // A socket per recipient: a datagram is charged to the socket that sent it until it is
        // read, so a shared socket would run out of room after a few large datagrams queued at
        // slow readers, and look like a full reader to every recipient after them.
        const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            report(name, std::string("no socket to post with: ") + std::strerror(errno));
            return;
        }
        sockaddr_un address;
        const socklen_t length = abstractSocketAddress(marker, address);
        ssize_t sent;
        do {
            sent = ::sendto(fd, payload.data(), payload.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                            reinterpret_cast<const sockaddr*>(&address), length);
        } while (sent < 0 && errno == EINTR);
        const int sendError = sent < 0 ? errno : 0;
        ::close(fd);

        if (sendError == ECONNREFUSED || sendError == ENOENT) {
            ::unlink(marker.c_str());  // nobody reads there: the observer's process is gone
        } else if (sendError != 0 && sendError != EAGAIN && sendError != EWOULDBLOCK) {
            report(name, "could not reach " + marker + ": " + std::strerror(sendError));
        }
        // EAGAIN: the reader's queue is full; this one datagram is dropped.
    }
}

}  // namespace tw::linuxp
