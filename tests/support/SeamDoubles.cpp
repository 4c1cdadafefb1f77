#include "SeamDoubles.h"

namespace tw::test {

void FakeSleeper::sleepMicroseconds(uint64_t microseconds) {
    std::function<void(uint64_t)> hook;
    {
        std::lock_guard lock(mutex_);
        sleeps_.push_back(microseconds);
        hook = hook_;
    }
    if (hook) hook(microseconds);
}

std::vector<uint64_t> FakeSleeper::sleeps() const {
    std::lock_guard lock(mutex_);
    return sleeps_;
}

void FakeSleeper::setHook(std::function<void(uint64_t)> hook) {
    std::lock_guard lock(mutex_);
    hook_ = std::move(hook);
}

void FakeSleeper::clear() {
    std::lock_guard lock(mutex_);
    sleeps_.clear();
}

}  // namespace tw::test
