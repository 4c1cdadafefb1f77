#pragma once
// `tapwright play`: one play of one script in the home-screen role, in the foreground of this
// process, on the device running on the root or on roles started for the length of the play.
#include <cstdint>
#include <optional>
#include <string>

namespace tw::roles {

struct PlayRequest {
    std::string root;          // an absolute device root (see prepareDeviceRoot)
    std::string script;        // a library path ("/name.lua") or a file on disk
    // What the command line says; unset ones come from the script's stored play settings (or
    // their defaults: once, 1 s apart, speed 1.0).
    std::optional<int64_t> repeat;    // runs; 0 repeats until stopped
    std::optional<int64_t> interval;  // whole seconds between runs
    std::optional<float> speed;
    std::string password;      // for an encrypted script (".e")
    bool passwordGiven = false;
    std::string profile = "default";  // of the roles the play starts itself; a running device's wins
    std::string trace;         // "" or a file for the device's events, emptied first
    std::string screen;        // "" or a picture shown on the display first
    std::string answers;       // "" or a file of answers to the script's dialogs
};

// Plays the script to its end. Ctrl-C, SIGTERM, SIGHUP or a closed output pipe stop it as the stop
// button would (a second one leaves at once); roles it started end with it and are restarted when
// they die mid-play. Returns 0 when the play ended without a script error, 1 after printing the
// script's error. Throws a Failure when the play cannot start (no such script, a wrong password,
// an unreadable profile).
int playScript(const PlayRequest& request);

}  // namespace tw::roles
