#pragma once
// `tapwright play`: one play of one script in the home-screen role, in the foreground of this
// process, on the device running on the root or on roles started for the length of the play.
#include <cstdint>
#include <string>

namespace tw::roles {

struct PlayRequest {
    std::string root;          // an absolute device root (see prepareDeviceRoot)
    std::string script;        // a library path ("/name.lua") or a file on disk
    int64_t repeat = 1;        // runs; 0 repeats until stopped
    int64_t interval = 1;      // whole seconds between runs
    float speed = 1.0f;
    std::string password;      // for an encrypted script (".e")
    bool passwordGiven = false;
    std::string profile = "default";
    std::string trace;         // "" or a file for the device's events, emptied first
    std::string screen;        // "" or a picture shown on the display first
    std::string answers;       // "" or a file of answers to the script's dialogs
};

// Plays the script to its end (Ctrl-C stops it as the stop button would). Returns 0 when the play
// ended without a script error, 1 after printing the script's error. Throws a Failure when the
// play cannot start (no such script, a wrong password, an unreadable profile).
int playScript(const PlayRequest& request);

}  // namespace tw::roles
