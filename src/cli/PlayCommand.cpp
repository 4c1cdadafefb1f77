// tapwright play: plays one script in the home-screen role, in the foreground.
#include "cli/Commands.h"
#include "roles/ForegroundPlay.h"

namespace tw::cli {

Command addPlayCommand(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<roles::PlayRequest>();
    auto* sub = app.add_subcommand("play", "Play a Lua script on the device (in the foreground)");
    sub->footer(
        "SCRIPT is a library path (/name.lua, relative to the device's script library) or a file on disk,\n"
        "which is copied into the library root under its file name first.\n"
        "Script output (print) goes to stdout, alerts to stderr. Ctrl-C stops the play.\n"
        "Uses the device running on the root (tapwright device), or starts its input-event and app roles\n"
        "for the length of the play.\n"
        "Exit status: 0 when the play ended without a script error (a stop is not an error), 1 otherwise.");
    sub->add_option("script", options->script, "Script to play: library path or file")->required();
    sub->add_option("--root", common.root, "Device root folder (default: $XDG_DATA_HOME/tapwright/devices/default)");
    sub->add_option("--repeat", options->repeat,
                    "Runs per play; 0 repeats until stopped (default: the script's play settings, else 1)")
        ->check(CLI::NonNegativeNumber);
    sub->add_option("--interval", options->interval,
                    "Whole seconds between two runs (default: the script's play settings, else 1)")
        ->check(CLI::NonNegativeNumber);
    sub->add_option("--speed", options->speed,
                    "Play speed: waits are scaled by 2.0 - speed (default: the script's play settings, else 1.0)")
        ->check(CLI::Range(0.0, 2.0));
    sub->add_option("--profile", options->profile,
                    "Profile of the roles the play starts itself (a running device's profile wins): a name in "
                    "resources/devices or a JSON file")
        ->capture_default_str();
    sub->add_option("--trace", options->trace, "Write the device's events (JSON Lines) to FILE, emptied first");
    sub->add_option("--password", options->password,
                    "Password of an encrypted script (.e); remembered for it once it works, so later plays "
                    "need it no more")
        ->each([options](const std::string&) { options->passwordGiven = true; });
    sub->add_option("--answers", options->answers,
                    "Answer the script's dialogs from FILE: a JSON array, one object per dialog "
                    "({\"key\": value, ...} or {\"cancel\": true})")
        ->check(CLI::ExistingFile);
    sub->add_option("--screen", options->screen, "Show this picture (BMP or PNG) on the device's display first")
        ->check(CLI::ExistingFile);
    return {sub, [&common, options] {
                options->root = deviceRoot(common);
                return roles::playScript(*options);
            }};
}

}  // namespace tw::cli
