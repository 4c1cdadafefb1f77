#pragma once
// Distributed notifications: a name with a dictionary of texts, posted to every observer of that
// name in every process of the device. Observers are called on the run loop they registered with.
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace tw {

class RunLoop;

using NotificationUserInfo = std::map<std::string, std::string>;

class DistributedNotificationCenter {
public:
    virtual ~DistributedNotificationCenter() = default;

    using Observer = std::function<void(const std::string& name, const NotificationUserInfo& userInfo)>;
    // Registers an observer; the returned id removes it. 0 when it could not be registered.
    virtual uint64_t addObserver(const std::string& name, Observer observer, RunLoop& loop) = 0;
    virtual void removeObserver(uint64_t id) = 0;
    virtual void postNotification(const std::string& name, const NotificationUserInfo& userInfo) = 0;
};

}  // namespace tw
