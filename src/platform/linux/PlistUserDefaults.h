#pragma once
// A user-defaults domain kept as a binary property list file (one per domain), read on every
// access so that every process of a device sees the same values, and replaced atomically on
// every write.
#include <string>

#include "platform/UserDefaults.h"

namespace tw::linuxp {

class PlistUserDefaults : public UserDefaults {
public:
    // `file` is "<root>/var/mobile/Library/Preferences/<domain>.plist".
    explicit PlistUserDefaults(std::string file);

    std::optional<DefaultsValue> objectForKey(const std::string& key) override;
    void setObject(const std::string& key, const DefaultsValue& value) override;
    void removeObjectForKey(const std::string& key) override;

    const std::string& file() const { return file_; }

private:
    std::string file_;
};

}  // namespace tw::linuxp
