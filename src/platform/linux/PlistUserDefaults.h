#pragma once
// A user-defaults domain kept as a binary property list file (one per domain), read on every
// access so that every process of a device sees the same values, and replaced atomically on
// every write.
#include <plist/plist.h>

#include <functional>
#include <mutex>
#include <string>

#include "platform/UserDefaults.h"

namespace tw::linuxp {

class PlistUserDefaults : public UserDefaults {
public:
    // `file` is "<root>/var/mobile/Library/Preferences/<domain>.plist".
    explicit PlistUserDefaults(std::string file);

    std::optional<DefaultsValue> objectForKey(const std::string& key) override;
    // False, with the reason in lastError(), when the domain file cannot be written.
    bool setObject(const std::string& key, const DefaultsValue& value) override;
    bool removeObjectForKey(const std::string& key) override;
    std::string lastError() const;

    const std::string& file() const { return file_; }

private:
    bool update(const std::function<bool(plist_t)>& change);

    std::string file_;
    mutable std::mutex errorMutex_;
    std::string lastError_;
};

}  // namespace tw::linuxp
