#pragma once
// Byte buffers and little-endian field access shared by the wire records.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

namespace tw {

using Bytes = std::vector<uint8_t>;

// A message payload: absent (null data) is not the same as present and empty.
using Payload = std::optional<Bytes>;

template <typename T>
inline void putLE(Bytes& out, size_t offset, T value) {
    static_assert(std::is_trivially_copyable_v<T>);
    // The records are little-endian; so are the hosts we build for.
    std::memcpy(out.data() + offset, &value, sizeof(T));
}

template <typename T>
inline T getLE(const uint8_t* data, size_t offset) {
    static_assert(std::is_trivially_copyable_v<T>);
    T value;
    std::memcpy(&value, data + offset, sizeof(T));
    return value;
}

}  // namespace tw
