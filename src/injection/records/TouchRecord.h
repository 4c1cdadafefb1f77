#pragma once
// Touch request (message 2): 24 bytes, little-endian, no header.
//   offset 0  int32   type    1 down, 0 move, 2 up
//   offset 4  int32   finger  the script's finger id
//   offset 8  float64 x       portrait pixels, or points when the scale flag is on
//   offset 16 float64 y
#include <cstdint>
#include <optional>

#include "platform/Bytes.h"

namespace tw {

enum TouchType : int32_t { kTouchMove = 0, kTouchDown = 1, kTouchUp = 2 };

struct TouchRecord {
    static constexpr size_t kSize = 24;

    int32_t type = kTouchMove;
    int32_t finger = 0;
    double x = 0;
    double y = 0;

    Bytes encode() const;
    // nullopt unless `data` is exactly kSize bytes.
    static std::optional<TouchRecord> decode(const Payload& data);
};

}  // namespace tw
