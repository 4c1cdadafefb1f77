#pragma once
// A notification center inside the process: it keeps every post and hands it at once to the
// observers of its name.
#include <map>
#include <string>
#include <vector>

#include "platform/NotificationCenter.h"

namespace tw::test {

struct RecordingNotifications : DistributedNotificationCenter {
    uint64_t addObserver(const std::string& name, Observer observer, RunLoop&) override {
        observers[++lastId] = {name, std::move(observer)};
        return lastId;
    }
    void removeObserver(uint64_t id) override { observers.erase(id); }
    void postNotification(const std::string& name, const NotificationUserInfo& info) override {
        posts.emplace_back(name, info);
        for (auto& [id, observer] : observers)
            if (observer.first == name) observer.second(name, info);
    }
    std::map<uint64_t, std::pair<std::string, Observer>> observers;
    std::vector<std::pair<std::string, NotificationUserInfo>> posts;
    uint64_t lastId = 0;
};

}  // namespace tw::test
