#pragma once
// Key request (message 3): 12 bytes, little-endian, no header.
//   offset 0 int32 usage      HID usage (the injector reads the low 16 bits)
//   offset 4 int32 usagePage  HID usage page (low 16 bits read); scripts always send 12
//   offset 8 int32 down       1 down, 0 up (the injector reads the low byte)
#include <cstdint>
#include <optional>

#include "platform/Bytes.h"

namespace tw {

inline constexpr int32_t kConsumerUsagePage = 12;

struct KeyRecord {
    static constexpr size_t kSize = 12;

    int32_t usage = 0;
    int32_t usagePage = kConsumerUsagePage;
    int32_t down = 0;

    Bytes encode() const;
    // nullopt unless `data` is exactly kSize bytes; fields as sent (not yet masked).
    static std::optional<KeyRecord> decode(const Payload& data);
};

}  // namespace tw
