// tapwright record: the control panel's record button and the stop of a recording, on a running
// device. The recording is a new script in the library, named by the time it started.
#include "cli/Commands.h"
#include "core/Diagnostics.h"
#include "roles/ControlSocket.h"

namespace tw::cli {

Command addRecordCommand(CLI::App& app, CommonOptions& common) {
    auto action = std::make_shared<std::string>();
    auto* sub = app.add_subcommand("record", "Record a person's touches and home button into a new script");
    sub->add_option("action", *action, "start or stop")->required()->check(CLI::IsMember({"start", "stop"}));
    sub->add_option("--root", common.root, "Device root folder");
    sub->footer(
        "start records on the running device as its control panel's record button does (it vibrates\n"
        "when the settings say so) and prints the path of the new script; stop ends the recording\n"
        "(with the \"Recording Finished!\" alert when the settings say so) and prints the path again.\n"
        "Touches and the home button are recorded, with the pauses between them; other buttons are not.");
    return {sub, [&common, action]() -> int {
                const bool start = *action == "start";
                const auto reply = roles::sendControlRequest(deviceRoot(common), {{"action", "record"}, {"start", start}});
                if (!reply.value("ok", false)) fail("cannot " + *action + " recording: " + reply.value("error", ""));
                std::printf("%s\n", reply.value("path", "").c_str());
                return 0;
            }};
}

}  // namespace tw::cli
