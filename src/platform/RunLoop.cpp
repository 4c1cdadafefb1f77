#include "platform/RunLoop.h"

#include <mutex>
#include <stdexcept>
#include <utility>

namespace tw {

namespace {

struct MainLoopSlot {
    std::mutex mutex;
    std::shared_ptr<RunLoop> loop;
};

// Never destroyed: the main loop must not be torn down by static destructors at exit, after
// things its queued handlers refer to are already gone.
MainLoopSlot& mainSlot() {
    static auto* slot = new MainLoopSlot;
    return *slot;
}

}  // namespace

RunLoop& RunLoop::main() {
    auto& slot = mainSlot();
    std::lock_guard lock(slot.mutex);
    if (!slot.loop)
        throw std::logic_error("RunLoop::main(): no main run loop is installed; call RunLoop::setMain() at start-up");
    return *slot.loop;
}

void RunLoop::setMain(std::shared_ptr<RunLoop> loop) {
    auto& slot = mainSlot();
    std::shared_ptr<RunLoop> previous;
    {
        std::lock_guard lock(slot.mutex);
        previous = std::exchange(slot.loop, std::move(loop));
    }
    // `previous` is released here, outside the lock.
}

bool RunLoop::hasMain() {
    auto& slot = mainSlot();
    std::lock_guard lock(slot.mutex);
    return slot.loop != nullptr;
}

}  // namespace tw
