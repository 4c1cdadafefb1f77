#pragma once
// The home-screen role's control socket. What a person does on the phone's own screen (the
// control panel's buttons) has no message on the commands port, which carries what the settings
// application sends; on Linux such actions reach the home screen here, at "<root>/run/control", one
// JSON object per line each way:
//   {"action":"screenshot"}  ->  {"ok":true,"path":"/2026-11-23 10:20:30.bmp"} (a library path)
//   {"action":"record","start":true}   ->  {"ok":true,"path":"/var/mobile/.../2026-11-23 10:20:30.lua"}
//   {"action":"record","start":false}  ->  {"ok":true,"path":...} (the file just finished)
//   anything else            ->  {"ok":false,"error":"<what is wrong>"}
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/linux/AsioRunLoop.h"
#include "platform/linux/LineServer.h"

namespace tw::roles {

std::string controlSocketPath(const std::string& runDir);

class ControlSocket {
public:
    // Listens on the loop of the home-screen role; throws a Failure when it cannot.
    ControlSocket(linuxp::AsioRunLoop& loop, const std::string& runDir);
    ~ControlSocket();

    // The reply to one request (also used by tests without a socket).
    static nlohmann::json handle(const nlohmann::json& request);

private:
    std::shared_ptr<linuxp::LineServer> server_;
};

// Sends one request to the home screen of the device on `root` and returns its reply. Throws a
// Failure when no device runs there or it does not answer within 10 s.
nlohmann::json sendControlRequest(const std::string& root, const nlohmann::json& request);

}  // namespace tw::roles
