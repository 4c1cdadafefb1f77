// The virtual HID system's two line sockets. The first byte picks the socket (even: hardware, odd:
// hub); the rest is cut into lines at '\n' as the socket reader cuts them.
#include <nlohmann/json.hpp>

#include "FuzzSupport.h"
#include "FuzzTarget.h"

TW_FUZZ_TARGET(hid_lines) {
    using namespace tw;
    if (size == 0) return 0;
    const bool hub = data[0] & 1;
    const std::string_view text = fuzz::textOf(data + 1, size - 1);
    fuzz::InjectorRig rig;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view line = text.substr(start, end - start);
        start = end + 1;
        if (line.size() > device::kMaxHidLine) continue;  // the reader closes the connection first
        if (hub) {
            const auto request = device::parseHubLine(line);
            if (request.kind == device::HubRequest::Publish) {
                const auto object = nlohmann::json::parse(request.traceLine, nullptr, false);
                FUZZ_CHECK(!object.is_discarded() && object.is_object());
            }
        } else {
            const size_t before = rig.traceLines;
            const uint64_t bad = rig.system.badInputCount();
            const bool handled = rig.system.hardwareLine(line);
            FUZZ_CHECK(rig.traceLines == before + (handled ? 1 : 0));
            FUZZ_CHECK(rig.system.badInputCount() == bad + (handled ? 0 : 1));
        }
    }
    return 0;
}
