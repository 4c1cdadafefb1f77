// tapwright: plays Lua touch-automation scripts on a virtual device.
#include <exception>

#include "cli/Commands.h"
#include "core/Diagnostics.h"
#include "roles/DeviceAccess.h"

namespace tw::cli {

std::string deviceRoot(const CommonOptions& common) { return roles::prepareDeviceRoot(common.root); }

}  // namespace tw::cli

int main(int argc, char** argv) {
    CLI::App app{"tapwright: touch automation with Lua scripts, on a virtual device"};
    app.require_subcommand(1);
    tw::cli::CommonOptions common;

    std::vector<tw::cli::Command> commands = {
        tw::cli::addPlayCommand(app, common),
        tw::cli::addEncryptCommand(app, common),
        tw::cli::addDecryptCommand(app, common),
        tw::cli::addDeviceCommand(app, common),
        tw::cli::addEventsCommand(app, common),
        tw::cli::addHardwareCommand(app, common),
        tw::cli::addScreenCommand(app, common),
        tw::cli::addScreenshotCommand(app, common),
        tw::cli::addLibraryCommand(app, common),
        tw::cli::addRecordCommand(app, common),
        tw::cli::addPanelCommand(app, common),
        tw::cli::addTimerCommand(app, common),
        tw::cli::addTimersCommand(app, common),
        tw::cli::addSettingsCommand(app, common),
        tw::cli::addRoleCommand(app, common),
    };
    for (auto& command : tw::cli::addTriggerCommands(app, common)) commands.push_back(std::move(command));
    for (auto& command : tw::cli::addWebCommands(app, common)) commands.push_back(std::move(command));

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }

    // Every failure of a command ends here, as one line and an exit status.
    try {
        for (const auto& command : commands)
            if (command.sub->parsed()) return command.action();
    } catch (const tw::Failure& e) {
        tw::diagnostic("%s", e.what());
        return e.status();
    } catch (const std::exception& e) {
        tw::diagnostic("%s", e.what());
        return 1;
    }
    return 1;
}
