// tapwright panel: the control panel of a running device in the console. It lists the library's
// scripts with their marks and takes one choice: a script (then the play settings sheet, and the
// password of an encrypted script), recording, or a screenshot.
#include <iostream>
#include <sstream>

#include "cli/Commands.h"
#include "core/Diagnostics.h"
#include "roles/ControlSocket.h"

namespace tw::cli {

namespace {

// One answer from standard input; `fallback` for an empty line or the end of the input.
std::string ask(const std::string& question, const std::string& fallback) {
    std::printf("%s [%s]: ", question.c_str(), fallback.c_str());
    std::fflush(stdout);
    std::string line;
    if (!std::getline(std::cin, line) || line.empty()) return fallback;
    return line;
}

template <typename T>
T askNumber(const std::string& question, T fallback, T low, T high) {
    std::ostringstream shown;
    shown << fallback;
    const std::string answer = ask(question, shown.str());
    try {
        size_t used = 0;
        const double value = std::stod(answer, &used);
        if (used == answer.size() && value >= static_cast<double>(low) && value <= static_cast<double>(high))
            return static_cast<T>(value);
    } catch (const std::exception&) {
    }
    fail("'" + answer + "' is not a number from " + std::to_string(low) + " to " + std::to_string(high), 2);
}

nlohmann::json tell(const std::string& root, const nlohmann::json& request) {
    auto reply = roles::sendControlRequest(root, request);
    if (!reply.value("ok", false)) fail(reply.value("error", "the device said no"));
    return reply;
}

}  // namespace

Command addPanelCommand(CLI::App& app, CommonOptions& common) {
    auto* sub = app.add_subcommand("panel", "The running device's control panel in the console: play a script, record, screenshot");
    sub->add_option("--root", common.root, "Device root folder");
    sub->footer(
        "Lists the library's scripts ([trigger], [settings] and [timer] mark those with a binding, stored\n"
        "play settings or a schedule) and reads one choice from standard input: a number plays that\n"
        "script after the play settings sheet (repeat, interval, speed, now or later, play directly;\n"
        "an empty answer keeps the value shown), r starts or stops recording, s takes a screenshot.");
    return {sub, [&common]() -> int {
                const std::string root = deviceRoot(common);
                const auto panel = tell(root, {{"action", "panel"}});
                const auto& scripts = panel["scripts"];
                for (size_t i = 0; i < scripts.size(); ++i) {
                    const auto& s = scripts[i];
                    std::printf("%3zu) %s%s%s%s\n", i + 1, s.value("path", "").c_str(), s.value("trigger", false) ? " [trigger]" : "",
                                s.value("settings", false) ? " [settings]" : "", s.value("timer", false) ? " [timer]" : "");
                }
                const bool recording = panel.value("recording", false);
                std::printf("  r) %s\n  s) screenshot\n  q) close\n", recording ? "stop recording" : "record");
                const std::string choice = ask("choice", "q");
                if (choice == "q") return 0;
                if (choice == "r") {
                    std::printf("%s\n", tell(root, {{"action", "record"}, {"start", !recording}}).value("path", "").c_str());
                    return 0;
                }
                if (choice == "s") {
                    std::printf("%s\n", tell(root, {{"action", "screenshot"}}).value("path", "").c_str());
                    return 0;
                }
                size_t index = 0;
                try {
                    index = std::stoul(choice);
                } catch (const std::exception&) {
                }
                if (index < 1 || index > scripts.size()) fail("no choice '" + choice + "'", 2);
                const auto& script = scripts[index - 1];
                const std::string path = script.value("path", "");
                nlohmann::json request{{"action", "panel"}, {"choose", "script"}, {"script", path}};
                if (!script.value("playDirectly", false)) {
                    request["sheet"] = {
                        {"repeat", askNumber<int64_t>("repeat (0: until stopped)", script.value("repeat", int64_t{1}), 0, 1000000)},
                        {"interval", askNumber<int64_t>("interval in seconds", script.value("interval", int64_t{1}), 0, 86400)},
                        {"speed", askNumber<double>("speed (0 to 2)", script.value("speed", 1.0), 0, 2)},
                        {"later", ask("play now or later (now/later)", "now") == "later"},
                        {"playDirectly", ask("play directly next time (yes/no)", "no") == "yes"}};
                }
                if (path.ends_with(".e") || path.ends_with(".E")) request["password"] = ask("password (empty: the remembered one)", "");
                const auto reply = tell(root, request);
                std::printf("%s\n", reply.value("readyToPlay", false) ? "ready to play: its start/stop trigger starts and stops it"
                                                                      : "chosen");
                return 0;
            }};
}

}  // namespace tw::cli
