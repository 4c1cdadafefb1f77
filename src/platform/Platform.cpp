#include "platform/Platform.h"

namespace tw {

namespace {
Platform& storage() {
    static Platform platform;
    return platform;
}
}  // namespace

Platform& Platform::current() { return storage(); }

void Platform::install(Platform platform) { storage() = std::move(platform); }

}  // namespace tw
