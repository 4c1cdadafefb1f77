#pragma once
// Option requests (message 5, scale flag; message 6, orientation): one little-endian int32.
#include <cstdint>
#include <optional>

#include "platform/Bytes.h"

namespace tw {

struct OptionRecord {
    static constexpr size_t kSize = 4;

    int32_t value = 0;

    Bytes encode() const;
    // nullopt unless `data` is exactly kSize bytes.
    static std::optional<OptionRecord> decode(const Payload& data);
};

}  // namespace tw
