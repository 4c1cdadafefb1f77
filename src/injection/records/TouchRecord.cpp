#include "injection/records/TouchRecord.h"

namespace tw {

Bytes TouchRecord::encode() const {
    Bytes out(kSize);
    putLE<int32_t>(out, 0, type);
    putLE<int32_t>(out, 4, finger);
    putLE<double>(out, 8, x);
    putLE<double>(out, 16, y);
    return out;
}

std::optional<TouchRecord> TouchRecord::decode(const Payload& data) {
    if (!data || data->size() != kSize) return std::nullopt;
    const uint8_t* p = data->data();
    return TouchRecord{getLE<int32_t>(p, 0), getLE<int32_t>(p, 4), getLE<double>(p, 8), getLE<double>(p, 16)};
}

}  // namespace tw
