// tapwright triggers, bind, unbind and trigger: the trigger bindings of a running device and its
// trigger events, as the settings pages and the buttons reach them.
#include "cli/Commands.h"
#include "core/Diagnostics.h"
#include "roles/ControlSocket.h"

namespace tw::cli {

namespace {

nlohmann::json request(const CommonOptions& common, const nlohmann::json& message, const std::string& what) {
    auto reply = roles::sendControlRequest(deviceRoot(common), message);
    if (!reply.value("ok", false)) fail("cannot " + what + ": " + reply.value("error", ""));
    return reply;
}

const char* kEventsHelp =
    "Events: LAEventNameVolumeDownPress, LAEventNameVolumeUpPress, LAEventNameVolumeDownHoldShort,\n"
    "LAEventNameVolumeUpHoldShort, LAEventNameVolumeDownHoldLong, LAEventNameVolumeUpHoldLong,\n"
    "LAEventNameMenuPressDouble, LAEventNameLockPress.";

}  // namespace

std::vector<Command> addTriggerCommands(CLI::App& app, CommonOptions& common) {
    auto event = std::make_shared<std::string>();
    auto what = std::make_shared<std::string>();
    auto script = std::make_shared<std::string>();

    auto* list = app.add_subcommand("triggers", "List the running device's trigger bindings: event, action, script");
    list->add_option("--root", common.root, "Device root folder");

    auto* bind = app.add_subcommand("bind", "Bind a trigger event to the control panel, start/stop, or a script");
    bind->add_option("event", *event, "Event name")->required();
    bind->add_option("action", *what, "panel, playstop or script")->required()->check(CLI::IsMember({"panel", "playstop", "script"}));
    bind->add_option("script", *script, "With script: the library path of a script in the library root, /name.lua");
    bind->add_option("--root", common.root, "Device root folder");
    bind->footer(std::string("The event's binding is replaced; the control panel and start/stop have one event each.\n") + kEventsHelp);

    auto* unbind = app.add_subcommand("unbind", "Remove a trigger event's binding");
    unbind->add_option("event", *event, "Event name")->required();
    unbind->add_option("--root", common.root, "Device root folder");

    auto* fire = app.add_subcommand("trigger", "Fire a trigger event as a button would; prints handled or unhandled");
    fire->add_option("event", *event, "Event name")->required();
    fire->add_option("--root", common.root, "Device root folder");
    fire->footer(kEventsHelp);

    return {
        {list, [&common]() -> int {
             const auto reply = request(common, {{"action", "triggers"}}, "list the triggers");
             for (const auto& trigger : reply["triggers"])
                 std::printf("%s\t%s\t%s\n", trigger.value("event", "").c_str(), trigger.value("action", "").c_str(),
                             trigger.value("script", "").c_str());
             return 0;
         }},
        {bind, [&common, event, what, script]() -> int {
             if ((*what == "script") == script->empty()) fail("a script binding takes a script, the others none", 2);
             request(common, {{"action", "bind"}, {"event", *event}, {"action_type", *what}, {"script", *script}}, "bind " + *event);
             return 0;
         }},
        {unbind, [&common, event]() -> int {
             request(common, {{"action", "unbind"}, {"event", *event}}, "unbind " + *event);
             return 0;
         }},
        {fire, [&common, event]() -> int {
             const auto reply = request(common, {{"action", "trigger"}, {"event", *event}}, "fire " + *event);
             std::printf("%s\n", reply.value("handled", false) ? "handled" : "unhandled");
             return 0;
         }},
    };
}

}  // namespace tw::cli
