#include "injection/records/KeyRecord.h"

namespace tw {

Bytes KeyRecord::encode() const {
    Bytes out(kSize);
    putLE<int32_t>(out, 0, usage);
    putLE<int32_t>(out, 4, usagePage);
    putLE<int32_t>(out, 8, down);
    return out;
}

std::optional<KeyRecord> KeyRecord::decode(const Payload& data) {
    if (!data || data->size() != kSize) return std::nullopt;
    const uint8_t* p = data->data();
    return KeyRecord{getLE<int32_t>(p, 0), getLE<int32_t>(p, 4), getLE<int32_t>(p, 8)};
}

}  // namespace tw
