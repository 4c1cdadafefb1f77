#pragma once
// The tapwright subcommands. Each registers itself and its options on the app.
#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

namespace tw::cli {

struct CommonOptions {
    std::string root;  // empty: the default device root
};

// The device root of the options (made when missing), as an absolute path.
std::string deviceRoot(const CommonOptions& common);

// A subcommand and what it does once chosen (the process's exit status). A failure is thrown as a
// tw::Failure (or any std::exception) and reported by main() as one line on stderr.
struct Command {
    CLI::App* sub;
    std::function<int()> action;
};

Command addPlayCommand(CLI::App& app, CommonOptions& common);
Command addEncryptCommand(CLI::App& app, CommonOptions& common);
Command addDecryptCommand(CLI::App& app, CommonOptions& common);
Command addRoleCommand(CLI::App& app, CommonOptions& common);
Command addDeviceCommand(CLI::App& app, CommonOptions& common);
Command addEventsCommand(CLI::App& app, CommonOptions& common);
Command addHardwareCommand(CLI::App& app, CommonOptions& common);
Command addScreenCommand(CLI::App& app, CommonOptions& common);
Command addScreenshotCommand(CLI::App& app, CommonOptions& common);
Command addLibraryCommand(CLI::App& app, CommonOptions& common);
Command addRecordCommand(CLI::App& app, CommonOptions& common);
Command addPanelCommand(CLI::App& app, CommonOptions& common);
// triggers, bind, unbind, trigger.
std::vector<Command> addTriggerCommands(CLI::App& app, CommonOptions& common);
Command addTimerCommand(CLI::App& app, CommonOptions& common);
Command addTimersCommand(CLI::App& app, CommonOptions& common);
Command addSettingsCommand(CLI::App& app, CommonOptions& common);
// web, dav.
std::vector<Command> addWebCommands(CLI::App& app, CommonOptions& common);

}  // namespace tw::cli
