#pragma once
// The information dictionaries of the installed application bundles.
#include <optional>
#include <string>

namespace tw {

class BundleInfo {
public:
    virtual ~BundleInfo() = default;
    // The text value of `key` in the information dictionary of the bundle with identifier
    // `bundleIdentifier`; null when no such bundle is installed or the value is not text.
    virtual std::optional<std::string> infoDictionaryString(const std::string& bundleIdentifier,
                                                            const std::string& key) const = 0;
};

}  // namespace tw
