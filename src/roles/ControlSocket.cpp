#include "roles/ControlSocket.h"

#include "core/Diagnostics.h"
#include "core/Global.h"
#include "core/Paths.h"
#include "graphic/Bmp.h"
#include "platform/linux/LineClient.h"
#include "play/PivotManager.h"
#include "recording/Recorder.h"
#include "roles/DeviceAccess.h"

namespace tw::roles {

namespace {
constexpr size_t kMaxControlLine = 64 * 1024;
}  // namespace

std::string controlSocketPath(const std::string& runDir) { return runDir + "/control"; }

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
