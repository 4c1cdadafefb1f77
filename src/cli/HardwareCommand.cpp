// tapwright hardware: a person's fingers and buttons on a running device, as real input.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli/Commands.h"
#include "core/Diagnostics.h"
#include "roles/DeviceAccess.h"

namespace tw::cli {

namespace {

using Lines = std::vector<device::TimedHardwareLine>;
using std::chrono::milliseconds;

// A swipe moves the finger once a frame.
constexpr int64_t kSwipeFrameMs = 16;

struct HardwareOptions {
    std::string phase;
    int64_t finger = 1;
    double x = 0, y = 0, x2 = 0, y2 = 0;
    std::string button;
    int64_t usagePage = 12;
    bool downOnly = false;
    bool upOnly = false;
    // Each subcommand its own: CLI11 stores a default as soon as it is declared.
    int64_t tapMs = 50, swipeMs = 300, buttonMs = 0;
};

int64_t buttonUsage(const std::string& button) {
    if (button == "home") return 0x40;
    if (button == "power") return 0x30;
    if (button == "volume-up") return 0xE9;
    if (button == "volume-down") return 0xEA;
    size_t used = 0;
    const long long usage = std::stoll(button, &used, 0);
    if (used != button.size()) throw std::invalid_argument(button);
    return usage;
}

std::string touchLine(const std::string& phase, int64_t finger, double x, double y) {
    return nlohmann::json{{"kind", "touch"}, {"phase", phase}, {"finger", finger}, {"x", x}, {"y", y}}.dump();
}

// Down at the start, a move every frame along the line, the last one at the end point after `ms`,
// then up there.
Lines swipeLines(const HardwareOptions& o) {
    Lines lines{{milliseconds(0), touchLine("down", o.finger, o.x, o.y)}};
    const int64_t ms = o.swipeMs, steps = std::max<int64_t>(1, ms / kSwipeFrameMs);
    for (int64_t i = 1; i <= steps; ++i) {
        const double t = static_cast<double>(i) / static_cast<double>(steps);
        lines.push_back({milliseconds(ms * i / steps),
                         touchLine("move", o.finger, o.x + (o.x2 - o.x) * t, o.y + (o.y2 - o.y) * t)});
    }
    lines.push_back({milliseconds(ms), touchLine("up", o.finger, o.x2, o.y2)});
    return lines;
}

CLI::App* addRootOption(CLI::App* sub, CommonOptions& common) {
    sub->add_option("--root", common.root, "Device root folder");
    return sub;
}

}  // namespace

Command addHardwareCommand(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<HardwareOptions>();
    auto* sub = app.add_subcommand("hardware", "Press the running device's screen or buttons as a person would");
    sub->require_subcommand(1);
    sub->footer(
        "Real input: the device dispatches it like a person's finger or button, so a script's held\n"
        "fingers are forgotten when a real touch arrives, a recording records it, and buttons fire\n"
        "trigger events (volume: a press under 400 ms, a short hold at 400 ms, a long hold at 1500 ms;\n"
        "lock: a press; home: two presses within 350 ms). Coordinates are portrait screen pixels.");

    auto* touch = addRootOption(sub->add_subcommand("touch", "One finger event: down, move or up at X Y"), common);
    touch->add_option("phase", options->phase, "down, move or up")->required()->check(CLI::IsMember({"down", "move", "up"}));
    touch->add_option("finger", options->finger, "Finger number")->required()->check(CLI::NonNegativeNumber);
    touch->add_option("x", options->x, "X in pixels")->required();
    touch->add_option("y", options->y, "Y in pixels")->required();

    auto* tap = addRootOption(sub->add_subcommand("tap", "Finger 1 down at X Y, held --ms milliseconds, then up"), common);
    tap->add_option("x", options->x, "X in pixels")->required();
    tap->add_option("y", options->y, "Y in pixels")->required();
    tap->add_option("--ms", options->tapMs, "How long the finger stays down")->capture_default_str()->check(CLI::NonNegativeNumber);

    auto* swipe = addRootOption(
        sub->add_subcommand("swipe", "Finger 1 down at X1 Y1, moved to X2 Y2 over --ms milliseconds, then up"), common);
    swipe->add_option("x1", options->x, "Start X in pixels")->required();
    swipe->add_option("y1", options->y, "Start Y in pixels")->required();
    swipe->add_option("x2", options->x2, "End X in pixels")->required();
    swipe->add_option("y2", options->y2, "End Y in pixels")->required();
    swipe->add_option("--ms", options->swipeMs, "How long the move takes (a move every 16 ms)")
        ->capture_default_str()
        ->check(CLI::NonNegativeNumber);

    auto* press = addRootOption(
        sub->add_subcommand("button", "Press a button: down then up (held --ms milliseconds), or only --down / --up"),
        common);
    press->add_option("button", options->button, "home, power, volume-up, volume-down, or a usage number")->required();
    CLI::Option* downOnly = press->add_flag("--down", options->downOnly, "Only press it down");
    CLI::Option* upOnly = press->add_flag("--up", options->upOnly, "Only let it up");
    CLI::Option* held = press->add_option("--ms", options->buttonMs, "How long the button stays down")->check(CLI::NonNegativeNumber);
    downOnly->excludes(upOnly);
    held->excludes(downOnly)->excludes(upOnly);
    press->add_option("--page", options->usagePage, "HID usage page")->capture_default_str();

    return {sub, [&common, options, touch, tap, swipe]() -> int {
                const std::string root = deviceRoot(common);
                const auto& o = *options;
                if (touch->parsed()) {
                    roles::sendHardwareInput(root, {{milliseconds(0), touchLine(o.phase, o.finger, o.x, o.y)}});
                    return 0;
                }
                if (tap->parsed()) {
                    roles::sendHardwareInput(root, {{milliseconds(0), touchLine("down", 1, o.x, o.y)},
                                                    {milliseconds(o.tapMs), touchLine("up", 1, o.x, o.y)}});
                    return 0;
                }
                if (swipe->parsed()) {
                    roles::sendHardwareInput(root, swipeLines(o));
                    return 0;
                }
                int64_t usage = 0;
                try {
                    usage = buttonUsage(o.button);
                } catch (const std::exception&) {
                    fail("unknown button '" + o.button + "'", 2);
                }
                auto line = [&](bool down) {
                    return nlohmann::json{{"kind", "button"}, {"usage", usage}, {"usagePage", o.usagePage}, {"down", down}}.dump();
                };
                Lines lines;
                if (!o.upOnly) lines.push_back({milliseconds(0), line(true)});
                if (!o.downOnly) lines.push_back({milliseconds(o.buttonMs), line(false)});
                roles::sendHardwareInput(root, lines);
                return 0;
            }};
}

}  // namespace tw::cli
