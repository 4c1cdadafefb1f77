#include "injection/records/OptionRecord.h"

namespace tw {

Bytes OptionRecord::encode() const {
    Bytes out(kSize);
    putLE<int32_t>(out, 0, value);
    return out;
}

std::optional<OptionRecord> OptionRecord::decode(const Payload& data) {
    if (!data || data->size() != kSize) return std::nullopt;
    return OptionRecord{getLE<int32_t>(data->data(), 0)};
}

}  // namespace tw
