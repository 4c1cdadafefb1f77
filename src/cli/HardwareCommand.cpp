// tapwright hardware: a person's fingers and buttons on a running device, as real input.
#include <nlohmann/json.hpp>

#include "cli/Commands.h"
#include "core/Diagnostics.h"
#include "roles/DeviceAccess.h"

namespace tw::cli {

namespace {

struct HardwareOptions {
    std::string phase;
    int64_t finger = 1;
    double x = 0, y = 0;
    std::string button;
    int64_t usagePage = 12;
    bool downOnly = false;
    bool upOnly = false;
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

int sendLines(const CommonOptions& common, const std::vector<nlohmann::json>& lines) {
    std::vector<std::string> text;
    for (const auto& line : lines) text.push_back(line.dump());
    roles::sendHardwareInput(deviceRoot(common), text);
    return 0;
}

}  // namespace

Command addHardwareCommand(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<HardwareOptions>();
    auto* sub = app.add_subcommand("hardware", "Press the running device's screen or buttons as a person would");
    sub->require_subcommand(1);
    sub->footer(
        "Real input: the device dispatches it like a person's finger or button, so a script's held\n"
        "fingers are forgotten when a real touch arrives. Coordinates are portrait screen pixels.");

    auto* touch = sub->add_subcommand("touch", "One finger event: down, move or up at X Y");
    touch->add_option("phase", options->phase, "down, move or up")->required()->check(CLI::IsMember({"down", "move", "up"}));
    touch->add_option("finger", options->finger, "Finger number")->required()->check(CLI::NonNegativeNumber);
    touch->add_option("x", options->x, "X in pixels")->required();
    touch->add_option("y", options->y, "Y in pixels")->required();
    touch->add_option("--root", common.root, "Device root folder");

    auto* press = sub->add_subcommand("button", "Press a button: down then up, or only --down / --up");
    press->add_option("button", options->button, "home, power, volume-up, volume-down, or a usage number")->required();
    CLI::Option* downOnly = press->add_flag("--down", options->downOnly, "Only press it down");
    CLI::Option* upOnly = press->add_flag("--up", options->upOnly, "Only let it up");
    downOnly->excludes(upOnly);
    press->add_option("--page", options->usagePage, "HID usage page")->capture_default_str();
    press->add_option("--root", common.root, "Device root folder");

    return {sub, [&common, options, touch]() -> int {
                if (touch->parsed())
                    return sendLines(common, {{{"kind", "touch"}, {"phase", options->phase}, {"finger", options->finger},
                                               {"x", options->x}, {"y", options->y}}});
                int64_t usage = 0;
                try {
                    usage = buttonUsage(options->button);
                } catch (const std::exception&) {
                    fail("unknown button '" + options->button + "'", 2);
                }
                auto line = [&](bool down) {
                    return nlohmann::json{{"kind", "button"}, {"usage", usage}, {"usagePage", options->usagePage}, {"down", down}};
                };
                if (options->downOnly) return sendLines(common, {line(true)});
                if (options->upOnly) return sendLines(common, {line(false)});
                return sendLines(common, {line(true), line(false)});
            }};
}

}  // namespace tw::cli
