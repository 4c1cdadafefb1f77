#pragma once
// Distributed notifications over Unix datagram sockets.
//
// Every observer of name N registers a marker file "<root>/run/notify/<N>/<pid>.<serial>" and binds
// a datagram socket at the abstract address derived from that marker's path. A post lists the
// folder and sends one datagram to each marker's address; a marker whose socket refuses (its
// process is gone) is removed. Datagram: a binary property list, a dictionary with the key "name"
// (text) and the key "userInfo" (a dictionary of texts). Datagrams that do not parse, or that name
// another notification, are dropped.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <mutex>
#include <string>
#include <unordered_map>

#include "platform/NotificationCenter.h"

namespace tw::linuxp {

struct Notification {
    std::string name;
    NotificationUserInfo userInfo;
};

// A received datagram: a dictionary with a text "name" and, optionally, a dictionary "userInfo";
// entries of userInfo that are not texts are left out. Anything else is nullopt.
std::optional<Notification> decodeNotification(const uint8_t* data, size_t size);

class UnixNotificationCenter : public DistributedNotificationCenter {
public:
    // `notifyDir` is "<root>/run/notify".
    explicit UnixNotificationCenter(std::string notifyDir);
    ~UnixNotificationCenter() override;

    uint64_t addObserver(const std::string& name, Observer observer, RunLoop& loop) override;
    void removeObserver(uint64_t id) override;
    void postNotification(const std::string& name, const NotificationUserInfo& userInfo) override;

private:
    struct Registration;
    std::string notifyDir_;
    std::mutex mutex_;
    std::unordered_map<uint64_t, std::shared_ptr<Registration>> registrations_;
    uint64_t nextId_ = 1;
};

}  // namespace tw::linuxp
