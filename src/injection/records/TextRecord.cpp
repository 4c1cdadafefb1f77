#include "injection/records/TextRecord.h"

#include <algorithm>

namespace tw {

std::optional<TextRecord> TextRecord::decode(const Payload& data) {
    if (!data || data->empty()) return std::nullopt;
    auto end = std::find(data->begin(), data->end(), uint8_t{0});
    return TextRecord{std::string(data->begin(), end)};
}

}  // namespace tw
