#pragma once
// Sleeping on the play's worker thread. Tests install a sleeper that records instead of waiting.
#include <cstdint>

namespace tw {

class Sleeper {
public:
    virtual ~Sleeper() = default;
    virtual void sleepMicroseconds(uint64_t microseconds) = 0;
};

}  // namespace tw
