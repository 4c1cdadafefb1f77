#pragma once
// A user-defaults domain: typed values by key, kept across runs.
#include <cstdint>
#include <optional>
#include <string>
#include <variant>

namespace tw {

using DefaultsValue = std::variant<bool, int64_t, double, std::string>;

class UserDefaults {
public:
    virtual ~UserDefaults() = default;
    // Reads never fail loudly: a value that cannot be read is absent.
    virtual std::optional<DefaultsValue> objectForKey(const std::string& key) = 0;
    // False when the value could not be stored (an unwritable or full disk): the caller decides
    // what the user hears of it; nothing is thrown.
    virtual bool setObject(const std::string& key, const DefaultsValue& value) = 0;
    virtual bool removeObjectForKey(const std::string& key) = 0;

    // Typed reads with the platform's conversions: numbers and the texts "YES"/"true"/a non-zero
    // number read as true; a missing or unconvertible value reads as false / 0 / 0.0 / nullopt.
    bool boolForKey(const std::string& key);
    int64_t integerForKey(const std::string& key);
    double doubleForKey(const std::string& key);
    std::optional<std::string> stringForKey(const std::string& key);

    bool setBool(const std::string& key, bool v) { return setObject(key, DefaultsValue{v}); }
    bool setInteger(const std::string& key, int64_t v) { return setObject(key, DefaultsValue{v}); }
    bool setDouble(const std::string& key, double v) { return setObject(key, DefaultsValue{v}); }
    bool setString(const std::string& key, const std::string& v) { return setObject(key, DefaultsValue{v}); }
};

}  // namespace tw
