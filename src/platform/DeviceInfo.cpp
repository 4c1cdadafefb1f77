#include "platform/DeviceInfo.h"

#include <cstdint>
#include <limits>
#include <vector>

namespace tw {

namespace {

// Splits "9.3b2.1" into {9, 3, 1}: each dot-separated component counts by its leading digits
// only ("3b2" is 3, "beta" is 0); values too large to hold saturate.
std::vector<uint64_t> versionComponents(const std::string& text) {
    std::vector<uint64_t> parts;
    size_t i = 0;
    while (true) {
        uint64_t value = 0;
        while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
            const uint64_t d = static_cast<uint64_t>(text[i] - '0');
            value = value > (std::numeric_limits<uint64_t>::max() - d) / 10
                        ? std::numeric_limits<uint64_t>::max()
                        : value * 10 + d;
            ++i;
        }
        parts.push_back(value);
        while (i < text.size() && text[i] != '.') ++i;  // ignore the component's tail
        if (i >= text.size()) break;
        ++i;  // the dot
    }
    return parts;
}

}  // namespace

// Missing components count as 0, so "9" == "9.0" == "9.0.0". Returns -1, 0 or 1.
int compareVersions(const std::string& a, const std::string& b) {
    const auto pa = versionComponents(a);
    const auto pb = versionComponents(b);
    const size_t n = pa.size() > pb.size() ? pa.size() : pb.size();
    for (size_t i = 0; i < n; ++i) {
        const uint64_t x = i < pa.size() ? pa[i] : 0;
        const uint64_t y = i < pb.size() ? pb[i] : 0;
        if (x != y) return x < y ? -1 : 1;
    }
    return 0;
}

}  // namespace tw
