#include "roles/ControlSocket.h"

#include "core/Diagnostics.h"
#include "core/Global.h"
#include "core/Paths.h"
#include "graphic/Bmp.h"
#include "platform/linux/LineClient.h"
#include "library/FileManager.h"
#include "platform/ActivatorFramework.h"
#include "platform/Platform.h"
#include "play/PivotManager.h"
#include "store/DataManager.h"
#include "store/PlaySettingsManager.h"
#include "device/DeviceUserInterface.h"
#include "triggers/ActivatorManager.h"
#include "recording/Recorder.h"
#include "roles/DeviceAccess.h"

namespace tw::roles {

namespace {
constexpr size_t kMaxControlLine = 64 * 1024;
}  // namespace

std::string controlSocketPath(const std::string& runDir) { return runDir + "/control"; }

namespace {

const char* actionName(int64_t forWhat) {
    switch (forWhat) {
        case kForWhatControlPanel: return "panel";
        case kForWhatStartStopPlaying: return "playstop";
        case kForWhatPlayScript: return "script";
        default: return "unknown";
    }
}

nlohmann::json failure(const std::string& error) { return {{"ok", false}, {"error", error}}; }

// Removes both copies of a binding: the framework's assignments and the rows.
void unbind(const ActivatorTrigger& trigger) {
    ActivatorManager::unassignActivatorTrigger(trigger, ActivatorManager::compatibleModesOfEventAssigned(trigger.eventName));
}

// "trigger" fires an event as a button would; "bind" and "unbind" change what an event does.
nlohmann::json handleTrigger(const std::string& action, const nlohmann::json& request) {
    const std::string event = request.value("event", "");
    const auto& names = activatorEventNames();
    if (std::find(names.begin(), names.end(), event) == names.end())
        return failure("unknown event \"" + event + "\" (one of LAEventNameVolumeDownPress, LAEventNameVolumeUpPress, "
                       "LAEventNameVolumeDownHoldShort, LAEventNameVolumeUpHoldShort, LAEventNameVolumeDownHoldLong, "
                       "LAEventNameVolumeUpHoldLong, LAEventNameMenuPressDouble, LAEventNameLockPress)");
    auto activator = Platform::current().activator;
    if (!activator) return failure("this home screen has no trigger framework");
    if (action == "trigger") return {{"ok", true}, {"handled", activator->sendEvent(event)}};
    const auto bound = ActivatorManager::getActivatorTriggerByEventName(event);
    if (action == "unbind") {
        if (!bound) return failure(event + " is not bound");
        if (!ActivatorManager::allowedToUnassignEvent(event, kActivatorListenerName))
            return failure(event + " is the last event of the listener and cannot be unbound");
        unbind(*bound);
        return {{"ok", true}};
    }
    const std::string what = request.value("action_type", "");
    int64_t forWhat = 0;
    std::optional<std::string> script;
    if (what == "panel") {
        forWhat = kForWhatControlPanel;
    } else if (what == "playstop") {
        forWhat = kForWhatStartStopPlaying;
    } else if (what == "script") {
        forWhat = kForWhatPlayScript;
        script = request.value("script", "");
        if (!FileManager::fileExist(*script) || script->find('/', 1) != std::string::npos)
            return failure("no script " + *script + " in the library root");
    } else {
        return failure("a binding is \"panel\", \"playstop\" or \"script\"");
    }
    if (bound) unbind(*bound);
    // The control panel and start/stop are each bound to one event only.
    if (forWhat != kForWhatPlayScript)
        if (auto other = forWhat == kForWhatControlPanel ? DataManager::getActivatorTriggerForControlPanel()
                                                         : DataManager::getActivatorTriggerForStartStopPlaying())
            unbind(*other);
    ActivatorManager::assignActivatorTrigger(ActivatorTrigger(event, forWhat, script), ActivatorManager::compatibleModesOfEvent(event));
    return {{"ok", true}};
}

// The control panel for a person at the command line: without "choose", what it lists; with
// "choose": "script", what the panel does with the script chosen, the play settings sheet and the
// password prompt answered from the request.
nlohmann::json handlePanel(const nlohmann::json& request) {
    auto& global = Global::sharedInstance();
    auto& pivot = PivotManager::sharedInstance();
    const std::string choose = request.value("choose", "");
    if (choose.empty()) {
        nlohmann::json scripts = nlohmann::json::array();
        for (const auto& script : PivotManager::controlPanelScripts()) {
            const auto settings = PlaySettingsManager::currentPlaySettingsFor(script.path);
            scripts.push_back({{"path", script.path}, {"trigger", script.hasTrigger}, {"settings", script.hasPlaySettings},
                               {"timer", script.hasTimer}, {"repeat", settings->repeatTime},
                               {"interval", settings->repeatInterval}, {"speed", settings->playSpeed},
                               {"playDirectly", settings->playDirectly}});
        }
        return {{"ok", true}, {"scripts", scripts}, {"recording", global.isRecording()}, {"playing", global.isPlaying()},
                {"readyToPlay", global.isReadyToPlay()}};
    }
    if (choose != "script") return failure("a panel choice is \"script\" (record and screenshot have their own actions)");
    if (global.isPlaying() || global.isRecording()) return failure("a script is playing or a recording runs");
    const std::string path = request.value("script", "");
    auto ui = std::dynamic_pointer_cast<device::DeviceUserInterface>(Platform::current().ui);
    if (ui && request.contains("sheet") && request["sheet"].is_object()) {
        const auto& sheet = request["sheet"];
        PlaySettingsSheet chosen;
        chosen.repeatTime = sheet.value("repeat", int64_t{1});
        chosen.repeatInterval = sheet.value("interval", int64_t{1});
        chosen.playSpeed = sheet.value("speed", 1.0);
        chosen.playDirectly = sheet.value("playDirectly", false);
        chosen.playNowOrLater = sheet.value("later", false) ? 1 : 0;
        ui->answerNextPlaySettingsView(chosen);
    }
    if (ui && request.contains("password") && request["password"].is_string()) ui->answerNextTextPrompt(request["password"]);
    pivot.controlPanelViewDidSelectScript(path);
    if (ui) ui->clearAnswers();
    return {{"ok", true}, {"readyToPlay", global.isReadyToPlay()}};
}

}  // namespace

nlohmann::json ControlSocket::handle(const nlohmann::json& request) {
    if (!request.is_object() || !request.contains("action") || !request["action"].is_string())
        return {{"ok", false}, {"error", "a request is a JSON object with an \"action\""}};
    const std::string action = request["action"].get<std::string>();
    if (action == "screenshot") {
        if (const auto path = take_current_screenshot()) return {{"ok", true}, {"path", *path}};
        return {{"ok", false}, {"error", "the screen could not be saved"}};
    }
    if (action == "record") {
        // What the control panel's record button and the stop of a recording do.
        const auto start = request.find("start");
        if (start == request.end() || !start->is_boolean())
            return {{"ok", false}, {"error", "\"record\" needs \"start\": true or false"}};
        auto& global = Global::sharedInstance();
        if (start->get<bool>()) {
            if (global.isRecording()) return {{"ok", false}, {"error", "a recording is already running"}};
            if (global.isPlaying()) return {{"ok", false}, {"error", "a script is playing"}};
            PivotManager::sharedInstance().controlPanelViewDidClickOnRecord();
            return {{"ok", true}, {"path", Paths::devicePath(recordingScriptPath())}};
        }
        if (!global.isRecording()) return {{"ok", false}, {"error", "no recording is running"}};
        const std::string path = Paths::devicePath(recordingScriptPath());
        PivotManager::sharedInstance().stopRecording();
        return {{"ok", true}, {"path", path}};
    }
    if (action == "trigger" || action == "bind" || action == "unbind") return handleTrigger(action, request);
    if (action == "panel") return handlePanel(request);
    if (action == "triggers") {
        nlohmann::json list = nlohmann::json::array();
        for (const auto& trigger : ActivatorManager::getActivatorTriggersAll())
            list.push_back({{"event", trigger.eventName},
                            {"action", actionName(trigger.forWhat)},
                            {"script", trigger.forWhat == kForWhatPlayScript ? trigger.filePath.value_or("") : ""}});
        return {{"ok", true}, {"triggers", list}};
    }
    return {{"ok", false}, {"error", "unknown action \"" + action + "\""}};
}

ControlSocket::ControlSocket(linuxp::AsioRunLoop& loop, const std::string& runDir) {
    server_ = linuxp::LineServer::create(
        loop.context(), "control", kMaxControlLine, kMaxControlLine,
        [this](const linuxp::LineServer::ConnectionPtr& connection, std::string_view line) {
            const auto request = nlohmann::json::parse(line.begin(), line.end(), nullptr, false);
            const auto reply = request.is_discarded() ? nlohmann::json{{"ok", false}, {"error", "not JSON"}}
                                                      : handle(request);
            server_->send(connection, reply.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
        });
    std::string error;
    if (!server_->listen(controlSocketPath(runDir), &error)) fail("the home screen cannot start: " + error);
}

ControlSocket::~ControlSocket() { server_->stop(); }

nlohmann::json sendControlRequest(const std::string& root, const nlohmann::json& request) {
    std::string error;
    auto client = linuxp::LineClient::connect(controlSocketPath(runDirOf(root)), &error);
    if (!client) fail("no device runs on " + root + " (start one with `tapwright device`)");
    if (!client->sendLine(request.dump())) fail("the device on " + root + " went away");
    const auto line = client->readLine(10000);
    if (!line) fail("the device on " + root + " did not answer");
    const auto reply = nlohmann::json::parse(*line, nullptr, false);
    if (reply.is_discarded() || !reply.is_object()) fail("the device on " + root + " answered something unreadable");
    return reply;
}

}  // namespace tw::roles
